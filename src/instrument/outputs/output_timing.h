// The timing that the output commands share: the schedule of ramp steps and
// sine points with its tenth-of-a-second rounding, the timed wait between
// them, and the millisecond wait of a pulse.
#pragma once

#include <cstdint>

#include "common/clock.h"

namespace tavrix {

class LinkLibrary;
class RunContext;

// The wait before an output's next write that is due at `due`: the whole
// number of tenths of a second from `now` to `due`, rounded down, or 0 when
// that is less than one tenth (the write then goes on at once).
Micros RoundedRemainingWait(Micros due, Micros now);

// The instant of step `k` of a schedule that starts at `start` with steps
// `interval` seconds apart. Steps are counted from the start, so a late step
// does not delay the ones after it. The schedule runs on the run's clock,
// which counts on through midnight, so the spacing holds across midnight.
Micros ScheduledInstant(Micros start, double interval, int64_t k);

// Waits `wait` through the event loop, as WAITSECONDS does: events run, the
// define table is examined at every turn, and the wait ends early when a
// jump or a timeout action becomes pending or Stop is pressed. Returns true
// when the whole wait passed, false when the run needs the command to end.
bool OutputWait(RunContext& seq, Micros wait);

// True when the command in progress must end (Stop, a jump or a timeout
// action is pending, or the run is ending).
bool OutputInterrupted(const RunContext& seq);

// Holds the engine until the link library's millisecond counter has moved at
// least `length` milliseconds past `start`, without letting events run: the
// engine thread sleeps for the bulk of the wait and polls the counter only
// for its last millisecond. Returns at once when `length` is less than 1. On
// a virtual clock the clock is moved on instead.
void WaitMilliseconds(LinkLibrary& link, Clock& clock, int32_t start, int32_t length);

}  // namespace tavrix
