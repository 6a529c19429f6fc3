// The waits shared by the wait commands other than WAITSECONDS: they hold
// the run until an instant or a condition, sleep on the event loop, examine
// the define table at every turn, and end early when Stop, a jump or the
// sequence time-out becomes pending. The seconds timer keeps counting, so
// the sequence time-out can end them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/civil_time.h"

namespace tavrix {

class RunContext;

// Whether a wait should end: its condition was met, it failed (the failure
// has been reported), or it goes on.
enum class PollResult { kMet, kFailed, kWaiting };

// Holds the run until `due`. `display` is shown in the current command
// display followed by the remaining seconds. True when the instant came,
// false when the wait was cut short.
bool WaitForInstant(RunContext& seq, Micros due, std::string_view display);

// Calls `check` at once and then every `interval` until it answers kMet or
// kFailed. True when the condition was met; false when it failed or the
// wait was cut short.
bool PollUntil(RunContext& seq, Micros interval, const std::function<PollResult()>& check);

// True when Stop, a jump or a time-out action is pending.
bool WaitInterrupted(const RunContext& seq);

}  // namespace tavrix
