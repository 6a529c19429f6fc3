// The main window: run controls, the run status, the current command, the
// timeout count-down, the help box, the operator message panel, the alarm
// and DDE lists, and the manual control tab. Control object names are those
// of the original window (pbRun, sRunStatus, frOKcancel, ...), so tests and
// scripts find them by name.
#pragma once

#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QTimer>
#include <functional>
#include <memory>
#include <string>

#include "common/host.h"
#include "each_run_control.h"
#include "engine/breakpoints.h"
#include "engine_host.h"
#include "panel/plant_view_launcher.h"
#include "panel/resume_offer.h"
#include "panel/run_panel.h"
#include "qt_operator.h"
#include "socket_questions.h"
#include "station_sockets.h"

class QCheckBox;
class QGroupBox;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QTabWidget;
class QTextEdit;
class QVBoxLayout;
class QMenu;
class QAction;
class QMessageBox;
class QStackedWidget;

namespace tavrix {

class ChannelDisplayDialog;
class ChartWindow;
class SequenceLinesView;
class StationView;
struct LinesSnapshot;

// Start-up makes the hardware setups folder of the instrument link the
// working folder, when that folder exists here. A sequence file named on the
// command line is therefore given with its full path.
void EnterSetupsFolder(Engine& engine);

// The key that presses Stop from any window of the program; the Stop
// button shows it.
inline constexpr Qt::Key kStopKey = Qt::Key_F12;

// 15 twips a pixel at 96 dots an inch.
constexpr int TwipsToPixels(int twips) { return twips / 15; }

// What the unit tile shows of the unit under test (read on the engine
// thread, shown on the window's).
struct UnitState {
  bool open = false;      // a unit is being tested
  bool finished = false;  // a unit of this file has ended: `passed` is its verdict
  bool passed = true;
  std::string serial;
  int stage = 0;   // the stage being tested, from 1; 0 before the first
  int stages = 0;  // the definition's stages
};

class MainWindow : public QMainWindow {
 public:
  using EngineFactory = std::function<std::unique_ptr<Engine>(Operator&)>;

  // Builds the window and its engine; `commandLine` is the program's command
  // line after its name (a sequence file, optionally " /A"); `machine` is
  // what the program's entry point hands it: the disk for the files a person
  // names, and the data root.
  MainWindow(const Host& machine, EngineFactory factory, const std::string& commandLine);
  ~MainWindow() override;

  // Carried over from the engine thread by QtOperator.
  void openQuestion(const Question& question, std::function<void(Answer)> answered);
  void setRunStatus(const QString& status);
  void setStatusLabel(const QString& text, const QColor& colour);
  void setAlarmDefinitions(const QStringList& labels, const QStringList& commands);
  void setCurrentCommand(const QString& line);
  // A timed wait's count-down as minutes and seconds, with its progress.
  void showWait(const WaitProgress& wait);
  // A WAIT line starts the display of its condition's reading; any other
  // line ends it.
  void watchWaitCondition(const std::string& line);
  void readWaitChannel();
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
  // The plant view of the window's results store in the browser: serve is
  // started on loopback the first time (and stopped with the window).
  void openPlantView();
  // The store the plant view shows: the settings' results store setting
  // (empty: the data root's database file).
  void setPlantViewStore(const std::string& storeSetting) { plantStore_ = storeSetting; }

  // Told the run id of each run's control socket as it opens (on the
  // engine thread); where the system has no control sockets, never.
  void onRunSocket(std::function<void(const std::string&)> told);

  // Test sockets. A station file (.toml) named on the command line, or
  // chosen with File, Open Station, replaces the one-sequence view by the
  // station's tiles until File, Close Station; the one-sequence engine
  // stays as it was. What the sockets' engines are built with (the data
  // root, the settings, a virtual clock) is set before the station opens.
  void setStationOptions(const StationSockets::Options& options) { stationOptions_ = options; }
  // False with a message box when the file cannot be used, or when a
  // station's socket still runs.
  bool openStation(const std::string& path);
  void chooseStationFile();
  void closeStation();
  StationView* station() { return station_; }
  // Shows the next question of a socket without an answers file, when none
  // is shown: asked in the window under the socket's name, one at a time in
  // the order asked.
  void showSocketQuestion();

  EngineHost& host() { return *host_; }
  // The report and chart windows open now: windows of their own, not kept
  // above the main window, so that a question can come in front of them.
  QList<QWidget*> ownWindows() const;

 protected:
  void closeEvent(QCloseEvent* event) override;
  // Takes the Stop key whatever window of the program has the keyboard.
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  PlantViewLauncher plantView_;
  std::string plantStore_;
  StationSockets::Options stationOptions_;
  QStackedWidget* pages_ = nullptr;
  StationView* station_ = nullptr;
  QAction* closeStationAction_ = nullptr;
  // The open station's questions for the person (one set per station).
  std::shared_ptr<SocketQuestions> socketQuestions_;
  bool stationRunning() const;
  // Ends the open station: its questions get no answer, its runs stop.
  void endStation();
  void buildControls();
  // The run's status, how the last run ended, the hold, the timeout and the
  // verdict, in one row.
  QHBoxLayout* buildStatusRow();
  // The current line, and the progress and reading of a wait.
  void buildLineDisplays(QVBoxLayout* layout);
  // Run, Stop, Step, Skip and Single Step, disabled until a file is ready.
  QHBoxLayout* buildRunButtons();
  // The operator message panel (frOKcancel_), hidden until a question.
  void buildOperatorPanel();
  // The sequence tab: the help text and the alarm and DDE lists.
  QWidget* buildSequencePage();
  void connectButtons();
  // How the last run ended, beside the status.
  void showRunEnd();
  // The widget lies in this window or in a window it opened.
  bool ownWindow(const QWidget* widget) const;
  // Stop, from the button or the Stop key.
  void pressStop();
  // Exit or the close box while a run goes: asks first, without holding the
  // run, and closes on Yes.
  void askBeforeClosing();
  // Ends the run (when one goes) and closes the window.
  void closeForGood();
  void buildMenus();
  void answerPanel(int button);
  void answerQuestionBox(const Question& question, std::function<void(Answer)> answered);
  // At start-up: asks whether a run that did not end goes on, is discarded
  // or waits for a later start, and has the engine do it.
  void offerResume(const ResumeOffer& offer);
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
  // The unit tile: the current unit's serial number, its stage and a large
  // TESTING / PASS / FAIL, as a test socket's tile shows them.
  QGroupBox* buildUnitTile();
  // Asks the engine for the unit's state (one question at a time).
  void refreshUnit();
  void showUnit(const UnitState& unit);
  // Shows one run event of the engine (on the window's thread), with what
  // the lines view needs of the engine at that event.
  void showRunEvent(const RunEvent& event, const LinesSnapshot& snapshot);
  // What holds the run, beside the status.
  void showHold();
  void message(const QString& title, const QString& text);
  EngineTasks tasks();

  QtOperator operator_;
  std::unique_ptr<EngineHost> host_;
  Host machine_;
  // The breakpoints of the window's runs, set on the lines view and
  // through the control socket; engine thread only (made with the engine).
  std::unique_ptr<Breakpoints> breakpoints_;
  // The control socket of each run; engine thread only.
  std::unique_ptr<EachRunControl> runControl_;
  // Told the run id of each control socket that opens (the station's runs'
  // too).
  std::function<void(const std::string&)> runSocketTold_;
  RunEventBus::Subscription runEvents_;
  RunPanel panel_;
  bool closeAllowed_ = false;

  QPushButton* pbRun_ = nullptr;
  QPushButton* pbStop_ = nullptr;
  QPushButton* pbStep_ = nullptr;
  QPushButton* pbSkip_ = nullptr;
  QCheckBox* cbSingleStep_ = nullptr;
  QLabel* sRunStatus_ = nullptr;
  QLabel* laRunEnd_ = nullptr;
  QLabel* laHold_ = nullptr;
  SequenceLinesView* linesView_ = nullptr;
  QPointer<QMessageBox> closeQuestion_;
  QLabel* sTimeout_ = nullptr;
  QLineEdit* sCurrentCommand_ = nullptr;
  QProgressBar* pbWait_ = nullptr;
  // WAIT's condition and the reading it waits on, refreshed each second.
  QLabel* laWaitReading_ = nullptr;
  QTimer waitReadings_;
  std::string waitChannel_;
  QString waitCondition_;
  QLineEdit* sDataFileSpec_ = nullptr;
  QTextEdit* ebHelp_ = nullptr;
  QLabel* laVerdict_ = nullptr;
  QGroupBox* unitTile_ = nullptr;
  QLabel* laUnitSerial_ = nullptr;
  QLabel* laUnitStage_ = nullptr;
  QLabel* laUnitState_ = nullptr;
  bool unitRefreshPending_ = false;
  bool unitRefreshAgain_ = false;
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
  QList<QPointer<QWidget>> ownWindows_;
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
