// What a command handler may touch of the run while it executes its line:
// report a sequence error, show and ask the operator, wait on the event
// loop until something happens or the run says the wait ends, jump to a
// label, and reach the clock, the files, the drive map and the trace. The
// run engine (Sequencer) is the one implementation; a handler that takes a
// RunContext& shows at a glance that it touches nothing else. Registering a
// family (binding keywords, adding hooks) still takes the Sequencer.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "sequencer/operator.h"

namespace tavrix {

// When a wait ends early, in the variants that waits really differ by. Every
// variant ends on a pending jump or a pending time-out action.
enum class WaitRule {
  // Only then: WAITSECONDS, whose delay timer stop() switches off, and the
  // top of a channel poll.
  kJumpOrTimeout,
  // Also on Stop: the timed waits (WAITRANDOM, WAITTIMEOFDAY, WAITDATETIME,
  // MANUALADJUST between questions).
  kInterrupted,
  // Also when the run ends after the current line: outputs in progress,
  // file and streamer polls, and the alarm waits.
  kRunEnding,
  // Also once the sequence time-out has run out: the sleep between two
  // readings of a channel or alarm poll, which then takes the time-out's
  // action itself.
  kPollSleep,
};

class RunContext {
 public:
  virtual ~RunContext() = default;

  // --- Reporting and asking ------------------------------------------------
  // The sequence error report: a message, then the run ends after this line.
  virtual void reportSequenceError(std::string_view text) = 0;
  // A message the operator acknowledges, after which work goes on.
  virtual void showMessage(std::string_view text) = 0;
  // Shows a text in the current command display (a wait's count-down).
  virtual void showCurrentCommand(std::string_view text) = 0;
  // Asks the operator and waits for the answer, keeping the engine alive;
  // when no answer can come, reports that as a sequence error and gives
  // std::nullopt. The second form closes the question itself, as if
  // `closedAs` had been answered, as soon as `closeNow()` is true.
  virtual Answer ask(const Question& question) = 0;
  virtual Answer ask(const Question& question, const std::function<bool()>& closeNow,
                     std::string_view closedAs) = 0;
  // Before `question` is asked again because of its last answer: false,
  // with a sequence error, when the same answer would only come again.
  virtual bool mayAskAgain(const Question& question, std::string_view why) = 0;
  // The rest of what commands show and ask (help text, channel displays).
  virtual Operator& operatorPort() = 0;

  // --- Waiting ---------------------------------------------------------------
  // Whether a wait of the given kind ends now.
  virtual bool waitEnds(WaitRule rule) const = 0;
  // Lets events run until `done()`; false, with a sequence error, when the
  // wait can never end.
  virtual bool waitUntil(const std::function<bool()>& done,
                         const std::function<void()>& eachTurn = {}) = 0;
  virtual void processPendingEvents() = 0;
  // Examines the define table, as the waits do at every turn.
  virtual void examineDefineTable() = 0;
  // The time-out's action taken at once (WAIT and the alarm waits); false
  // when no time-out was armed.
  virtual bool takeTimeoutActionNow() = 0;

  // --- The run state, to look at -----------------------------------------------
  virtual bool stopRequested() const = 0;
  virtual bool endRequested() const = 0;
  virtual bool runEnding() const = 0;
  virtual bool timeoutExpired() const = 0;
  virtual const std::string& runStatus() const = 0;

  // --- Moving in the file ------------------------------------------------------
  // Searches the label as GOTO does; false, with "Label X: does not exist",
  // when there is none.
  virtual bool searchLabel(std::string_view label) = 0;
  // Reads the next line of a section the handler reads itself.
  virtual bool readSectionLine(std::string& line) = 0;

  // --- The run's world ---------------------------------------------------------
  virtual Clock& clock() = 0;
  virtual EventLoop& events() = 0;
  virtual FileSystem& files() = 0;
  virtual const PathMap& paths() const = 0;
  virtual Trace& trace() = 0;
};

}  // namespace tavrix
