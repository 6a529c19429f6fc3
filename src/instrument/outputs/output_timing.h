// The timing that the output commands share: the schedule of ramp steps and
// sine points with its tenth-of-a-second rounding, the timed wait between
// them, and the millisecond wait of a pulse.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>

#include "common/clock.h"

namespace tavrix {

class LinkLibrary;
class RunContext;
class Sequencer;

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

// An output command that runs for a while and can go on from where it was
// after the program ended abruptly. While it lives, a checkpoint taken in
// one of its waits runs the line again on resume and keeps what `save`
// returns (tagged with the command's name); the command of that line, run
// again, finds it in resumed() and goes on from it on the same schedule,
// shifted by the time the program was down.
class OutputProgress {
 public:
  OutputProgress(Sequencer& seq, std::string_view command, std::function<nlohmann::json()> save);
  ~OutputProgress();
  OutputProgress(const OutputProgress&) = delete;
  OutputProgress& operator=(const OutputProgress&) = delete;

  // What the checkpoint the run went on from kept of this command; null
  // when the command starts afresh (or what was kept is not this command's).
  const nlohmann::json& resumed() const { return resumed_; }
  // The time the interrupted wait had left at the checkpoint, once.
  std::optional<Micros> takeWaitLeft() { return std::exchange(waitLeft_, std::nullopt); }
  // Waits as OutputWait does; a checkpoint may be taken meanwhile.
  bool wait(Micros wait);

 private:
  Sequencer& seq_;
  nlohmann::json resumed_;
  std::optional<Micros> waitLeft_;
};

}  // namespace tavrix
