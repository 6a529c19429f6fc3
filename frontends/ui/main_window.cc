#include "main_window.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDir>
#include <QFileDialog>
#include <QPointer>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
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
// The panel's design colour, light green.
const QColor kPanelColour(192, 255, 192);

template <typename T>
T* Named(T* widget, const char* name) {
  widget->setObjectName(name);
  return widget;
}

}  // namespace

MainWindow::MainWindow(EngineFactory factory, const std::string& commandLine) : operator_(*this) {
  setWindowTitle(QString::fromUtf8(kCaption.data(), static_cast<int>(kCaption.size())));
  buildControls();
  buildMenus();
  resize(TwipsToPixels(kStartWidthTwips), TwipsToPixels(kStartHeightTwips));
  host_ = std::make_unique<EngineHost>([this, factory] { return factory(operator_); });
  host_->post([commandLine](Engine& engine) { engine.sequencer().startUp(commandLine); });
}

MainWindow::~MainWindow() {
  operator_.setClosing();
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

  auto* tabs = new QTabWidget;
  auto* sequencePage = new QWidget;
  auto* pageLayout = new QVBoxLayout(sequencePage);

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
  pageLayout->addWidget(ebHelp_);

  auto* lists = new QHBoxLayout;
  lbAlarmLabels_ = Named(new QListWidget, "lbAlarmLabels");
  lbAlarmCommands_ = Named(new QListWidget, "lbAlarmCommands");
  lbDDElabels_ = Named(new QListWidget, "lbDDElabels");
  lbDDEcommands_ = Named(new QListWidget, "lbDDEcommands");
  for (QListWidget* list : {lbAlarmLabels_, lbAlarmCommands_, lbDDElabels_, lbDDEcommands_}) {
    list->setMaximumHeight(80);
    lists->addWidget(list);
  }
  pageLayout->addLayout(lists);
  tabs->addTab(sequencePage, tr("Sequence"));

  auto* manual = Named(new QGroupBox(tr("Manual control")), "frManual");
  auto* manualLayout = new QVBoxLayout(manual);
  manualLayout->addWidget(new ManualControl(tasks(), manual));
  manualLayout->addStretch();
  tabs->addTab(manual, tr("Manual"));
  layout->addWidget(tabs);
  setCentralWidget(central);

  connect(pbRun_, &QPushButton::clicked, this,
          [this] { host_->post([](Engine& e) { e.sequencer().pressRun(); }); });
  connect(pbStop_, &QPushButton::clicked, this,
          [this] { host_->post([](Engine& e) { e.sequencer().pressStop(); }); });
  connect(pbStep_, &QPushButton::clicked, this,
          [this] { host_->post([](Engine& e) { e.sequencer().pressStep(); }); });
  connect(pbSkip_, &QPushButton::clicked, this,
          [this] { host_->post([](Engine& e) { e.sequencer().pressSkip(); }); });
  connect(cbSingleStep_, &QCheckBox::toggled, this, [this](bool ticked) {
    if (suppressSingleStep_) return;
    host_->post([ticked](Engine& e) { e.sequencer().setSingleStepBox(ticked); });
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
  connect(open, &QAction::triggered, this,
          [this] { host_->post([](Engine& e) { e.sequencer().chooseSequenceFile(); }); });
  QAction* setup = mbFile_->addAction(tr("Select &Setup File..."));
  setup->setObjectName("mbSelectSetup");
  connect(setup, &QAction::triggered, this, &MainWindow::selectSetupFile);
  QAction* decrypt = mbFile_->addAction(tr("&Decrypt File..."));
  decrypt->setObjectName("mbFileDecrypt");
  connect(decrypt, &QAction::triggered, this, &MainWindow::openDecryptWindow);
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
  host_->post([self](Engine& engine) {
    TestDatabase& db = engine.testDatabase();
    const ReportView view = BuildReportView(db.definition().details, db.uut(), engine.clock().now());
    QMetaObject::invokeMethod(qApp, [self, view] {
      if (!self) return;
      auto* dialog = new ReportDialog(view, self);
      dialog->setAttribute(Qt::WA_DeleteOnClose);
      dialog->show();
    }, Qt::QueuedConnection);
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
      Instrument* instrument = engine.instrument();
      if (instrument != nullptr && instrument->selectSetupFile(path)) return;
      const std::string why =
          instrument == nullptr ? "No instrument is attached" : instrument->link().lastErrorText;
      QMetaObject::invokeMethod(qApp, [self, why] {
        if (self) self->message(self->windowTitle(), Text(why));
      }, Qt::QueuedConnection);
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
  } else if (kind == "DATAENTRY") {
    auto* dialog = new DataEntryDialog(question, QDate::currentDate(), std::move(answered), this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
  } else if (kind == "CHECKFAILURE") {
    auto* dialog = new CheckFailureDialog(question, std::move(answered), this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
  } else if (kind == "SELECTMENU") {
    auto* dialog = new SelectMenuDialog(question, std::move(answered), this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
  } else if (kind == "ENTERSEND") {
    auto* dialog = new EnterSendDialog(question, std::move(answered), this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
  } else if (kind == "DOWITHSHOW" || kind == "MANUALADJUST") {
    if (channelDisplay_ == nullptr) channelDisplay_ = new ChannelDisplayDialog(this);
    channelDisplay_->ask(question, std::move(answered));
  } else {
    answerQuestionBox(question, std::move(answered));
  }
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
  const auto& captions = question.buttons;
  pbOKcancelOK_->setText(captions.empty() ? tr("OK") : Text(captions[0]));
  pbOKcancelCancel_->setVisible(captions.size() != 1);
  if (captions.size() > 1) pbOKcancelCancel_->setText(Text(captions[1]));
  pbShutdown_->setVisible(captions.size() > 2);
  if (captions.size() > 2) pbShutdown_->setText(Text(captions[2]));
  frOKcancel_->show();
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
  const auto& buttons = panelQuestion_.buttons;
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
  for (size_t i = 0; i < question.buttons.size(); ++i) {
    QPushButton* b = box->addButton(Text(question.buttons[i]), QMessageBox::ActionRole);
    b->setObjectName(QString::fromStdString("answer_" + question.buttons[i]));
    pressed->emplace_back(b, question.buttons[i]);
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

void MainWindow::setRunStatus(const QString& status) { sRunStatus_->setText(status); }

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
  mbFile_->setEnabled(c.fileMenuEnabled);
  // A run has ended: after ENDTAVRIX the program closes.
  const bool running = c.stopEnabled || !c.runEnabled;
  if (wasRunning_ && !running) closeIfQuitRequested();
  wasRunning_ = running;
}

void MainWindow::closeIfQuitRequested() {
  QPointer<MainWindow> self(this);
  host_->post([self](Engine& engine) {
    if (!engine.sequencer().flags().quitRequested) return;
    QMetaObject::invokeMethod(qApp, [self] {
      if (!self) return;
      self->closeAllowed_ = true;
      self->close();
    }, Qt::QueuedConnection);
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
  const QRect screen = this->screen() ? this->screen()->availableGeometry() : QRect();
  move(screen.topLeft());
  resize(TwipsToPixels(kRunWidthTwips), TwipsToPixels(kRunHeightTwips));
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (closeAllowed_) {
    event->accept();
    return;
  }
  event->ignore();
  host_->post([this](Engine& engine) {
    Sequencer& seq = engine.sequencer();
    if (!seq.closeRequest()) return;
    if (seq.flags().running) seq.requestAbort();
    QMetaObject::invokeMethod(this, [this] {
      closeAllowed_ = true;
      close();
    }, Qt::QueuedConnection);
  });
}

}  // namespace tavrix
