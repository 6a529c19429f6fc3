#include "main_window.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDir>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QTabWidget>
#include <QTextEdit>
#include <QVBoxLayout>

#include "about_dialog.h"
#ifdef TAVRIX_HAVE_CHARTS
#include "chart_window.h"
#endif
#include "check_failure_dialog.h"
#include "data_entry_dialog.h"
#include "decrypt_dialog.h"
#include "instrument/link/channel_commands.h"
#include "manual_control.h"
#include "qt_text.h"
#include "question_dialogs.h"
#include "report_dialog.h"

namespace tavrix {

namespace {

constexpr int kStartWidthTwips = 4440;
constexpr int kStartHeightTwips = 3870;
constexpr int kRunWidthTwips = 9015;
constexpr int kRunHeightTwips = 8865;

constexpr std::string_view kPanelCaption = "Operator Message";
// The panel's design colour, light green; a failure alert stands out in a
// warning colour.
const QColor kPanelColour(192, 255, 192);
const QColor kWarningColour(255, 176, 144);
const QColor kPassColour(192, 255, 192);
const QColor kFailColour(255, 128, 128);

template <typename T>
T* Named(T* widget, const char* name) {
  widget->setObjectName(name);
  return widget;
}

}  // namespace

void EnterSetupsFolder(Engine& engine) {
  Instrument* instrument = engine.instrument();
  if (instrument == nullptr) return;
  const std::string folder = engine.resolvePath(instrument->link().GetSetupsDirectory());
  if (engine.files().isFolder(folder)) changeCurrentFolder(folder);
}

MainWindow::MainWindow(EngineFactory factory, const std::string& commandLine) : operator_(*this) {
  setWindowTitle(QString::fromUtf8(kCaption.data(), static_cast<int>(kCaption.size())));
  buildControls();
  buildMenus();
  resize(TwipsToPixels(kStartWidthTwips), TwipsToPixels(kStartHeightTwips));
  host_ = std::make_unique<EngineHost>([this, factory] {
    auto engine = factory(operator_);
    operator_.attach(engine->events());
    return engine;
  });
  QPointer<MainWindow> self(this);
  runEvents_ = host_->engine().subscribe([self](const RunEvent& event) {
    QMetaObject::invokeMethod(
        qApp,
        [self, event] {
          if (self) self->showRunEvent(event);
        },
        Qt::QueuedConnection);
  });
  watchVerdicts();
  const StartCommandLine start = ParseStartCommandLine(commandLine);
  host_->post([start](Engine& engine) {
    EnterSetupsFolder(engine);
    Sequencer& seq = engine.sequencer();
    std::string error;
    if (!start.file.empty() && !seq.prepareFile(start.file, &error)) seq.showMessage(error);
    if (start.autoStart) seq.startAtNextSecond();
  });
}

void MainWindow::showRunEvent(const RunEvent& event) {
  if (panel_.apply(event)) setControls(panel_.controls());
  switch (event.kind) {
    case RunEventKind::kStatus:
      setRunStatus(Text(event.text));
      break;
    case RunEventKind::kCommand:
      setCurrentCommand(Text(event.text));
      break;
    case RunEventKind::kTimeout:
      setTimeout(static_cast<int>(event.number));
      break;
    case RunEventKind::kFile:
      setDataFileSpec(Text(event.text));
      break;
    case RunEventKind::kStarted:
      // A free run moves the window to the top-left corner at its running size.
      if (!event.flag) enlargeForRun();
      break;
    case RunEventKind::kUut:
      showVerdict(Text(event.title), event.flag);
      break;
    default:
      break;
  }
}

MainWindow::~MainWindow() {
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
  host_.reset();
}

void MainWindow::buildControls() {
  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);

  auto* statusRow = new QHBoxLayout;
  sRunStatus_ = Named(new QLabel(tr("Ready")), "sRunStatus");
  sRunStatus_->setFrameShape(QFrame::Panel);
  sRunStatus_->setFrameShadow(QFrame::Sunken);
  sRunStatus_->setMinimumWidth(90);
  statusRow->addWidget(sRunStatus_);
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
  layout->addLayout(statusRow);

  sCurrentCommand_ = Named(new QLineEdit, "sCurrentCommand");
  sCurrentCommand_->setReadOnly(true);
  layout->addWidget(sCurrentCommand_);

  auto* buttons = new QHBoxLayout;
  pbRun_ = Named(new QPushButton(tr("Run")), "pbRun");
  pbStop_ = Named(new QPushButton(tr("Stop")), "pbStop");
  pbStep_ = Named(new QPushButton(tr("Step")), "pbStep");
  pbSkip_ = Named(new QPushButton(tr("Skip")), "pbSkip");
  cbSingleStep_ = Named(new QCheckBox(tr("Single Step")), "cbSingleStep");
  for (QWidget* w : {static_cast<QWidget*>(pbRun_), static_cast<QWidget*>(pbStop_),
                     static_cast<QWidget*>(pbStep_), static_cast<QWidget*>(pbSkip_),
                     static_cast<QWidget*>(cbSingleStep_)}) {
    w->setEnabled(false);
    buttons->addWidget(w);
  }
  layout->addLayout(buttons);

  sDataFileSpec_ = Named(new QLineEdit, "sDataFileSpec");
  sDataFileSpec_->setReadOnly(true);
  layout->addWidget(sDataFileSpec_);

  tabs_ = Named(new QTabWidget, "tabs");
  sequencePage_ = new QWidget;
  auto* pageLayout = new QVBoxLayout(sequencePage_);

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
  restorePanel();
  frOKcancel_->hide();
  pageLayout->addWidget(frOKcancel_);

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
  tabs_->addTab(sequencePage_, tr("Sequence"));

  auto* manual = Named(new QGroupBox(tr("Manual control")), "frManual");
  auto* manualLayout = new QVBoxLayout(manual);
  manualLayout->addWidget(new ManualControl(tasks(), manual));
  manualLayout->addStretch();
  tabs_->addTab(manual, tr("Manual"));
  layout->addWidget(tabs_, 1);
  setCentralWidget(central);

  connect(pbRun_, &QPushButton::clicked, this, [this] { host_->engine().start(); });
  connect(pbStop_, &QPushButton::clicked, this, [this] {
    host_->engine().stop();
    withdrawCommandDialogs();
  });
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
  QAction* setup = mbFile_->addAction(tr("Select &Setup File..."));
  setup->setObjectName("mbSelectSetup");
  connect(setup, &QAction::triggered, this, &MainWindow::selectSetupFile);
  QAction* decrypt = mbFile_->addAction(tr("&Decrypt File..."));
  decrypt->setObjectName("mbFileDecrypt");
  connect(decrypt, &QAction::triggered, this, &MainWindow::openDecryptWindow);
  lockedWhileRunning_ = {open, setup, decrypt};
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
  auto* dialog = new DecryptDialog(this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->show();
}

void MainWindow::openChartWindow() {
#ifdef TAVRIX_HAVE_CHARTS
  if (chart_ == nullptr) chart_ = new ChartWindow(tasks(), this);
  chart_->show();
  chart_->raise();
#endif
}

void MainWindow::openReportWindow() {
  QPointer<MainWindow> self(this);
  host_->post([self, unitsAtPrepare = unitsAtPrepare_](Engine& engine) {
    TestDatabase& db = engine.testDatabase();
    ReportContents contents{
        BuildReportView(db.definition().details, db.uut(), engine.clock().now()), db.uut().checks};
    // Until the file prepared last has a unit of its own, nothing is shown:
    // never the unit of a file before it.
    if (!db.uutOpen() && db.uutsFinished() == *unitsAtPrepare) contents = {};
    QMetaObject::invokeMethod(
        qApp,
        [self, contents] {
          if (!self) return;
          auto* dialog = new ReportDialog(contents, self);
          dialog->setAttribute(Qt::WA_DeleteOnClose);
          dialog->show();
        },
        Qt::QueuedConnection);
  });
}

void MainWindow::openAboutBox() {
  auto* dialog = new AboutDialog(this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->open();
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
  auto* box = new QMessageBox(QMessageBox::Information, title, text, QMessageBox::Ok, this);
  box->setObjectName("messageBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->open();
}

// --- The operator message panel and question boxes --------------------------------

void MainWindow::openQuestion(const Question& question, std::function<void(Answer)> answered) {
  const std::string& kind = question.kind;
  if (kind == "CONTINUEOK" || kind == "ENTEROKCANCEL" || kind == "UUTCHECK" || kind == "ALERT") {
    openPanel(question, std::move(answered));
    bringIntoView(pbOKcancelOK_);
    return;
  }
  QDialog* dialog = nullptr;
  if (kind == "DATAENTRY") {
    dialog = new DataEntryDialog(question, QDate::currentDate(), std::move(answered), this);
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
  if (kind == "SELECTMENU" || kind == "ENTERSEND") {
    // Stop must stay within reach while these wait.
    dialog->show();
  } else {
    dialog->open();
  }
  bringIntoView(dialog);
}

void MainWindow::bringIntoView(QWidget* focus) {
  if (isMinimized()) showNormal();
  QWidget* top = focus->window();
  if (top == this) tabs_->setCurrentWidget(sequencePage_);
  raise();
  activateWindow();
  if (top != this) {
    top->raise();
    top->activateWindow();
  }
  focus->setFocus(Qt::OtherFocusReason);
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
  pbOKcancelOK_->setDefault(true);
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
  auto* box = new QMessageBox(QMessageBox::Information, title, text, QMessageBox::Ok, this);
  box->setObjectName("engineMessageBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  connect(box, &QMessageBox::finished, box, [closed] { closed(); });
  box->open();
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
  auto once = std::make_shared<std::function<void(const QString&)>>(std::move(chosen));
  connect(dialog, &QFileDialog::fileSelected, dialog, [once](const QString& file) {
    if (*once) (*once)(file);
    *once = nullptr;
  });
  connect(dialog, &QFileDialog::finished, dialog, [once] {
    if (*once) (*once)(QString());
    *once = nullptr;
  });
  dialog->open();
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
void MainWindow::setCurrentCommand(const QString& line) { sCurrentCommand_->setText(line); }
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

}  // namespace tavrix
