// The main window: run controls, the run status, the current command, the
// timeout count-down, the help box, the operator message panel, the alarm
// and DDE lists, and the manual control tab. Control object names are those
// of the original window (pbRun, sRunStatus, frOKcancel, ...), so tests and
// scripts find them by name.
#pragma once

#include <QList>
#include <QMainWindow>
#include <functional>
#include <memory>
#include <string>

#include "engine_host.h"
#include "panel/run_panel.h"
#include "qt_operator.h"

class QCheckBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QTabWidget;
class QTextEdit;
class QMenu;
class QAction;

namespace tavrix {

class ChannelDisplayDialog;
class ChartWindow;

// Start-up makes the hardware setups folder of the instrument link the
// working folder, when that folder exists here. A sequence file named on the
// command line is therefore given with its full path.
void EnterSetupsFolder(Engine& engine);

// 15 twips a pixel at 96 dots an inch.
constexpr int TwipsToPixels(int twips) { return twips / 15; }

class MainWindow : public QMainWindow {
 public:
  using EngineFactory = std::function<std::unique_ptr<Engine>(Operator&)>;

  // Builds the window and its engine; `commandLine` is the program's command
  // line after its name (a sequence file, optionally " /A").
  MainWindow(EngineFactory factory, const std::string& commandLine);
  ~MainWindow() override;

  // Carried over from the engine thread by QtOperator.
  void openQuestion(const Question& question, std::function<void(Answer)> answered);
  void setRunStatus(const QString& status);
  void setStatusLabel(const QString& text, const QColor& colour);
  void setAlarmDefinitions(const QStringList& labels, const QStringList& commands);
  void setCurrentCommand(const QString& line);
  void setTimeout(int seconds);
  void setHelpText(const QString& text);
  void setDataFileSpec(const QString& path);
  void setControls(const RunControls& controls);
  void enlargeForRun();
  void showChannelValue(const QString& channel, const QString& value);
  // A message box with an OK button; `closed` is called once it is closed.
  void openMessageBox(const QString& title, const QString& text, std::function<void()> closed);
  // The file-open dialog; `chosen` gets the file, or an empty text when the
  // dialog is cancelled.
  void openFileDialog(const FileChoice& dialog, std::function<void(const QString&)> chosen);
  // File, Open Sequence: the dialog that picks a sequence file to prepare,
  // unless a run is going.
  void chooseSequenceFile();
  // The verdict of the last unit tested, shown under the run controls.
  void showVerdict(const QString& serialNumber, bool passed);
  // The engine closed the channel display's question (its channel could not
  // be read).
  void closeChannelDisplay();

  // The auxiliary windows, opened from the menus.
  void openDecryptWindow();
  void openChartWindow();
  // The current unit's results, as the test database holds them.
  void openReportWindow();
  void openAboutBox();
  void selectSetupFile();

  EngineHost& host() { return *host_; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void buildControls();
  void buildMenus();
  void answerPanel(int button);
  void answerQuestionBox(const Question& question, std::function<void(Answer)> answered);
  void openPanel(const Question& question, std::function<void(Answer)> answered);
  void restorePanel();
  void closeIfQuitRequested();
  // Brings a question into view whatever tab or window is in front, and
  // asks for the operator's attention.
  void bringIntoView(QWidget* focus);
  // Stop ends the waits of the commands that ask in dialogs of their own:
  // their dialogs are withdrawn without an answer the run would act on.
  void withdrawCommandDialogs();
  // A prepared file starts from clean displays.
  void clearRunDisplays();
  void watchVerdicts();
  // Shows one run event of the engine (on the window's thread).
  void showRunEvent(const RunEvent& event);
  void message(const QString& title, const QString& text);
  EngineTasks tasks();

  QtOperator operator_;
  std::unique_ptr<EngineHost> host_;
  RunEventBus::Subscription runEvents_;
  RunPanel panel_;
  bool closeAllowed_ = false;

  QPushButton* pbRun_ = nullptr;
  QPushButton* pbStop_ = nullptr;
  QPushButton* pbStep_ = nullptr;
  QPushButton* pbSkip_ = nullptr;
  QCheckBox* cbSingleStep_ = nullptr;
  QLabel* sRunStatus_ = nullptr;
  QLabel* sTimeout_ = nullptr;
  QLineEdit* sCurrentCommand_ = nullptr;
  QLineEdit* sDataFileSpec_ = nullptr;
  QTextEdit* ebHelp_ = nullptr;
  QLabel* laVerdict_ = nullptr;
  QTabWidget* tabs_ = nullptr;
  QWidget* sequencePage_ = nullptr;
  QGroupBox* frOKcancel_ = nullptr;
  QLabel* laMessage_ = nullptr;
  QLabel* laAlertType_ = nullptr;
  QPushButton* pbOKcancelOK_ = nullptr;
  QPushButton* pbOKcancelCancel_ = nullptr;
  QPushButton* pbShutdown_ = nullptr;
  QListWidget* lbAlarmLabels_ = nullptr;
  QListWidget* lbAlarmCommands_ = nullptr;
  QListWidget* lbDDElabels_ = nullptr;
  QListWidget* lbDDEcommands_ = nullptr;
  QMenu* mbFile_ = nullptr;
  QList<QAction*> lockedWhileRunning_;
  // Units finished when the last file was prepared (engine thread only).
  std::shared_ptr<int> unitsAtPrepare_ = std::make_shared<int>(0);
  ChannelDisplayDialog* channelDisplay_ = nullptr;
  ChartWindow* chart_ = nullptr;
  bool wasRunning_ = false;
  Question panelQuestion_;
  std::function<void(Answer)> panelAnswered_;
  bool suppressSingleStep_ = false;
};

}  // namespace tavrix
