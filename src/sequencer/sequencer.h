// The run engine of the main window: the prepared sequence file, the run loop
// and its run-control flags, the Run/Stop/Step/Skip buttons and the single
// step box, the seconds timer with the timeout count-down, the sequence
// error report, and the services that command handlers use (label search,
// waits that keep the engine responsive, operator questions).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/event_loop.h"
#include "common/paths.h"
#include "common/trace.h"
#include "sequencer/dispatcher.h"
#include "sequencer/operator.h"
#include "sequencer/sequence_file.h"

namespace tavrix {

// Flags of the run (each a two-state switch of the main window).
struct RunFlags {
  bool running = false;
  bool stopRequested = false;
  bool jumpPending = false;
  bool timeoutExpired = false;
  bool timeoutPending = false;
  bool endRequested = false;
  bool singleStepMode = false;
  bool singleStepHold = false;
  bool stepExecute = false;
  bool mustNotBeStopped = false;
  bool autoStartPending = false;
  bool quitRequested = false;  // ENDTAVRIX: the program closes after the run
};

// How the last run ended. kUnload: a command closed the main window, which
// ends the program (STARTCALCULATEDCHANNELS with a setup that cannot load).
enum class EndReason { kNone, kEndOfFile, kStop, kError, kAbort, kUnload };
// "eof", "stop", "error" (also for kUnload: it ends the program after a
// message, as an error does), "abort".
const char* EndReasonName(EndReason reason);

// One entry of the define table.
struct DefineEntry {
  std::string first;
  std::string second;
  bool isChain = false;  // the entry's kind, upper-cased, is "CHAIN"
};

inline constexpr std::string_view kErrorTitle = "CV-TAVRIX";
inline constexpr std::string_view kStatusReady = "Ready";
inline constexpr std::string_view kStatusRunning = "Running";
inline constexpr std::string_view kStatusStopped = "Stopped";
inline constexpr std::string_view kCaption = "Corvane TAVRIX (b) v 7.00 (CC 6.01) (DBT 6.01)";

class Sequencer {
 public:
  Sequencer(EventLoop& events, Operator& op, Trace& trace);
  ~Sequencer();
  Sequencer(const Sequencer&) = delete;
  Sequencer& operator=(const Sequencer&) = delete;

  EventLoop& events() { return events_; }
  Clock& clock() { return events_.clock(); }
  Operator& operatorPort() { return operator_; }
  Trace& trace() { return trace_; }
  Dispatcher& dispatcher() { return dispatcher_; }
  RunFlags& flags() { return flags_; }
  const RunFlags& flags() const { return flags_; }

  // --- The sequence file ---------------------------------------------------
  // Prepares a file for running: resets what a new file resets, shows its
  // name, and shows "Ready". Returns false, with a message, when the file
  // cannot be read as a sequence (missing, unreadable, not text).
  bool prepareFile(const std::string& path, std::string* error);
  // The file dialog; a cancelled dialog changes nothing.
  void chooseSequenceFile();
  const std::string& sequenceFileName() const { return fileName_; }
  // Lines read since the file was last opened (the number in error reports).
  int16_t lineNumber() const { return lineNumber_; }

  // --- Buttons and the start-up of the window ------------------------------
  void pressRun();
  void pressStop();
  void pressStep();
  void pressSkip();
  void setSingleStepBox(bool ticked);
  // Whether the window may close (asks when the run must not be stopped).
  bool closeRequest();
  // Takes the program's command line: a sequence file name, optionally
  // followed by " /A" for an automatic start at the first seconds tick.
  void startUp(std::string_view commandLine);

  // --- Services for command handlers ---------------------------------------
  // The sequence error report: a message box, then the run ends.
  void reportSequenceError(std::string_view text);
  // A message box with an OK button, after which work goes on.
  void showMessage(std::string_view text);
  // The error display switch (SHOWERROROFF sets it): sequence error reports
  // are then recorded but not shown in a box; they still end the run.
  bool errorDisplayOff = false;

  // Searches the label as GOTO does. Reports "Label X: does not exist" and
  // returns false when there is none.
  bool searchLabel(std::string_view label);

  void processPendingEvents() { events_.processPendingEvents(); }
  // Lets events run until `done()` is true. A wait that could never end (a
  // virtual clock with nothing left to happen) is reported as a sequence
  // error and returns false.
  bool waitUntil(const std::function<bool()>& done, const std::function<void()>& eachTurn = {});
  // Asks the operator and waits for the answer, keeping the engine alive.
  // When no answer can come, reports that as a sequence error (the run
  // ends) and returns std::nullopt.
  Answer ask(const Question& question);
  // As ask(), but the engine closes the question itself, as if the button
  // `closedAs` had been pressed, as soon as `closeNow()` answers true.
  Answer ask(const Question& question, const std::function<bool()>& closeNow,
             std::string_view closedAs);

  // Examines the define table, as the waits do at every turn.
  void examineDefineTable();
  // What a define entry does when examined, and how the timeout action runs
  // a define; set by the subsystem that owns the define commands.
  std::function<void(Sequencer&)> onExamineDefines;
  std::function<void(Sequencer&, const std::string& target)> onExecuteDefine;
  // Spends the sequence time-out that has fired (disarms it, clears timeout
  // expired) and sets the jump target to its label or define; set by the
  // subsystem that owns ONTIMEOUT. False when no time-out was armed.
  std::function<bool(Sequencer&)> onTimeoutFired;

  // The time-out action taken at once, as WAIT and the alarm waits do when
  // they find the time-out expired: the time-out is spent, then its define
  // runs or its label is searched. False when no time-out was armed (the
  // stale expired flag is cleared and nothing else happens).
  bool takeTimeoutActionNow();

  std::vector<DefineEntry>& defineTable() { return defines_; }
  void addDefine(DefineEntry entry);

  // The jump and timeout target shared by jumps and timeout actions.
  std::string jumpTarget;
  bool jumpTargetIsDefine = false;

  // The sequence time-out: the seconds timer counts down to the deadline.
  void setTimeoutDeadline(Micros deadline);
  // Forgets the deadline, clears timeout expired and stops the seconds timer.
  void cancelTimeout();
  std::optional<Micros> timeoutDeadline() const { return deadline_; }
  int32_t timeoutSeconds() const { return timeoutSeconds_; }
  bool secondsTimerEnabled() const { return secondsTimer_.enabled(); }
  void setSecondsTimerEnabled(bool enabled) { secondsTimer_.setEnabled(enabled); }

  // The loop count of LOOPCHECK and friends (one for the whole run).
  int32_t loopCount = 0;

  // Called whenever a sequence file is prepared, so subsystems reset their
  // per-file state.
  void addPrepareHook(std::function<void()> hook) { prepareHooks_.push_back(std::move(hook)); }

  // The Stop button's enabled state (NONSTOP disables it for the run).
  void setStopEnabled(bool enabled);

  // Shows a line in the current command display.
  void showCurrentCommand(std::string_view text);

  // Ends the run after the current line (STOP, a sequence error), and
  // remembers why unless a reason was already given.
  void requestEnd(EndReason reason);
  // Ends the run at once as the Stop button does, as an abort.
  void requestAbort();

  // Continues the run in another sequence file (CHAIN, RETURN): the file is
  // opened, `linesToSkip` lines are passed over, and labels are searched in
  // it from then on. The file prepared for running is taken again when the
  // next run starts. Returns false with a message when it cannot be read.
  bool continueInFile(const std::string& path, int16_t linesToSkip, std::string* error);

  // The drive map through which paths written on Windows reach local files.
  PathMap& paths() { return paths_; }

  // Reads the next line of a section that a handler reads itself (help
  // text, group ramps), counting it like any other line; false at the end of
  // the file or when the line count overflows (a sequence error).
  bool readSectionLine(std::string& line) { return readNextLine(line); }

  // Observers of every dispatched line: its number and its cleaned text, as
  // the current command display shows it.
  using LineObserver = std::function<void(int16_t lineNumber, std::string_view text)>;
  void addLineObserver(LineObserver observer) { lineObservers_.push_back(std::move(observer)); }

  // Hooks run by the Stop button (timers of long commands to switch off).
  void addStopHook(std::function<void()> hook) { stopHooks_.push_back(std::move(hook)); }

  // Hooks run once when a run ends, whatever ended it (end of file, STOP, a
  // sequence error, the Stop button), after the last line and before the
  // end reason is settled: a hook may still report a sequence error.
  void addRunEndHook(std::function<void()> hook) { runEndHooks_.push_back(std::move(hook)); }

  // Checks the run loop makes before it reads a line of the file (alarm
  // definitions): a check may give a command, which is dispatched as the
  // next command; the file's next line follows it, before the checks run
  // again.
  using BetweenLinesCheck = std::function<std::optional<std::string>(Sequencer&)>;
  void addBetweenLinesCheck(BetweenLinesCheck check) { betweenLines_.push_back(std::move(check)); }

  // The text of the run status label ("Ready", "Running", "Stopped").
  const std::string& runStatus() const { return currentStatus_; }

  EndReason endReason() const { return endReason_; }
  // The text of the last sequence error reported, if any.
  const std::string& lastSequenceError() const { return lastError_; }

 private:
  void runLoop();
  // Runs the stored jump target as a define when it is one, else searches it
  // as a label.
  void runTimeoutTarget();
  // How a question ended: its answer (`closedAs` when `closeNow` closed it
  // first), and whether the wait could end at all. Traces the prompt;
  // reports nothing.
  struct AnswerWait {
    Answer answer;
    bool closed = false;
    bool waitEnded = true;
  };
  AnswerWait awaitAnswer(const Question& question, const std::function<bool()>& closeNow,
                         std::string_view closedAs);
  void dispatchLine(std::string& line);
  // Dispatches the command of the first check that gives one; false if none.
  bool runBetweenLinesChecks();
  bool readNextLine(std::string& line);
  void setStatus(std::string_view status);
  void publishControls();
  void secondsTick();

  EventLoop& events_;
  Operator& operator_;
  Trace& trace_;
  Dispatcher dispatcher_;
  RunFlags flags_;
  RunControls controls_;
  SequenceFile file_;
  std::string fileName_;
  std::string preparedName_;
  PathMap paths_{defaultDataRoot()};
  int16_t lineNumber_ = 0;
  std::vector<DefineEntry> defines_;
  std::optional<Micros> deadline_;
  int32_t timeoutSeconds_ = 0;
  Timer secondsTimer_;
  std::vector<std::function<void()>> prepareHooks_;
  std::vector<std::function<void()>> stopHooks_;
  std::vector<LineObserver> lineObservers_;
  std::vector<std::function<void()>> runEndHooks_;
  std::vector<BetweenLinesCheck> betweenLines_;
  std::string currentStatus_;
  EndReason endReason_ = EndReason::kNone;
  std::string lastError_;
};

}  // namespace tavrix
