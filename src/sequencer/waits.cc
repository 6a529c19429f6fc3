// WAITSECONDS with its delay timer, STARTTIMECOUNT and AFTERTIMECOUNT.
//
// The delay timer ticks once a second on the real clock, to refresh the
// count-down shown in the command display, and once more just after the
// wait's due instant, so a wait ends on time without the engine waking more
// often than that. On a virtual clock it ticks at the due instant only.

#include "sequencer/waits.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr Micros kDelayTimerInterval = kMicrosPerSecond;
// Longer waits are held for this long: a century is forever for a test rig,
// and the clock's arithmetic stays in range.
constexpr double kLongestWaitSeconds = 100.0 * 366 * 86400;

// The family keeps the delay timer and the time count.
struct WaitFamily final : CommandFamily {
  explicit WaitFamily(EventLoop& loop)
      : delayTimer(loop, kDelayTimerInterval, [this] { delayTick(); }) {}

  // The delay timer's tick: the wait ends once its length has passed; a
  // start before midnight is moved back a day. The timer is armed for the
  // due instant itself, so the wait ends exactly then rather than one timer
  // interval later.
  void delayTick() {
    const Micros now = delayTimer.loop().now();
    const double present = secondsSinceMidnight(now);
    if (present < waitStart) waitStart -= 86400;
    if (present - waitStart >= waitLength || now >= due) {
      delayRunning = false;
      delayTimer.setEnabled(false);
      return;
    }
    armDelayTimer(now);
  }

  // On a virtual clock nobody watches the count-down, so the timer is armed
  // for the due instant itself: the clock jumps there in one step, and a
  // year's wait costs one tick instead of one a second.
  void armDelayTimer(Micros now) {
    if (due == Clock::kNever) {
      delayTimer.setEnabled(false);
    } else if (delayTimer.loop().clock().isVirtual()) {
      delayTimer.setDue(due);
    } else {
      delayTimer.setDue(std::min(now + kDelayTimerInterval, due));
    }
  }

  Timer delayTimer;
  double waitStart = 0;   // seconds since midnight
  double waitLength = 0;  // seconds
  Micros due = 0;         // the instant at which the wait is over
  bool delayRunning = false;
  Micros timeCountStart = 0;  // 0 when no count is running
};

struct WaitSecondsCommand {
  double seconds = 0;
};

Parsed<WaitSecondsCommand> ParseWaitSeconds(const CommandLine& cmd) {
  const double seconds = leadingNumber(cmd.arg1);
  if (!(seconds > 0))
    return ParseFailure{"Invalid parameter - " + cmd.arg1 + " - for a WaitSeconds statement"};
  return WaitSecondsCommand{seconds};
}

void WaitSeconds(WaitFamily& state, Sequencer& seq, const WaitSecondsCommand& cmd) {
  const Micros start = seq.clock().now();
  state.waitStart = secondsSinceMidnight(start);
  state.waitLength = cmd.seconds;
  // A run that goes on inside this wait waits only for the time it had left.
  if (const auto left = seq.takeResumedWaitLeft())
    state.waitLength = static_cast<double>(*left) / kMicrosPerSecond;
  const bool secondsTimerWasOn = seq.secondsTimerEnabled();
  if (secondsTimerWasOn) seq.setSecondsTimerEnabled(false);

  // The wait length is a single-precision number: beyond its range it is
  // infinite, and the wait has no due instant at all (only Stop, a jump or
  // the timeout end it). Finite lengths beyond a century are held for one.
  if (state.waitLength > std::numeric_limits<float>::max()) {
    state.due = Clock::kNever;
  } else {
    const double length = std::min(state.waitLength, kLongestWaitSeconds);
    state.due = start + static_cast<Micros>(std::ceil(length * kMicrosPerSecond));
  }
  state.armDelayTimer(start);
  state.delayRunning = true;
  seq.enterTimedWait(state.due);
  seq.waitUntil(
      [&] { return !state.delayRunning || seq.waitEnds(WaitRule::kJumpOrTimeout); },
      [&] {
        seq.examineDefineTable();
        const double passed = static_cast<double>(seq.clock().now() - start) / kMicrosPerSecond;
        seq.showCurrentCommand("waitseconds " + formatNumber(state.waitLength - passed, "#0.00"));
      });
  seq.leaveTimedWait();
  state.delayRunning = false;
  state.delayTimer.setEnabled(false);
  if (secondsTimerWasOn) seq.setSecondsTimerEnabled(true);
}

void StartTimeCount(WaitFamily& state, Sequencer& seq, const CommandLine&) {
  state.timeCountStart = seq.clock().now();
}

// AFTERTIMECOUNT number, units, label. The run checks first that a count
// is running, and only then the units and the number.
struct AfterTimeCountCommand {
  double number = 0;
  int64_t unit = 1;  // seconds
  std::string label;
  std::optional<std::string> lateError;
};

Parsed<AfterTimeCountCommand> ParseAfterTimeCount(const CommandLine& cmd) {
  AfterTimeCountCommand count;
  count.label = cmd.arg3;
  const std::string units = upperCase(cmd.arg2);
  if (units == "SECONDS") {
    count.unit = 1;
  } else if (units == "MINUTES") {
    count.unit = 60;
  } else if (units == "HOURS") {
    count.unit = 3600;
  } else if (units == "DAYS") {
    count.unit = 86400;
  } else {
    count.lateError = "AfterTimeCount - unrecognised units: " + cmd.arg2;
    return count;
  }
  count.number = leadingNumber(cmd.arg1);
  if (!(count.number > 0))
    count.lateError = "AfterTimeCount - invalid number of units: " + cmd.arg1;
  return count;
}

void AfterTimeCount(WaitFamily& state, Sequencer& seq, const AfterTimeCountCommand& cmd) {
  if (state.timeCountStart == 0) {
    seq.reportSequenceError("AfterTimeCount - a StartTimeCount command has not been executed");
    return;
  }
  if (cmd.lateError) {
    seq.reportSequenceError(*cmd.lateError);
    return;
  }
  const int64_t elapsed = (seq.clock().now() - state.timeCountStart) / kMicrosPerSecond;
  if (static_cast<double>(elapsed / cmd.unit) >= cmd.number) {
    state.timeCountStart = 0;
    seq.searchLabel(cmd.label);
  }
}

constexpr std::string_view kFamily = "src/sequencer/waits.cc";
const Keyword<WaitSecondsCommand> kWaitSeconds{"WAITSECONDS", kFamily, ParseWaitSeconds};
const Keyword<CommandLine> kStartTimeCount{"STARTTIMECOUNT", kFamily, AsWritten};
const Keyword<AfterTimeCountCommand> kAfterTimeCount{"AFTERTIMECOUNT", kFamily,
                                                     ParseAfterTimeCount};

const FamilyTable<WaitFamily>& WaitTable() {
  static const FamilyTable<WaitFamily> table{Handles(kWaitSeconds, WaitSeconds),
                                             Handles(kStartTimeCount, StartTimeCount),
                                             Handles(kAfterTimeCount, AfterTimeCount)};
  return table;
}

}  // namespace

std::vector<KeywordEntry> WaitKeywords() { return EntriesOf(WaitTable()); }

void RegisterWaitCommands(Sequencer& seq) {
  WaitFamily* state = &seq.addFamily(std::make_unique<WaitFamily>(seq.events()));
  BindAll(seq.dispatcher(), *state, WaitTable());
  seq.addPrepareHook([state] { state->timeCountStart = 0; });
  seq.addStopHook([state] { state->delayTimer.setEnabled(false); });
  // The time count goes on across a resume: the time the program was down
  // counts, as it does for a count that ran on.
  seq.addStatePart(
      "waits", [state](nlohmann::json& part) { part["timeCountStart"] = state->timeCountStart; },
      [state](const nlohmann::json& part, std::string*) {
        state->timeCountStart = part.value("timeCountStart", Micros{0});
        return true;
      });
}

}  // namespace tavrix
