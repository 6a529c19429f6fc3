#include "sequencer/timed_wait.h"

#include <algorithm>

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

// The count-down in the display is refreshed once a second. On a virtual
// clock, where every refresh costs a turn of the loop and no one watches,
// a long wait refreshes once a minute, or once an hour, until its last
// minute.
constexpr Micros kDisplayInterval = kMicrosPerSecond;

Micros NextRefresh(const EventLoop& loop, Micros due) {
  const Micros now = loop.now();
  Micros step = kDisplayInterval;
  if (loop.clock().isVirtual()) {
    const Micros left = due - now;
    if (left > 3600 * kMicrosPerSecond) {
      step = 3600 * kMicrosPerSecond;
    } else if (left > 60 * kMicrosPerSecond) {
      step = 60 * kMicrosPerSecond;
    }
  }
  return std::min(now + step, due);
}

}  // namespace

bool WaitInterrupted(const RunContext& seq) { return seq.waitEnds(WaitRule::kInterrupted); }

bool WaitForInstant(RunContext& seq, Micros due, std::string_view display) {
  EventLoop& loop = seq.events();
  bool reached = loop.now() >= due;
  Timer timer(loop, kDisplayInterval, [&] {
    if (loop.now() >= due) {
      reached = true;
      return;
    }
    timer.setDue(NextRefresh(loop, due));
  });
  if (!reached) timer.setDue(NextRefresh(loop, due));
  const std::string prefix(display);
  seq.waitUntil([&] { return reached || WaitInterrupted(seq); },
                [&] {
                  seq.examineDefineTable();
                  const double left = static_cast<double>(due - loop.now()) / kMicrosPerSecond;
                  seq.showCurrentCommand(prefix + " " + formatNumber(std::max(left, 0.0), "#0"));
                });
  return reached && !WaitInterrupted(seq);
}

bool PollUntil(RunContext& seq, Micros interval, const std::function<PollResult()>& check) {
  PollResult result = check();
  if (result != PollResult::kWaiting) return result == PollResult::kMet;
  Timer timer(seq.events(), interval, [&] {
    if (result == PollResult::kWaiting && !WaitInterrupted(seq)) result = check();
  });
  timer.setEnabled(true);
  seq.waitUntil(
      [&] { return result != PollResult::kWaiting || seq.waitEnds(WaitRule::kRunEnding); },
      [&] { seq.examineDefineTable(); });
  return result == PollResult::kMet;
}

}  // namespace tavrix
