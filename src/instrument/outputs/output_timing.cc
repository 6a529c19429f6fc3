#include "instrument/outputs/output_timing.h"

#include <cmath>
#include <condition_variable>
#include <mutex>

#include "instrument/link/link_library.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

constexpr Micros kTenth = kMicrosPerSecond / 10;

// Idles the engine thread until `due` without running any event.
void SleepWithoutEvents(Clock& clock, Micros due) {
  std::mutex mutex;
  std::condition_variable cv;
  std::unique_lock<std::mutex> lock(mutex);
  clock.idleUntil(
      due, cv, lock, [] { return false; }, false);
}

}  // namespace

Micros RoundedRemainingWait(Micros due, Micros now) {
  if (due <= now) return 0;
  return (due - now) / kTenth * kTenth;
}

Micros ScheduledInstant(Micros start, double interval, int64_t k) {
  return start + std::llround(static_cast<double>(k) * interval * kMicrosPerSecond);
}

bool OutputInterrupted(const RunContext& seq) { return seq.waitEnds(WaitRule::kRunEnding); }

bool OutputWait(RunContext& seq, Micros wait) {
  if (wait <= 0) return !OutputInterrupted(seq);
  bool due = false;
  Timer timer(seq.events(), wait, [&due] { due = true; });
  timer.setDue(seq.clock().now() + wait);
  if (!seq.waitUntil([&] { return due || OutputInterrupted(seq); },
                     [&] { seq.examineDefineTable(); })) {
    return false;
  }
  return due && !OutputInterrupted(seq);
}

void WaitMilliseconds(LinkLibrary& link, Clock& clock, int32_t start, int32_t length) {
  if (length < 1) return;
  for (;;) {
    // The counter is 32 bits wide and may wrap; the difference does not.
    const auto elapsed = static_cast<int32_t>(static_cast<uint32_t>(link.millisecondCount()) -
                                              static_cast<uint32_t>(start));
    if (elapsed >= length) return;
    const Micros remaining = static_cast<Micros>(length - elapsed) * 1000;
    if (clock.isVirtual()) {
      SleepWithoutEvents(clock, clock.now() + remaining);
    } else if (remaining > 1000) {
      // The counter's present millisecond has partly passed already, so
      // sleeping one millisecond short never oversleeps the end.
      SleepWithoutEvents(clock, clock.now() + remaining - 1000);
    }
  }
}

OutputProgress::OutputProgress(Sequencer& seq, std::string_view command,
                               std::function<nlohmann::json()> save)
    : seq_(seq) {
  if (const auto kept = seq.takeResumedProgress();
      kept && kept->is_object() && kept->value("command", std::string()) == command) {
    resumed_ = std::move(*kept);
    waitLeft_ = seq.takeResumedWaitLeft();
  }
  seq.setLineProgress([save = std::move(save), name = std::string(command)] {
    nlohmann::json progress = save();
    progress["command"] = name;
    return progress;
  });
}

OutputProgress::~OutputProgress() { seq_.setLineProgress(nullptr); }

bool OutputProgress::wait(Micros wait) {
  if (wait <= 0) return !OutputInterrupted(seq_);
  seq_.enterTimedWait(seq_.clock().now() + wait);
  const bool passed = OutputWait(seq_, wait);
  seq_.leaveTimedWait();
  return passed;
}

}  // namespace tavrix
