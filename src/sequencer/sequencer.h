// The run engine: the prepared sequence file, the run loop and its run-control
// flags, the run commands (start, stop, pause, resume, step, skip), the
// seconds timer with the time-out count-down, the sequence error report, the
// run events it publishes, and the services that command handlers use (label
// search, waits that keep the engine responsive, operator questions). It
// knows no front end: what a window or a terminal shows of a run, each
// builds from the run events.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/event_loop.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "sequencer/command_family.h"
#include "sequencer/dispatcher.h"
#include "sequencer/operator.h"
#include "sequencer/run_context.h"
#include "sequencer/run_events.h"
#include "sequencer/sequence_file.h"

namespace tavrix {

// Flags of the run.
struct RunFlags {
  bool running = false;
  bool stopRequested = false;
  bool jumpPending = false;
  bool timeoutExpired = false;
  bool timeoutPending = false;
  bool endRequested = false;
  // The run holds before each line (stepping or paused) ...
  bool singleStepMode = false;
  // ... and holds now, until step, skip, resume or stop.
  bool singleStepHold = false;
  bool stepExecute = false;
  bool mustNotBeStopped = false;
  bool autoStartPending = false;
  bool quitRequested = false;  // ENDTAVRIX: the program closes after the run
};

// How the last run ended. kUnload: a command closed the main window, which
// ends the program (STARTCALCULATEDCHANNELS with a setup that cannot load).
enum class EndReason { kNone, kEndOfFile, kStop, kError, kAbort, kUnload, kLimit };

// "eof", "stop", "error" (also for kUnload: it ends the program after a
// message, as an error does), "abort", "limit" (a limit of the front end on
// the run's length).
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

class Sequencer : public RunContext {
 public:
  // `files` is the door to every file the run reads and writes, `paths` the
  // drive map through which paths written on Windows reach them.
  Sequencer(EventLoop& events, Operator& op, Trace& trace, FileSystem& files, const PathMap& paths);
  ~Sequencer() override;
  Sequencer(const Sequencer&) = delete;
  Sequencer& operator=(const Sequencer&) = delete;

  EventLoop& events() override { return events_; }
  Clock& clock() override { return events_.clock(); }
  Operator& operatorPort() override { return operator_; }
  Trace& trace() override { return trace_; }
  Dispatcher& dispatcher() { return dispatcher_; }
  // The run's flags, to look at; they change only through the operations
  // and run commands below.
  const RunFlags& flags() const { return flags_; }

  // --- The run state as handlers see it ------------------------------------
  // Whether a wait of the given kind ends now.
  bool waitEnds(WaitRule rule) const override;
  bool stopRequested() const override { return flags_.stopRequested; }
  // The run ends after the current line (STOP, a sequence error).
  bool endRequested() const override { return flags_.endRequested; }
  // The run is ending: Stop was pressed or the run ends after this line.
  // Work that would only delay the end (more questions, more checks) stops.
  bool runEnding() const override { return flags_.stopRequested || flags_.endRequested; }
  // The sequence time-out has run out and its action is not yet pending.
  bool timeoutExpired() const override { return flags_.timeoutExpired; }
  // The time-out's action is pending: the run loop takes it next.
  bool timeoutPending() const { return flags_.timeoutPending; }
  // Makes the time-out's action pending: the run loop takes it before it
  // reads the next line, and the waits end.
  void makeTimeoutPending() { flags_.timeoutPending = true; }
  // NONSTOP: closing the window asks first for the rest of the run.
  void setMustNotBeStopped() { flags_.mustNotBeStopped = true; }
  // ENDTAVRIX: the program closes after the run.
  void requestQuit() { flags_.quitRequested = true; }

  // --- The sequence file ---------------------------------------------------
  // Prepares a file for running: resets what a new file resets, shows its
  // name, and shows "Ready". Returns false, with a message, when the file
  // cannot be read as a sequence (missing, unreadable, not text).
  bool prepareFile(const std::string& path, std::string* error);
  const std::string& sequenceFileName() const { return fileName_; }
  // The file prepared for running (the run's first file, whatever CHAIN did).
  const std::string& preparedFileName() const { return preparedName_; }
  // Whether the file prepared last has lines that end in bare line feeds.
  bool sequenceHasBareLineFeeds() const { return file_.hasBareLineFeeds(); }
  // Lines read since the file was last opened (the number in error reports).
  int16_t lineNumber() const { return lineNumber_; }

  // --- Run commands ---------------------------------------------------------
  // Each runs on the engine thread (front ends post them, see Engine).
  // Starts a free run of the prepared file and returns when it ends; on a
  // held run, resume().
  void start();
  // Starts a run of the prepared file held before its first line, and
  // returns when it ends. Nothing when a run is going or no file is prepared.
  void startStepping();
  // Starts a free run at the next tick of the seconds timer (one second from
  // now), from outside that tick.
  void startAtNextSecond();
  // Ends the run at once: waits end, the line in progress ends early.
  void stop();
  // From the next line on, the run holds before each line as stepping does;
  // outputs in progress, alarms and calculated channels go on.
  void pause();
  // As pause(), for a breakpoint: the hold that follows says that breakpoint
  // `id` held the run (its reason "break"), also when the run was stepping.
  void holdForBreakpoint(int64_t id);
  // A held run goes on freely from the held line.
  void resume();
  // Runs the held line, then holds before the next.
  void step();
  // Passes over the hold of the held line as step does (the line runs) but
  // without marking it stepped.
  void skip();
  // Whether the run may be ended from outside now (closing the program):
  // asks the operator while the run must not be stopped (NONSTOP), and only
  // an explicit Yes allows it.
  bool mayClose();

  // --- Services for command handlers ---------------------------------------
  // The sequence error report: a message box, then the run ends.
  void reportSequenceError(std::string_view text) override;
  // A message the operator acknowledges, after which work goes on.
  void showMessage(std::string_view text) override;
  // The error display switch (SHOWERROROFF turns it off): sequence error
  // reports are then recorded but not shown in a box; they still end the run.
  void setErrorDisplay(bool shown) { errorDisplayOff_ = !shown; }
  bool errorDisplayOff() const { return errorDisplayOff_; }

  // Searches the label as GOTO does. Reports "Label X: does not exist" and
  // returns false when there is none.
  bool searchLabel(std::string_view label) override;

  void processPendingEvents() override { events_.processPendingEvents(); }
  // Lets events run until `done()` is true. A wait that could never end (a
  // virtual clock with nothing left to happen) is reported as a sequence
  // error and returns false.
  bool waitUntil(const std::function<bool()>& done,
                 const std::function<void()>& eachTurn = {}) override;
  // Asks the operator and waits for the answer, keeping the engine alive.
  // When no answer can come, reports that as a sequence error (the run
  // ends) and returns std::nullopt.
  Answer ask(const Question& question) override;
  // As ask(), but the engine closes the question itself, as if the answer
  // `closedAs` had been given, as soon as `closeNow()` answers true.
  Answer ask(const Question& question, const std::function<bool()>& closeNow,
             std::string_view closedAs) override;
  // Before `question` is asked again because of its last answer (`why`: "it
  // refuses the date ..." or "it asks for the check again"): false, with a
  // sequence error (the run ends), when the same answer would only come
  // again.
  bool mayAskAgain(const Question& question, std::string_view why) override;

  // Examines the define table, as the waits do at every turn.
  void examineDefineTable() override;
  // What a define entry does when examined, and how the timeout action runs
  // a define; set by the subsystem that owns the define commands.
  using ExamineDefines = std::function<void(Sequencer&)>;
  using ExecuteDefine = std::function<void(Sequencer&, const std::string& target)>;
  // Spends the sequence time-out that has fired (disarms it, clears timeout
  // expired) and sets the jump target to its label or define. False when no
  // time-out was armed.
  using SpendTimeout = std::function<bool(Sequencer&)>;
  void setDefineActions(ExamineDefines examine, ExecuteDefine execute, SpendTimeout spendTimeout) {
    onExamineDefines_ = std::move(examine);
    onExecuteDefine_ = std::move(execute);
    onTimeoutFired_ = std::move(spendTimeout);
  }

  // The time-out action taken at once, as WAIT and the alarm waits do when
  // they find the time-out expired: the time-out is spent, then its define
  // runs or its label is searched. False when no time-out was armed (the
  // stale expired flag is cleared and nothing else happens).
  bool takeTimeoutActionNow() override;

  const std::vector<DefineEntry>& defineTable() const { return defines_; }
  void addDefine(DefineEntry entry);
  // Gives the first entry named `name` (blanks around the entry's name and
  // case aside) the command `second`; false when there is none.
  bool replaceDefine(std::string_view name, std::string second, bool isChain);

  // The jump and timeout target shared by jumps and timeout actions: a
  // define's name or a label.
  void setJumpTarget(std::string target, bool isDefine) {
    jumpTarget_ = std::move(target);
    jumpTargetIsDefine_ = isDefine;
  }
  const std::string& jumpTarget() const { return jumpTarget_; }
  bool jumpTargetIsDefine() const { return jumpTargetIsDefine_; }

  // The sequence time-out: the seconds timer counts down to the deadline.
  void setTimeoutDeadline(Micros deadline);
  // Forgets the deadline, clears timeout expired and stops the seconds timer.
  void cancelTimeout();
  std::optional<Micros> timeoutDeadline() const { return deadline_; }
  int32_t timeoutSeconds() const { return timeoutSeconds_; }
  bool secondsTimerEnabled() const { return secondsTimer_.enabled(); }
  void setSecondsTimerEnabled(bool enabled) { secondsTimer_.setEnabled(enabled); }

  // The loop count of LOOPCHECK and friends (one for the whole run).
  int32_t loopCount() const { return loopCount_; }
  void setLoopCount(int32_t count) { loopCount_ = count; }

  // Keeps a family of keywords (command_family.h) as long as the sequencer;
  // the family has bound its keywords and hooks to itself.
  template <class Family>
  Family& addFamily(std::unique_ptr<Family> family) {
    Family& kept = *family;
    families_.push_back(std::move(family));
    return kept;
  }

  // Called whenever a sequence file is prepared, so subsystems reset their
  // per-file state.
  void addPrepareHook(std::function<void()> hook) { prepareHooks_.push_back(std::move(hook)); }

  // Whether stop may be used from now on (NONSTOP forbids it for the run).
  void setStopAllowed(bool allowed);

  // Shows a text in the current command display (a wait's count-down).
  void showCurrentCommand(std::string_view text) override;

  // Ends the run after the current line (STOP, a sequence error), and
  // remembers why unless a reason was already given.
  void requestEnd(EndReason reason);
  // Ends the run at once as stop() does, as an abort.
  void requestAbort();
  // Ends the run at once as stop() does, because a limit the front end set
  // on the run's length was reached.
  void requestLimitStop();

  // Continues the run in another sequence file (CHAIN, RETURN): the file is
  // opened, `linesToSkip` lines are passed over, and labels are searched in
  // it from then on. The file prepared for running is taken again when the
  // next run starts. Returns false with a message when it cannot be read.
  bool continueInFile(const std::string& path, int16_t linesToSkip, std::string* error);

  // The drive map through which paths written on Windows reach local files.
  const PathMap& paths() const override { return paths_; }
  FileSystem& files() override { return files_; }

  // Reads the next line of a section that a handler reads itself (help
  // text, group ramps), counting it like any other line; false at the end of
  // the file or when the line count overflows (a sequence error).
  bool readSectionLine(std::string& line) override { return readNextLine(line); }

  // The run events: every dispatched line, status, question and answer,
  // message, hold and the end. Subscribe from any thread.
  RunEventBus& runEvents() { return runEvents_; }
  // Publishes an event of a subsystem of the run (an output value, a UUT),
  // stamped with the clock.
  void publish(RunEvent event);
  // Hooks run after each dispatched line, with its line number (a front
  // end's limits on the run).
  void addLineHook(std::function<void(int16_t line)> hook) {
    lineHooks_.push_back(std::move(hook));
  }

  // Hooks run when a run starts, before its first line (after the restored
  // state of a resumed run is in place).
  void addRunStartHook(std::function<void()> hook) { runStartHooks_.push_back(std::move(hook)); }

  // Hooks run by stop() (timers of long commands to switch off).
  void addStopHook(std::function<void()> hook) { stopHooks_.push_back(std::move(hook)); }

  // Hooks run once when a run ends, whatever ended it (end of file, STOP, a
  // sequence error, stop()), after the last line and before the
  // end reason is settled: a hook may still report a sequence error.
  void addRunEndHook(std::function<void()> hook) { runEndHooks_.push_back(std::move(hook)); }

  // Checks the run loop makes before it reads a line of the file (alarm
  // definitions): a check may give a command, which is dispatched as the
  // next command; the file's next line follows it, before the checks run
  // again.
  using BetweenLinesCheck = std::function<std::optional<std::string>(Sequencer&)>;
  void addBetweenLinesCheck(BetweenLinesCheck check) { betweenLines_.push_back(std::move(check)); }

  // The run status ("Ready", "Running", "Stopped").
  const std::string& runStatus() const override { return currentStatus_; }

  EndReason endReason() const { return endReason_; }
  // The text of the last sequence error reported, if any.
  const std::string& lastSequenceError() const { return lastError_; }

  // --- The run state kept in a checkpoint ------------------------------------
  // A subsystem with state of its own that a resumed run needs adds a part:
  // `save` fills the part's object, `restore` takes it back (false, with a
  // message, when the part cannot be used).
  using StateSave = std::function<void(nlohmann::json& part)>;
  using StateRestore = std::function<bool(const nlohmann::json& part, std::string* error)>;
  void addStatePart(std::string name, StateSave save, StateRestore restore);
  // Where the run is and what it has counted, with every part. A run that
  // goes on from it carries on after the last line that ended, or runs the
  // line in progress again when that line may be run again (see below).
  void saveRunState(nlohmann::json& state) const;
  // Takes a saved state back into the prepared file; the next
  // startResumed() goes on from it. False, with a message, when the state
  // does not fit (a part that cannot be restored, a file that cannot be
  // read).
  bool restoreRunState(const nlohmann::json& state, std::string* error);
  // Runs the prepared file from the state restored last, and returns when
  // the run ends.
  void startResumed();

  // Whether a state saved now can be gone on from: between two lines of the
  // file, inside a timed wait of a line that is run again with the time it
  // had left, or in a line that has said it may be run again.
  bool atResumableMoment() const {
    return !lineInProgress_ || (lineFromFile_ && (inTimedWait_ || lineRerunnable_));
  }
  // A timed wait of the line in progress started and is due at `due`; the
  // wait hooks run. leaveTimedWait() when it is over.
  void enterTimedWait(Micros due);
  void leaveTimedWait() { inTimedWait_ = false; }
  void addWaitHook(std::function<void()> hook) { waitHooks_.push_back(std::move(hook)); }
  // The line in progress may be run again from here on (its work so far
  // leaves nothing that running it again would repeat).
  void markLineRerunnable() { lineRerunnable_ = lineInProgress_; }
  // For the timed wait of the first line of a resumed run: the time it had
  // left, once.
  std::optional<Micros> takeResumedWaitLeft() {
    auto left = resumedWaitLeft_;
    resumedWaitLeft_.reset();
    return left;
  }
  // A command of the line in progress that runs for a while (a ramp, a sine
  // output, a pulse, a load maintenance) and can go on from where it is
  // says so while it lives: a checkpoint taken in one of its timed waits
  // keeps what `save` returns, and the run that goes on from it runs the
  // line again and hands that back to the command (takeResumedProgress).
  // An empty function: the command is over.
  void setLineProgress(std::function<nlohmann::json()> save) { lineProgress_ = std::move(save); }
  // A command did what a run that goes on must not do again (it took a
  // number from an index file): a checkpoint is wanted at the end of its
  // line, whatever the limits on how often they are taken.
  void wantCheckpoint() { checkpointWanted_ = true; }
  bool takeCheckpointWanted() { return std::exchange(checkpointWanted_, false); }
  // For the command of the first line of a resumed run: what its progress
  // was at the checkpoint, once; null when it starts afresh.
  std::unique_ptr<nlohmann::json> takeResumedProgress();

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
  void dispatchLine(std::string& line, bool fromFile = false);
  // Carries out the restored state at the start of a resumed run.
  bool applyResumeState(std::string* error);
  // Dispatches the command of the first check that gives one; false if none.
  bool runBetweenLinesChecks();
  bool readNextLine(std::string& line);
  void setStatus(std::string_view status);
  void publish(RunEventKind kind, std::string text = {});
  // Whether anyone hears the line and command display events: the trace
  // writes them, or a front end listens besides it.
  bool linesHeard() const { return trace_.enabled() || runEvents_.subscribers() > 1; }
  void secondsTick();
  // Writes the run events that the trace records.
  void traceEvent(const RunEvent& event);

  EventLoop& events_;
  Operator& operator_;
  Trace& trace_;
  FileSystem& files_;
  const PathMap& paths_;
  Dispatcher dispatcher_;
  RunFlags flags_;
  // What released the last hold ("step", "skip", "resume", "stop").
  std::string releasedBy_;
  // The hold waits for someone outside: a pause came from a front end.
  bool pausedFromOutside_ = false;
  // Why the next hold holds ("pause", "break"; empty: stepping) and the
  // breakpoint that asked for it.
  std::string holdReason_;
  int64_t holdBreakpoint_ = 0;
  RunEventBus runEvents_;
  RunEventBus::Subscription traceWriter_;
  SequenceFile file_;
  std::string fileName_;
  std::string preparedName_;
  int16_t lineNumber_ = 0;
  std::vector<DefineEntry> defines_;
  std::optional<Micros> deadline_;
  int32_t timeoutSeconds_ = 0;
  Timer secondsTimer_;
  std::vector<std::function<void()>> prepareHooks_;
  std::vector<std::function<void()>> stopHooks_;
  std::vector<std::function<void()>> runEndHooks_;
  std::vector<std::function<void()>> runStartHooks_;
  std::vector<std::function<void(int16_t)>> lineHooks_;
  std::vector<BetweenLinesCheck> betweenLines_;
  std::string currentStatus_;
  EndReason endReason_ = EndReason::kNone;
  std::string lastError_;
  bool errorDisplayOff_ = false;
  ExamineDefines onExamineDefines_;
  ExecuteDefine onExecuteDefine_;
  SpendTimeout onTimeoutFired_;
  std::string jumpTarget_;
  bool jumpTargetIsDefine_ = false;
  int32_t loopCount_ = 0;

  struct StatePart {
    std::string name;
    StateSave save;
    StateRestore restore;
  };
  std::vector<StatePart> stateParts_;
  std::vector<std::function<void()>> waitHooks_;
  bool lineInProgress_ = false;
  bool lineFromFile_ = false;
  bool inTimedWait_ = false;
  bool lineRerunnable_ = false;
  std::optional<Micros> timedWaitDue_;
  // The restored state the next startResumed() goes on from.
  std::unique_ptr<nlohmann::json> resumeState_;
  std::optional<Micros> resumedWaitLeft_;
  std::unique_ptr<nlohmann::json> resumedProgress_;
  std::function<nlohmann::json()> lineProgress_;
  bool checkpointWanted_ = false;
  bool resumeInsideLine_ = false;
  // The number of the line in progress (a block command reads on past it).
  int16_t lineStart_ = 0;
  // Last, so that they go first: the handlers and hooks above refer to them.
  std::vector<std::unique_ptr<CommandFamily>> families_;
};

}  // namespace tavrix
