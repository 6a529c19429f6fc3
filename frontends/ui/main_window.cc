#include "main_window.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QStackedWidget>
#include <QStandardPaths>
#include <QTabWidget>
#include <QTextEdit>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <cstdio>

#include "about_dialog.h"
#ifdef TAVRIX_HAVE_CHARTS
#include "chart_window.h"
#endif
#include "check_failure_dialog.h"
#include "common/text_conventions.h"
#include "data_entry_dialog.h"
#include "decrypt_dialog.h"
#include "instrument/commands/channel_commands.h"
#include "manual_control.h"
#include "qt_text.h"
#include "question_dialogs.h"
#include "report_dialog.h"
#include "sequence_lines_view.h"
#include "sequencer/line_splitter.h"
#include "station_view.h"
#include "testdb/definition_files.h"

namespace tavrix {

namespace {

constexpr int kStartWidthTwips = 4440;
constexpr int kStartHeightTwips = 3870;
constexpr int kRunWidthTwips = 9015;
constexpr int kRunHeightTwips = 8865;

constexpr std::string_view kPanelCaption = "Operator Message";
constexpr std::string_view kExitQuestion = "A test is running. Stop it and exit?";
// The question the engine asks when a run that must not be stopped is
// closed; the window asks it itself so that the run goes on meanwhile.
constexpr std::string_view kNonStopTitle = "Corvane Test Sequence";
constexpr std::string_view kNonStopText =
    "This application should not be  stopped\rDo you want to stop it ?";
// The panel's design colour, light green; a failure alert stands out in a
// warning colour.
const QColor kPanelColour(192, 255, 192);
const QColor kWarningColour(255, 176, 144);
const QColor kPassColour(192, 255, 192);
const QColor kFailColour(255, 128, 128);

// The fields of the data entry that must be filled in, in the form's order:
// the first flag of the field names file's rows. Before the file's first
// unit the engine has not read the definition yet, so it is read here from
// the DB_DATAENTRY line that asks (quietly: the engine reports its faults
// itself). Engine thread.
std::vector<bool> RequiredEntryFields(Engine& engine, std::string line) {
  TestDefinition read;
  const TestDefinition* definition = &engine.testDatabase().definition();
  if (definition->fieldNames.empty()) {
    const CommandLine command = SplitCommandLine(line);
    if (command.word == "DB_DATAENTRY") {
      DefinitionReadOptions options;
      options.paths = &engine.paths();
      options.files = &engine.files();
      options.currentDirectory = engine.files().currentFolder();
      options.showMessage = [](const std::string&) {};
      ReadTestDefinitionFiles(std::string(trim(command.arg1)), options, read);
      definition = &read;
    }
  }
  std::vector<bool> required;
  for (const FieldName& field : definition->fieldNames) required.push_back(field.firstFlag);
  return required;
}

// The questions of a station's socket that has no answers file: put to the
// person in the window. Called on the socket's engine thread.
class SocketPersonOperator final : public Operator {
 public:
  SocketPersonOperator(MainWindow& window, std::shared_ptr<SocketQuestions> questions,
                       size_t socket, std::string name)
      : window_(window),
        questions_(std::move(questions)),
        socket_(socket),
        name_(std::move(name)) {}
  void ask(const Question& question, std::function<void(Answer)> answered) override {
    if (questions_->ask(socket_, name_, question, std::move(answered))) showNext();
  }
  void closeQuestion() override {
    questions_->withdraw(socket_);
    showNext();
  }
  bool isPerson() const override { return true; }
  std::string unansweredReason() const override { return "the window was closed"; }
  void showMessage(std::string_view, std::string_view) override {}

 private:
  // The window outlives the sockets (it ends their threads before it goes).
  void showNext() {
    QMetaObject::invokeMethod(
        &window_, [w = &window_] { w->showSocketQuestion(); }, Qt::QueuedConnection);
  }
  MainWindow& window_;
  std::shared_ptr<SocketQuestions> questions_;
  size_t socket_;
  std::string name_;
};

bool IsStationFile(const std::string& path) {
  return path.size() > 5 && QString::fromStdString(path).endsWith(".toml", Qt::CaseInsensitive);
}

}  // namespace

void EnterSetupsFolder(Engine& engine) {
  Instrument* instrument = engine.instrument();
  if (instrument == nullptr) return;
  const std::string folder = engine.resolvePath(instrument->link().GetSetupsDirectory());
  if (engine.files().isFolder(folder)) changeCurrentFolder(folder);
}

MainWindow::MainWindow(const Host& machine, EngineFactory factory, const std::string& commandLine)
    : operator_(*this), machine_(machine) {
  stationOptions_.dataRoot = machine_.dataRoot;
  setWindowTitle(QString::fromUtf8(kCaption.data(), static_cast<int>(kCaption.size())));
  buildControls();
  buildMenus();
  qApp->installEventFilter(this);
  resize(TwipsToPixels(kStartWidthTwips), TwipsToPixels(kStartHeightTwips));
  host_ = std::make_unique<EngineHost>([this, factory] {
    auto engine = factory(operator_);
    operator_.attach(engine->events());
    breakpoints_ = std::make_unique<Breakpoints>(*engine);
    runControl_ = std::make_unique<EachRunControl>(
        *engine, *breakpoints_,
        [](const std::string& problem) { std::fprintf(stderr, "tavrix: %s\n", problem.c_str()); });
    return engine;
  });
  QPointer<MainWindow> self(this);
  // On the engine thread: the lines view's share of the event is taken
  // there, as the event happens.
  runEvents_ = host_->engine().subscribe([self, this](const RunEvent& event) {
    LinesSnapshot snapshot = LinesSnapshot::Take(host_->engine(), *breakpoints_, event);
    QMetaObject::invokeMethod(
        qApp,
        [self, event, snapshot = std::move(snapshot)] {
          if (self) self->showRunEvent(event, snapshot);
        },
        Qt::QueuedConnection);
  });
  watchVerdicts();
  StartCommandLine start = ParseStartCommandLine(commandLine);
  if (IsStationFile(start.file)) {
    // A station opens once the window is built (and its station options
    // set); /A starts every socket.
    QMetaObject::invokeMethod(
        this,
        [this, path = start.file, all = start.autoStart] {
          if (openStation(path) && all) station_->runAll();
        },
        Qt::QueuedConnection);
    start = StartCommandLine{};
    start.file = "";
  }
  host_->post([start](Engine& engine) {
    EnterSetupsFolder(engine);
    Sequencer& seq = engine.sequencer();
    std::string error;
    if (!start.file.empty() && !seq.prepareFile(start.file, &error)) seq.showMessage(error);
    if (start.autoStart) seq.startAtNextSecond();
  });
  // With no file named on the command line, a run of an earlier session
  // that did not end is offered to go on.
  if (start.file.empty()) {
    host_->post([self](Engine& engine) {
      auto offer = ResumeOfferAtStartUp(engine.files(), engine.clock().now());
      if (!offer) return;
      QMetaObject::invokeMethod(
          qApp,
          [self, offer = std::move(*offer)] {
            if (self) self->offerResume(offer);
          },
          Qt::QueuedConnection);
    });
  }
}

void MainWindow::offerResume(const ResumeOffer& offer) {
  Question question;
  question.title = std::string(kResumeOfferTitle);
  question.text = offer.text;
  question.choices = offer.choices;
  answerQuestionBox(question, [this, offer](Answer answer) {
    const std::string choice = answer.value_or(std::string(kLaterChoice));
    host_->post([offer, choice](Engine& engine) {
      std::string message;
      if (!CarryOutResumeChoice(engine, offer, choice, &message))
        engine.sequencer().showMessage(message);
    });
  });
}

void MainWindow::showRunEvent(const RunEvent& event, const LinesSnapshot& snapshot) {
  if (panel_.apply(event)) setControls(panel_.controls());
  linesView_->take(event, snapshot);
  // A breakpoint that holds the run brings its line into view.
  if (event.kind == RunEventKind::kHold && event.title == "break")
    tabs_->setCurrentWidget(linesView_);
  switch (event.kind) {
    case RunEventKind::kStatus:
      setRunStatus(Text(event.text));
      break;
    case RunEventKind::kCommand:
      if (panel_.wait()) {
        showWait(*panel_.wait());
      } else {
        setCurrentCommand(Text(event.text));
      }
      break;
    case RunEventKind::kTimeout:
      setTimeout(static_cast<int>(event.number));
      break;
    case RunEventKind::kFile:
      setDataFileSpec(Text(event.text));
      break;
    case RunEventKind::kStarted:
      showRunEnd();
      // A free run moves the window to the top-left corner at its running size.
      if (!event.flag) enlargeForRun();
      break;
    case RunEventKind::kUut:
      showVerdict(Text(event.title), event.flag);
      refreshUnit();
      break;
    case RunEventKind::kLine:
      watchWaitCondition(event.text);
      refreshUnit();
      break;
    case RunEventKind::kPrompt:
    case RunEventKind::kAnswer:
      refreshUnit();
      break;
    case RunEventKind::kEnd:
      pbWait_->hide();
      watchWaitCondition({});
      showRunEnd();
      refreshUnit();
      break;
    default:
      break;
  }
}

MainWindow::~MainWindow() {
  qApp->removeEventFilter(this);
  // The station's sockets end first: their runs are stopped, and questions
  // still waiting get no answer.
  endStation();
  for (const QPointer<QWidget>& window : ownWindows_) delete window.data();
  chart_ = nullptr;
  operator_.setClosing();
  // Questions still open get no answer, so that the engine can wind down.
  if (panelAnswered_) {
    auto answered = std::move(panelAnswered_);
    panelAnswered_ = nullptr;
    answered(std::nullopt);
  }
  QList<QPointer<QDialog>> dialogs;
  for (QDialog* dialog : findChildren<QDialog*>()) dialogs << dialog;
  for (const QPointer<QDialog>& dialog : dialogs) {
    if (dialog) dialog->reject();
    delete dialog.data();
  }
  channelDisplay_ = nullptr;
  runEvents_.reset();
  host_->post([this](Engine&) {
    runControl_.reset();
    breakpoints_.reset();
  });
  host_.reset();
}

void MainWindow::onRunSocket(std::function<void(const std::string&)> told) {
  runSocketTold_ = told;
  host_->post([this, told = std::move(told)](Engine&) { runControl_->onOpened(told); });
}

QGroupBox* MainWindow::buildUnitTile() {
  auto* tile = Named(new QGroupBox(tr("Unit under test")), "frUnit");
  auto* row = new QHBoxLayout(tile);
  auto* details = new QVBoxLayout;
  laUnitSerial_ = Named(new QLabel, "laUnitSerial");
  laUnitStage_ = Named(new QLabel, "laUnitStage");
  details->addWidget(laUnitSerial_);
  details->addWidget(laUnitStage_);
  row->addLayout(details, 1);
  laUnitState_ = Named(new QLabel, "laUnitState");
  QFont big = laUnitState_->font();
  big.setPointSize(big.pointSize() * 2);
  big.setBold(true);
  laUnitState_->setFont(big);
  laUnitState_->setAlignment(Qt::AlignCenter);
  laUnitState_->setMinimumWidth(140);
  laUnitState_->setAutoFillBackground(true);
  row->addWidget(laUnitState_);
  tile->hide();
  return tile;
}

void MainWindow::refreshUnit() {
  if (unitRefreshPending_) {
    unitRefreshAgain_ = true;
    return;
  }
  unitRefreshPending_ = true;
  QPointer<MainWindow> self(this);
  host_->post([self, unitsAtPrepare = unitsAtPrepare_](Engine& engine) {
    const TestDatabase& db = engine.testDatabase();
    UnitState unit;
    unit.open = db.uutOpen();
    unit.finished = !unit.open && db.uutsFinished() > *unitsAtPrepare;
    unit.passed = db.uut().passed;
    unit.serial = db.uut().serialNumber;
    std::vector<int16_t> steps;
    for (const StageCheck& row : db.definition().stageChecks)
      if (std::find(steps.begin(), steps.end(), row.step) == steps.end()) steps.push_back(row.step);
    std::sort(steps.begin(), steps.end());
    unit.stages = static_cast<int>(steps.size());
    const auto at = std::find(steps.begin(), steps.end(), db.currentStep());
    unit.stage = at == steps.end() ? 0 : static_cast<int>(at - steps.begin()) + 1;
    QMetaObject::invokeMethod(
        qApp,
        [self, unit] {
          if (!self) return;
          self->unitRefreshPending_ = false;
          self->showUnit(unit);
          if (self->unitRefreshAgain_) {
            self->unitRefreshAgain_ = false;
            self->refreshUnit();
          }
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::showUnit(const UnitState& unit) {
  if (!unit.open && !unit.finished) {
    unitTile_->hide();
    return;
  }
  // The verdict of the unit before never stands beside the unit under test.
  if (unit.open) laVerdict_->hide();
  laUnitSerial_->setText(unit.serial.empty() ? tr("Serial number: (none)")
                                             : tr("Serial number: %1").arg(Text(unit.serial)));
  if (unit.open) {
    laUnitStage_->setText(unit.stage == 0 ? tr("Stage - of %1").arg(unit.stages)
                                          : tr("Stage %1 of %2").arg(unit.stage).arg(unit.stages));
  } else {
    laUnitStage_->setText(tr("All stages done"));
  }
  const QString state = unit.open ? tr("TESTING") : (unit.passed ? tr("PASS") : tr("FAIL"));
  laUnitState_->setText(state);
  QPalette palette = laUnitState_->palette();
  palette.setColor(QPalette::Window,
                   unit.open ? QColor(255, 240, 160) : (unit.passed ? kPassColour : kFailColour));
  laUnitState_->setPalette(palette);
  unitTile_->show();
}

void MainWindow::showHold() {
  const QString text = Text(linesView_->view().holdText());
  laHold_->setText(text);
  laHold_->setVisible(!text.isEmpty());
}

void MainWindow::showRunEnd() {
  laRunEnd_->setText(Text(panel_.endText()));
  QPalette palette = laRunEnd_->palette();
  palette.setColor(QPalette::WindowText, panel_.endedInError() ? Qt::darkRed : Qt::black);
  laRunEnd_->setPalette(palette);
}

bool MainWindow::ownWindow(const QWidget* widget) const {
  for (const QWidget* w = widget; w != nullptr; w = w->parentWidget()) {
    if (w == this) return true;
    for (const QPointer<QWidget>& window : ownWindows_)
      if (window == w) return true;
  }
  return false;
}

QList<QWidget*> MainWindow::ownWindows() const {
  QList<QWidget*> windows;
  for (const QPointer<QWidget>& window : ownWindows_)
    if (window) windows << window.data();
  return windows;
}

void MainWindow::pressStop() {
  if (station_ != nullptr) station_->stopAll();
  host_->engine().stop();
  withdrawCommandDialogs();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event) {
  // Dialogs of the program, modal or not, keep the Stop key: Stop is never
  // out of reach behind a window.
  if (event->type() == QEvent::KeyPress || event->type() == QEvent::ShortcutOverride) {
    const auto* key = static_cast<QKeyEvent*>(event);
    if (key->key() == kStopKey && (key->modifiers() & ~Qt::KeypadModifier) == Qt::NoModifier &&
        watched->isWidgetType() && ownWindow(static_cast<QWidget*>(watched))) {
      if (event->type() == QEvent::ShortcutOverride) {
        event->accept();
        return true;
      }
      if (!key->isAutoRepeat() && (pbStop_->isEnabled() || station_ != nullptr)) pressStop();
      return true;
    }
  }
  return QMainWindow::eventFilter(watched, event);
}

void MainWindow::buildControls() {
  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  layout->addLayout(buildStatusRow());
  buildLineDisplays(layout);
  layout->addLayout(buildRunButtons());

  sDataFileSpec_ = Named(new QLineEdit, "sDataFileSpec");
  sDataFileSpec_->setReadOnly(true);
  layout->addWidget(sDataFileSpec_);

  unitTile_ = buildUnitTile();
  layout->addWidget(unitTile_);

  tabs_ = Named(new QTabWidget, "tabs");
  buildOperatorPanel();
  sequencePage_ = buildSequencePage();
  tabs_->addTab(sequencePage_, tr("Sequence"));

  linesView_ = new SequenceLinesView([this](std::function<void(Engine&, Breakpoints&)> task) {
    host_->post([this, task = std::move(task)](Engine& engine) { task(engine, *breakpoints_); });
  });
  linesView_->onHoldChanged([this] { showHold(); });
  tabs_->addTab(linesView_, tr("Lines"));

  auto* manual = Named(new QGroupBox(tr("Manual control")), "frManual");
  auto* manualLayout = new QVBoxLayout(manual);
  manualLayout->addWidget(new ManualControl(tasks(), manual));
  manualLayout->addStretch();
  tabs_->addTab(manual, tr("Manual"));
  // A question waiting is shown above the tabs, whichever tab is in front.
  layout->addWidget(frOKcancel_);
  layout->addWidget(tabs_, 1);
  // The one-sequence view, or an open station's tiles.
  pages_ = Named(new QStackedWidget, "stPages");
  pages_->addWidget(central);
  setCentralWidget(pages_);

  connectButtons();
}

QHBoxLayout* MainWindow::buildStatusRow() {
  auto* statusRow = new QHBoxLayout;
  sRunStatus_ = Named(new QLabel(tr("Ready")), "sRunStatus");
  sRunStatus_->setFrameShape(QFrame::Panel);
  sRunStatus_->setFrameShadow(QFrame::Sunken);
  sRunStatus_->setMinimumWidth(90);
  statusRow->addWidget(sRunStatus_);
  laRunEnd_ = Named(new QLabel, "laRunEnd");
  statusRow->addWidget(laRunEnd_);
  laHold_ = Named(new QLabel, "laHold");
  laHold_->hide();
  statusRow->addWidget(laHold_);
  statusRow->addWidget(new QLabel(tr("Timeout (secs)")));
  sTimeout_ = Named(new QLabel(QStringLiteral("0")), "sTimeout");
  sTimeout_->setFrameShape(QFrame::Panel);
  sTimeout_->setFrameShadow(QFrame::Sunken);
  sTimeout_->setMinimumWidth(60);
  statusRow->addWidget(sTimeout_);
  statusRow->addStretch();
  laVerdict_ = Named(new QLabel, "laVerdict");
  laVerdict_->setFrameShape(QFrame::Panel);
  laVerdict_->setFrameShadow(QFrame::Sunken);
  laVerdict_->setAutoFillBackground(true);
  laVerdict_->hide();
  statusRow->addWidget(laVerdict_);
  return statusRow;
}

void MainWindow::buildLineDisplays(QVBoxLayout* layout) {
  sCurrentCommand_ = Named(new QLineEdit, "sCurrentCommand");
  sCurrentCommand_->setReadOnly(true);
  layout->addWidget(sCurrentCommand_);
  pbWait_ = Named(new QProgressBar, "pbWait");
  pbWait_->setRange(0, 1000);
  pbWait_->hide();
  layout->addWidget(pbWait_);
  laWaitReading_ = Named(new QLabel, "laWaitReading");
  laWaitReading_->hide();
  layout->addWidget(laWaitReading_);
  waitReadings_.setInterval(1000);
  connect(&waitReadings_, &QTimer::timeout, this, &MainWindow::readWaitChannel);
}

QHBoxLayout* MainWindow::buildRunButtons() {
  auto* buttons = new QHBoxLayout;
  pbRun_ = Named(new QPushButton(tr("Run")), "pbRun");
  pbStop_ =
      Named(new QPushButton(
                tr("Stop (%1)").arg(QKeySequence(kStopKey).toString(QKeySequence::NativeText))),
            "pbStop");
  pbStop_->setToolTip(tr("Stops the run; a line held in single step is not run"));
  pbStep_ = Named(new QPushButton(tr("Step")), "pbStep");
  pbSkip_ = Named(new QPushButton(tr("Skip")), "pbSkip");
  pbSkip_->setToolTip(tr("Releases the hold: the held line still runs"));
  cbSingleStep_ = Named(new QCheckBox(tr("Single Step")), "cbSingleStep");
  for (QWidget* w : {static_cast<QWidget*>(pbRun_), static_cast<QWidget*>(pbStop_),
                     static_cast<QWidget*>(pbStep_), static_cast<QWidget*>(pbSkip_),
                     static_cast<QWidget*>(cbSingleStep_)}) {
    w->setEnabled(false);
    buttons->addWidget(w);
  }
  return buttons;
}

void MainWindow::buildOperatorPanel() {
  frOKcancel_ = Named(new QGroupBox(tr("Operator Message")), "frOKcancel");
  auto* panel = new QVBoxLayout(frOKcancel_);
  laAlertType_ = Named(new QLabel(tr("Alert!")), "laAlertType");
  laMessage_ = Named(new QLabel, "laMessage");
  laMessage_->setWordWrap(true);
  panel->addWidget(laAlertType_);
  panel->addWidget(laMessage_);
  auto* panelButtons = new QHBoxLayout;
  pbOKcancelOK_ = Named(new QPushButton(tr("OK")), "pbOKcancelOK");
  pbOKcancelCancel_ = Named(new QPushButton(tr("Cancel")), "pbOKcancelCancel");
  pbShutdown_ = Named(new QPushButton(tr("Shutdown")), "pbShutdown");
  // Enter answers with the focused button, as Space does.
  for (QPushButton* b : {pbOKcancelOK_, pbOKcancelCancel_, pbShutdown_}) b->setAutoDefault(true);
  panelButtons->addWidget(pbOKcancelOK_);
  panelButtons->addWidget(pbOKcancelCancel_);
  panelButtons->addWidget(pbShutdown_);
  panel->addLayout(panelButtons);
  frOKcancel_->setAutoFillBackground(true);
  frOKcancel_->setFocusPolicy(Qt::StrongFocus);
  restorePanel();
  frOKcancel_->hide();
}

QWidget* MainWindow::buildSequencePage() {
  auto* page = new QWidget;
  auto* pageLayout = new QVBoxLayout(page);
  ebHelp_ = Named(new QTextEdit, "ebHelp");
  ebHelp_->setReadOnly(true);
  pageLayout->addWidget(ebHelp_, 2);

  auto* lists = new QHBoxLayout;
  lbAlarmLabels_ = Named(new QListWidget, "lbAlarmLabels");
  lbAlarmCommands_ = Named(new QListWidget, "lbAlarmCommands");
  lbDDElabels_ = Named(new QListWidget, "lbDDElabels");
  lbDDEcommands_ = Named(new QListWidget, "lbDDEcommands");
  const std::pair<QListWidget*, QString> headed[] = {{lbAlarmLabels_, tr("Alarms")},
                                                     {lbAlarmCommands_, tr("Alarm commands")},
                                                     {lbDDElabels_, tr("DDE items")},
                                                     {lbDDEcommands_, tr("DDE commands")}};
  for (const auto& [list, heading] : headed) {
    auto* column = new QVBoxLayout;
    auto* label = new QLabel(heading);
    label->setBuddy(list);
    list->setMinimumHeight(48);
    column->addWidget(label);
    column->addWidget(list, 1);
    lists->addLayout(column);
  }
  pageLayout->addLayout(lists, 1);
  return page;
}

void MainWindow::connectButtons() {
  connect(pbRun_, &QPushButton::clicked, this, [this] { host_->engine().start(); });
  connect(pbStop_, &QPushButton::clicked, this, &MainWindow::pressStop);
  connect(pbStep_, &QPushButton::clicked, this, [this] {
    enlargeForRun();
    host_->engine().step();
  });
  connect(pbSkip_, &QPushButton::clicked, this, [this] { host_->engine().skip(); });
  connect(cbSingleStep_, &QCheckBox::toggled, this, [this](bool ticked) {
    if (suppressSingleStep_) return;
    if (panel_.tickSingleStep(ticked)) host_->engine().startStepping();
  });
  connect(pbOKcancelOK_, &QPushButton::clicked, this, [this] { answerPanel(0); });
  connect(pbOKcancelCancel_, &QPushButton::clicked, this, [this] { answerPanel(1); });
  connect(pbShutdown_, &QPushButton::clicked, this, [this] { answerPanel(2); });
}

EngineTasks MainWindow::tasks() {
  return [this](std::function<void(Engine&)> task) { host_->post(std::move(task)); };
}

void MainWindow::buildMenus() {
  mbFile_ = menuBar()->addMenu(tr("&File"));
  mbFile_->setObjectName("mbFile");
  QAction* open = mbFile_->addAction(tr("&Open Sequence..."));
  open->setObjectName("mbOpenSequence");
  connect(open, &QAction::triggered, this, &MainWindow::chooseSequenceFile);
  QAction* openStation = mbFile_->addAction(tr("Open S&tation..."));
  openStation->setObjectName("mbOpenStation");
  connect(openStation, &QAction::triggered, this, &MainWindow::chooseStationFile);
  closeStationAction_ = mbFile_->addAction(tr("&Close Station"));
  closeStationAction_->setObjectName("mbCloseStation");
  closeStationAction_->setEnabled(false);
  connect(closeStationAction_, &QAction::triggered, this, &MainWindow::closeStation);
  QAction* setup = mbFile_->addAction(tr("Select &Setup File..."));
  setup->setObjectName("mbSelectSetup");
  connect(setup, &QAction::triggered, this, &MainWindow::selectSetupFile);
  QAction* decrypt = mbFile_->addAction(tr("&Decrypt File..."));
  decrypt->setObjectName("mbFileDecrypt");
  connect(decrypt, &QAction::triggered, this, &MainWindow::openDecryptWindow);
  lockedWhileRunning_ = {open, openStation, setup, decrypt};
  mbFile_->addSeparator();
  QAction* exit = mbFile_->addAction(tr("E&xit"));
  exit->setObjectName("mbExit");
  connect(exit, &QAction::triggered, this, &QWidget::close);

  // Open while a sequence runs, so apart from the File menu.
  QMenu* view = menuBar()->addMenu(tr("&View"));
  view->setObjectName("mbView");
  QAction* report = view->addAction(tr("&Report"));
  report->setObjectName("mbReport");
  connect(report, &QAction::triggered, this, &MainWindow::openReportWindow);
#ifdef TAVRIX_HAVE_CHARTS
  QAction* chart = view->addAction(tr("&Chart"));
  chart->setObjectName("mbChart");
  connect(chart, &QAction::triggered, this, &MainWindow::openChartWindow);
#endif
  QAction* plant = view->addAction(tr("&Plant View in Browser"));
  plant->setObjectName("mbPlantView");
  connect(plant, &QAction::triggered, this, &MainWindow::openPlantView);

  QMenu* help = menuBar()->addMenu(tr("&Help"));
  help->setObjectName("mbHelp");
  QAction* about = help->addAction(tr("&About"));
  about->setObjectName("mbAbout");
  connect(about, &QAction::triggered, this, &MainWindow::openAboutBox);
}

void MainWindow::chooseSequenceFile() {
  QPointer<MainWindow> self(this);
  host_->post([self](Engine& engine) {
    // A new file never replaces the one a run holds.
    if (engine.sequencer().flags().running) return;
    QMetaObject::invokeMethod(
        qApp,
        [self] {
          if (!self) return;
          const SequenceFileDialog sequences;
          FileChoice choice;
          choice.title = sequences.title;
          choice.defaultExtension = sequences.defaultExtension;
          choice.fileName = sequences.fileName;
          choice.filter = sequences.filter;
          self->openFileDialog(choice, [self](const QString& chosen) {
            if (!self || chosen.isEmpty()) return;
            self->host_->engine().post([path = Std(chosen)](Engine& e) {
              std::string error;
              if (!e.sequencer().flags().running && !e.sequencer().prepareFile(path, &error))
                e.sequencer().showMessage(error);
            });
          });
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::openDecryptWindow() {
  auto* dialog = new DecryptDialog(machine_.files, this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->show();
}

void MainWindow::openPlantView() {
  // tavrix-cli beside the window, else on the PATH.
  QString program =
      QStandardPaths::findExecutable("tavrix-cli", {QCoreApplication::applicationDirPath()});
  if (program.isEmpty()) program = QStandardPaths::findExecutable("tavrix-cli");
  if (program.isEmpty()) {
    QMessageBox::warning(this, tr("Plant View"),
                         tr("tavrix-cli is neither beside this program nor on the PATH."));
    return;
  }
  std::string error;
  const std::string url = plantView_.start(program.toLocal8Bit().toStdString(),
                                           PlantViewLauncher::ServeArguments(plantStore_), &error);
  if (url.empty()) {
    QMessageBox::warning(this, tr("Plant View"), QString::fromStdString(error));
    return;
  }
  QDesktopServices::openUrl(QUrl(QString::fromStdString(url)));
}

void MainWindow::openChartWindow() {
#ifdef TAVRIX_HAVE_CHARTS
  if (chart_ == nullptr) {
    chart_ = new ChartWindow(tasks(), nullptr);
    ownWindows_ << chart_;
  }
  chart_->show();
  chart_->raise();
#endif
}

void MainWindow::openReportWindow() {
  QPointer<MainWindow> self(this);
  host_->post([self, unitsAtPrepare = unitsAtPrepare_](Engine& engine) {
    TestDatabase& db = engine.testDatabase();
    ReportContents contents{
        BuildReportView(db.definition().details, db.uut(), engine.clock().now()), db.uut().checks,
        db.uutOpen()};
    // Until the file prepared last has a unit of its own, nothing is shown:
    // never the unit of a file before it.
    if (!db.uutOpen() && db.uutsFinished() == *unitsAtPrepare) contents = {};
    QMetaObject::invokeMethod(
        qApp,
        [self, contents] {
          if (!self) return;
          auto* dialog = new ReportDialog(contents, nullptr);
          dialog->setAttribute(Qt::WA_DeleteOnClose);
          self->ownWindows_.removeIf([](const QPointer<QWidget>& w) { return w.isNull(); });
          self->ownWindows_ << dialog;
          dialog->show();
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::openAboutBox() {
  auto* dialog = new AboutDialog(this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->show();
}

void MainWindow::selectSetupFile() {
  auto* dialog = new QFileDialog(this, Text(kTextSelectImsTitle), QDir::currentPath(),
                                 NameFilter(kTextImsFilter));
  dialog->setObjectName("setupFileDialog");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setFileMode(QFileDialog::ExistingFile);
  dialog->setDefaultSuffix("ims");
  connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& file) {
    const std::string path = Std(file);
    QPointer<MainWindow> self(this);
    host_->post([self, path](Engine& engine) {
      if (engine.sequencer().flags().running) return;
      Instrument* instrument = engine.instrument();
      if (instrument != nullptr && instrument->selectSetupFile(path)) return;
      const std::string why =
          instrument == nullptr ? "No instrument is attached" : instrument->link().lastErrorText();
      QMetaObject::invokeMethod(
          qApp,
          [self, why] {
            if (self) self->message(self->windowTitle(), Text(why));
          },
          Qt::QueuedConnection);
    });
  });
  dialog->open();
}

void MainWindow::message(const QString& title, const QString& text) {
  auto* box = new QMessageBox(QMessageBox::Critical, title, text, QMessageBox::Ok, this);
  box->setObjectName("messageBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->open();
}

// --- The operator message panel and question boxes --------------------------------

void MainWindow::openQuestion(const Question& question, std::function<void(Answer)> answered) {
  const std::string& kind = question.kind;
  if (kind == "CONTINUEOK" || kind == "ENTEROKCANCEL" || kind == "UUTCHECK" || kind == "ALERT") {
    openPanel(question, std::move(answered));
    // A verdict question takes the keyboard on the panel, not on a button.
    bringIntoView(kind == "UUTCHECK" ? static_cast<QWidget*>(frOKcancel_) : pbOKcancelOK_);
    return;
  }
  QDialog* dialog = nullptr;
  if (kind == "DATAENTRY") {
    // Which fields are required is asked of the engine first.
    QPointer<MainWindow> self(this);
    host_->post([self, question, answered = std::move(answered),
                 line = Std(sCurrentCommand_->text())](Engine& engine) mutable {
      std::vector<bool> required = RequiredEntryFields(engine, line);
      QMetaObject::invokeMethod(
          qApp,
          [self, question, answered = std::move(answered), required]() mutable {
            if (!self) {
              answered(std::nullopt);
              return;
            }
            auto* entry = new DataEntryDialog(question, QDate::currentDate(), std::move(answered),
                                              self, required);
            entry->setAttribute(Qt::WA_DeleteOnClose);
            entry->show();
            self->bringIntoView(entry);
          },
          Qt::QueuedConnection);
    });
    return;
  } else if (kind == "CHECKFAILURE") {
    dialog = new CheckFailureDialog(question, std::move(answered), this);
  } else if (kind == "SELECTMENU") {
    dialog = new SelectMenuDialog(question, std::move(answered), this);
  } else if (kind == "ENTERSEND") {
    dialog = new EnterSendDialog(question, std::move(answered), this);
  } else if (kind == "DOWITHSHOW" || kind == "MANUALADJUST") {
    if (channelDisplay_ == nullptr) channelDisplay_ = new ChannelDisplayDialog(this);
    channelDisplay_->ask(question, std::move(answered));
    bringIntoView(channelDisplay_);
    return;
  } else {
    answerQuestionBox(question, std::move(answered));
    return;
  }
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  // Never modal: Stop must stay within reach while a question waits.
  dialog->show();
  bringIntoView(dialog);
}

void MainWindow::bringIntoView(QWidget* focus) {
  if (isMinimized()) showNormal();
  QWidget* top = focus->window();
  raise();
  activateWindow();
  if (top != this) {
    top->raise();
    top->activateWindow();
  }
  // A window gives the keyboard to the field it chose (the first entry, the
  // list), not to itself.
  QWidget* target = focus->isWindow() && focus->focusWidget() ? focus->focusWidget() : focus;
  target->setFocus(Qt::OtherFocusReason);
  QApplication::alert(this);
}

void MainWindow::withdrawCommandDialogs() {
  // The dialogs carry no meta-object of their own: told apart by their type.
  for (QDialog* dialog : findChildren<QDialog*>()) {
    if (auto* menu = dynamic_cast<SelectMenuDialog*>(dialog)) menu->withdraw();
    if (auto* entry = dynamic_cast<EnterSendDialog*>(dialog)) entry->withdraw();
  }
  if (channelDisplay_ != nullptr) channelDisplay_->withdraw();
}

// The panel in its re-labelled forms: the caption is the question's title
// ("UUT Check", "Alert Message"), and up to three buttons carry the
// question's captions.
void MainWindow::openPanel(const Question& question, std::function<void(Answer)> answered) {
  panelQuestion_ = question;
  panelAnswered_ = std::move(answered);
  laMessage_->setText(Text(question.text));
  const bool relabelled = question.kind == "UUTCHECK" || question.kind == "ALERT";
  if (relabelled && !question.title.empty()) frOKcancel_->setTitle(Text(question.title));
  if (question.kind == "ALERT") {
    QPalette palette = frOKcancel_->palette();
    palette.setColor(QPalette::Window, kWarningColour);
    frOKcancel_->setPalette(palette);
  }
  const auto& captions = question.choices;
  pbOKcancelOK_->setText(captions.empty() ? tr("OK") : Text(captions[0]));
  pbOKcancelCancel_->setVisible(captions.size() != 1);
  if (captions.size() > 1) pbOKcancelCancel_->setText(Text(captions[1]));
  pbShutdown_->setVisible(captions.size() > 2);
  if (captions.size() > 2) pbShutdown_->setText(Text(captions[2]));
  frOKcancel_->show();
  // A verdict (UUT Check) is never given by Enter: its buttons are pressed
  // by a click or Space once chosen.
  const bool verdict = question.kind == "UUTCHECK";
  for (QPushButton* b : {pbOKcancelOK_, pbOKcancelCancel_, pbShutdown_})
    b->setAutoDefault(!verdict);
  pbOKcancelOK_->setDefault(!verdict);
}

void MainWindow::restorePanel() {
  frOKcancel_->setTitle(Text(kPanelCaption));
  QPalette palette = frOKcancel_->palette();
  palette.setColor(QPalette::Window, kPanelColour);
  frOKcancel_->setPalette(palette);
  pbOKcancelOK_->setText(tr("OK"));
  pbOKcancelCancel_->setText(tr("Cancel"));
  pbOKcancelCancel_->show();
  pbShutdown_->setText(tr("Shutdown"));
  pbShutdown_->hide();
  for (QPushButton* b : {pbOKcancelOK_, pbOKcancelCancel_, pbShutdown_}) b->setAutoDefault(true);
}

void MainWindow::answerPanel(int button) {
  if (!panelAnswered_) return;
  frOKcancel_->hide();
  // The panel goes back to its design captions for the next question.
  restorePanel();
  auto answered = std::move(panelAnswered_);
  panelAnswered_ = nullptr;
  const auto& buttons = panelQuestion_.choices;
  static const char* const kDesign[] = {"OK", "Cancel", "Shutdown"};
  answered(static_cast<size_t>(button) < buttons.size() ? buttons[static_cast<size_t>(button)]
                                                        : std::string(kDesign[button]));
}

void MainWindow::answerQuestionBox(const Question& question, std::function<void(Answer)> answered) {
  auto* box = new QMessageBox(QMessageBox::Question, Text(question.title), Text(question.text),
                              QMessageBox::NoButton, this);
  box->setObjectName("questionBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  auto pressed = std::make_shared<std::vector<std::pair<QAbstractButton*, std::string>>>();
  for (size_t i = 0; i < question.choices.size(); ++i) {
    QPushButton* b = box->addButton(Text(question.choices[i]), QMessageBox::ActionRole);
    b->setObjectName(QString::fromStdString("answer_" + question.choices[i]));
    pressed->emplace_back(b, question.choices[i]);
    // A question's second button is its default, as in the close question.
    if (i == 1) box->setDefaultButton(b);
  }
  auto once = std::make_shared<std::function<void(Answer)>>(std::move(answered));
  connect(box, &QMessageBox::buttonClicked, box, [pressed, once](QAbstractButton* clicked) {
    for (const auto& [button, caption] : *pressed) {
      if (button == clicked && *once) {
        (*once)(caption);
        *once = nullptr;
      }
    }
  });
  // Closed without a button (Escape, the window's close box): no answer.
  connect(box, &QMessageBox::finished, box, [once] {
    if (*once) (*once)(std::nullopt);
    *once = nullptr;
  });
  box->open();
}

// --- Displays -------------------------------------------------------------------

void MainWindow::setRunStatus(const QString& status) {
  if (status == Text(kStatusReady)) clearRunDisplays();
  if (status == Text(kStatusRunning) && sRunStatus_->text() != status) setTimeout(0);
  sRunStatus_->setText(status);
}

void MainWindow::clearRunDisplays() {
  sCurrentCommand_->clear();
  pbWait_->hide();
  ebHelp_->clear();
  setTimeout(0);
  laVerdict_->clear();
  laVerdict_->hide();
}

void MainWindow::showVerdict(const QString& serialNumber, bool passed) {
  const QString verdict = passed ? tr("Pass") : tr("Fail");
  laVerdict_->setText(serialNumber.isEmpty() ? tr("UUT: %1").arg(verdict)
                                             : tr("UUT %1: %2").arg(serialNumber, verdict));
  QPalette palette = laVerdict_->palette();
  palette.setColor(QPalette::Window, passed ? kPassColour : kFailColour);
  laVerdict_->setPalette(palette);
  laVerdict_->show();
}

// The report shows a unit only once the file prepared last has one of its own.
void MainWindow::watchVerdicts() {
  host_->post([unitsAtPrepare = unitsAtPrepare_](Engine& engine) {
    engine.sequencer().addPrepareHook(
        [unitsAtPrepare, &engine] { *unitsAtPrepare = engine.testDatabase().uutsFinished(); });
  });
}

void MainWindow::openMessageBox(const QString& title, const QString& text,
                                std::function<void()> closed) {
  // The engine's error messages carry its error title: the error icon.
  const QMessageBox::Icon icon =
      title == Text(kErrorTitle) ? QMessageBox::Critical : QMessageBox::Information;
  auto* box = new QMessageBox(icon, title, text, QMessageBox::Ok, this);
  box->setObjectName("engineMessageBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  connect(box, &QMessageBox::finished, box, [closed] { closed(); });
  box->show();
}

void MainWindow::openFileDialog(const FileChoice& request,
                                std::function<void(const QString&)> chosen) {
  auto* dialog = new QFileDialog(this, Text(request.title), Text(request.initialDirectory),
                                 NameFilter(request.filter));
  dialog->setObjectName("engineFileDialog");
  dialog->setOption(QFileDialog::DontUseNativeDialog);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setFileMode(QFileDialog::ExistingFile);
  if (!request.defaultExtension.empty()) dialog->setDefaultSuffix(Text(request.defaultExtension));
  // Not modal: Stop stays within reach while the engine waits for a file.
  dialog->setWindowModality(Qt::NonModal);
  auto once = std::make_shared<std::function<void(const QString&)>>(std::move(chosen));
  connect(dialog, &QFileDialog::fileSelected, dialog, [once](const QString& file) {
    if (*once) (*once)(file);
    *once = nullptr;
  });
  connect(dialog, &QFileDialog::finished, dialog, [once] {
    if (*once) (*once)(QString());
    *once = nullptr;
  });
  dialog->show();
}

void MainWindow::setStatusLabel(const QString& text, const QColor& colour) {
  sRunStatus_->setText(text);
  sRunStatus_->setAutoFillBackground(true);
  QPalette palette = sRunStatus_->palette();
  palette.setColor(QPalette::Window, colour);
  sRunStatus_->setPalette(palette);
}

void MainWindow::setAlarmDefinitions(const QStringList& labels, const QStringList& commands) {
  lbAlarmLabels_->clear();
  lbAlarmLabels_->addItems(labels);
  lbAlarmCommands_->clear();
  lbAlarmCommands_->addItems(commands);
}
void MainWindow::setCurrentCommand(const QString& line) {
  pbWait_->hide();
  sCurrentCommand_->setText(line);
}

void MainWindow::watchWaitCondition(const std::string& line) {
  std::string text = line;
  const CommandLine command = SplitCommandLine(text);
  const auto condition =
      command.word == "WAIT" ? ParseChannelCondition(command.arg1) : std::nullopt;
  if (!condition) {
    waitReadings_.stop();
    waitChannel_.clear();
    laWaitReading_->hide();
    return;
  }
  waitChannel_ = condition->channel;
  waitCondition_ = Text(std::string(trim(command.arg1)));
  laWaitReading_->setText(tr("Waiting for %1").arg(waitCondition_));
  laWaitReading_->show();
  readWaitChannel();
  waitReadings_.start();
}

void MainWindow::readWaitChannel() {
  if (waitChannel_.empty()) return;
  QPointer<MainWindow> self(this);
  host_->post([self, channel = waitChannel_](Engine& engine) {
    std::string value;
    Instrument* instrument = engine.instrument();
    const bool read = instrument != nullptr && instrument->channels().ReadChannel(channel, value);
    QMetaObject::invokeMethod(
        qApp,
        [self, channel, read, value] {
          if (!self || self->waitChannel_ != channel) return;
          self->laWaitReading_->setText(
              read ? tr("Waiting for %1: %2 reads %3")
                         .arg(self->waitCondition_, Text(channel), Text(std::string(trim(value))))
                   : tr("Waiting for %1: %2 cannot be read")
                         .arg(self->waitCondition_, Text(channel)));
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::showWait(const WaitProgress& wait) {
  sCurrentCommand_->setText(Text(wait.display()));
  const double done = wait.length > 0 ? (wait.length - wait.left) / wait.length : 1.0;
  pbWait_->setValue(static_cast<int>(std::clamp(done, 0.0, 1.0) * 1000));
  pbWait_->setFormat(
      tr("%1 left of %2")
          .arg(Text(FormatCountDown(wait.left)), Text(FormatCountDown(wait.length))));
  pbWait_->show();
}
void MainWindow::setTimeout(int seconds) { sTimeout_->setText(QString::number(seconds)); }
void MainWindow::setHelpText(const QString& text) { ebHelp_->setPlainText(text); }
void MainWindow::setDataFileSpec(const QString& path) { sDataFileSpec_->setText(path); }

void MainWindow::setControls(const RunControls& c) {
  pbRun_->setEnabled(c.runEnabled);
  pbStop_->setEnabled(c.stopEnabled);
  pbStep_->setEnabled(c.stepEnabled);
  pbSkip_->setEnabled(c.skipEnabled);
  cbSingleStep_->setEnabled(c.singleStepEnabled);
  if (cbSingleStep_->isChecked() != c.singleStepTicked) {
    suppressSingleStep_ = true;
    cbSingleStep_->setChecked(c.singleStepTicked);
    suppressSingleStep_ = false;
  }
  // A run, free or stepped, locks the file items; the engine also refuses a
  // new file while it runs.
  for (QAction* action : lockedWhileRunning_) action->setEnabled(c.fileMenuEnabled);
  // A run has ended: after ENDTAVRIX the program closes.
  const bool running = c.stopEnabled || !c.runEnabled;
  if (wasRunning_ && !running) closeIfQuitRequested();
  wasRunning_ = running;
}

void MainWindow::closeIfQuitRequested() {
  QPointer<MainWindow> self(this);
  host_->post([self](Engine& engine) {
    if (!engine.sequencer().flags().quitRequested) return;
    QMetaObject::invokeMethod(
        qApp,
        [self] {
          if (!self) return;
          self->closeAllowed_ = true;
          self->close();
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::closeChannelDisplay() {
  if (channelDisplay_ != nullptr) channelDisplay_->hide();
}

void MainWindow::showChannelValue(const QString& channel, const QString& value) {
  if (channelDisplay_ == nullptr) channelDisplay_ = new ChannelDisplayDialog(this);
  channelDisplay_->showValue(channel, value);
}

void MainWindow::enlargeForRun() {
  // A maximised or larger window keeps its size: Run only ever enlarges.
  if (isMaximized() || isFullScreen()) return;
  const QRect screen = this->screen() ? this->screen()->availableGeometry() : QRect();
  move(screen.topLeft());
  resize(std::max(width(), TwipsToPixels(kRunWidthTwips)),
         std::max(height(), TwipsToPixels(kRunHeightTwips)));
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (closeAllowed_) {
    event->accept();
    return;
  }
  event->ignore();
  if (panel_.running() || stationRunning()) {
    askBeforeClosing();
    return;
  }
  host_->engine().close([this](bool closed) {
    if (!closed) return;
    QMetaObject::invokeMethod(
        this,
        [this] {
          closeAllowed_ = true;
          close();
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::askBeforeClosing() {
  if (closeQuestion_) {
    closeQuestion_->raise();
    closeQuestion_->activateWindow();
    return;
  }
  // A run that must not be stopped asks its own question; any other asks
  // whether to stop it. Neither holds the run, and Stop stays in reach.
  // (A station's sockets are asked about together.)
  const bool nonStop = !stationRunning() && !panel_.controls().stopEnabled;
  auto* box = new QMessageBox(this);
  box->setWindowModality(Qt::NonModal);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setIcon(QMessageBox::Question);
  box->setObjectName(nonStop ? "questionBox" : "exitQuestion");
  box->setWindowTitle(nonStop ? Text(kNonStopTitle) : windowTitle());
  box->setText(Text(nonStop ? kNonStopText : kExitQuestion));
  QPushButton* yes = box->addButton(tr("Yes"), QMessageBox::YesRole);
  QPushButton* no = box->addButton(tr("No"), QMessageBox::NoRole);
  yes->setObjectName("answer_Yes");
  no->setObjectName("answer_No");
  if (nonStop)
    box->addButton(tr("Cancel"), QMessageBox::RejectRole)->setObjectName("answer_Cancel");
  // Enter keeps the test going: only an explicit Yes ends it.
  box->setDefaultButton(no);
  box->setEscapeButton(no);
  connect(box, &QMessageBox::buttonClicked, this, [this, yes](QAbstractButton* clicked) {
    if (clicked == yes) closeForGood();
  });
  closeQuestion_ = box;
  box->show();
  box->raise();
  box->activateWindow();
}

void MainWindow::closeForGood() {
  QPointer<MainWindow> self(this);
  host_->post([self](Engine& engine) {
    if (engine.sequencer().flags().running) engine.sequencer().requestAbort();
    QMetaObject::invokeMethod(
        qApp,
        [self] {
          if (!self) return;
          self->closeAllowed_ = true;
          self->close();
        },
        Qt::QueuedConnection);
  });
}

// --- Test sockets ---------------------------------------------------------------

bool MainWindow::stationRunning() const { return station_ != nullptr && station_->anyRunning(); }

void MainWindow::chooseStationFile() {
  auto* dialog =
      new QFileDialog(this, tr("Open Station"), QDir::currentPath(), tr("Station files (*.toml)"));
  dialog->setObjectName("stationFileDialog");
  dialog->setOption(QFileDialog::DontUseNativeDialog);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setFileMode(QFileDialog::ExistingFile);
  connect(dialog, &QFileDialog::fileSelected, this,
          [this](const QString& file) { openStation(Std(file)); });
  dialog->open();
}

bool MainWindow::openStation(const std::string& path) {
  if (stationRunning()) {
    message(windowTitle(), tr("A socket of the open station is running: stop it first."));
    return false;
  }
  auto* view = new StationView;
  auto questions = std::make_shared<SocketQuestions>();
  StationSockets::Options options = stationOptions_;
  // Each run of a socket listens on a control socket of its own, in its
  // record's folder, as the one-sequence runs do.
  options.companion = [told = runSocketTold_](Engine& engine, size_t,
                                              const std::string& name) -> std::shared_ptr<void> {
    auto control =
        std::make_shared<SocketRunControl>(engine, name, [name](const std::string& problem) {
          std::fprintf(stderr, "tavrix: %s: %s\n", name.c_str(), problem.c_str());
        });
    if (told) control->control().onOpened(told);
    return control;
  };
  std::string error;
  const bool opened = view->open(
      path, options,
      [this, questions](size_t socket, const std::string& name) -> std::unique_ptr<Operator> {
        return std::make_unique<SocketPersonOperator>(*this, questions, socket, name);
      },
      &error);
  if (!opened) {
    questions->close();
    delete view;
    message(windowTitle(), Text(error));
    return false;
  }
  endStation();
  station_ = view;
  socketQuestions_ = questions;
  pages_->addWidget(station_);
  pages_->setCurrentWidget(station_);
  closeStationAction_->setEnabled(true);
  enlargeForRun();
  return true;
}

void MainWindow::endStation() {
  if (socketQuestions_) socketQuestions_->close();
  for (QMessageBox* box : findChildren<QMessageBox*>("socketQuestion")) box->deleteLater();
  if (station_ != nullptr) {
    pages_->removeWidget(station_);
    delete station_;
    station_ = nullptr;
  }
  socketQuestions_.reset();
}

void MainWindow::closeStation() {
  if (station_ == nullptr) return;
  if (stationRunning()) {
    message(windowTitle(), tr("A socket of the open station is running: stop it first."));
    return;
  }
  endStation();
  pages_->setCurrentIndex(0);
  closeStationAction_->setEnabled(false);
}

void MainWindow::showSocketQuestion() {
  if (!socketQuestions_) return;
  const std::optional<SocketQuestions::Item> item = socketQuestions_->next();
  if (!item) return;
  Question shown = item->question;
  shown.text = item->socketName + ": " + shown.text;
  std::weak_ptr<SocketQuestions> questions = socketQuestions_;
  QPointer<MainWindow> self(this);
  auto answered = [self, questions, id = item->id](Answer answer) {
    if (auto q = questions.lock()) q->answer(id, std::move(answer));
    if (self)
      QMetaObject::invokeMethod(
          self,
          [self] {
            if (self) self->showSocketQuestion();
          },
          Qt::QueuedConnection);
  };
  const std::string& kind = shown.kind;
  // The dialogs of their own are the one-sequence window's; the questions
  // of its operator panel are asked in a box, the panel being out of view.
  if (kind == "DATAENTRY" || kind == "CHECKFAILURE" || kind == "SELECTMENU" ||
      kind == "ENTERSEND" || kind == "DOWITHSHOW" || kind == "MANUALADJUST") {
    openQuestion(shown, answered);
    return;
  }
  auto* box = new QMessageBox(QMessageBox::Question, Text(shown.title.empty() ? kind : shown.title),
                              Text(shown.text), QMessageBox::NoButton, this);
  box->setObjectName("socketQuestion");
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setWindowModality(Qt::NonModal);
  std::vector<std::string> choices = shown.choices;
  if (choices.empty()) choices = {"OK"};
  auto once = std::make_shared<std::function<void(Answer)>>(answered);
  auto buttons = std::make_shared<std::vector<std::pair<QAbstractButton*, std::string>>>();
  for (const std::string& choice : choices) {
    QPushButton* b = box->addButton(Text(choice), QMessageBox::ActionRole);
    b->setObjectName(QString::fromStdString("answer_" + choice));
    buttons->emplace_back(b, choice);
  }
  connect(box, &QMessageBox::buttonClicked, box, [once, buttons](QAbstractButton* clicked) {
    for (const auto& [button, choice] : *buttons) {
      if (button == clicked && *once) {
        (*once)(choice);
        *once = nullptr;
      }
    }
  });
  connect(box, &QMessageBox::finished, box, [once] {
    if (*once) (*once)(std::nullopt);
    *once = nullptr;
  });
  box->show();
  bringIntoView(box);
}

}  // namespace tavrix
