#include "common/clock.h"

#include "platform/local_time.h"
#include "platform/timer_resolution.h"

namespace tavrix {

namespace {

// Local civil time now, from the machine's wall clock and time zone.
Micros localWallNow() {
  const auto sys = std::chrono::system_clock::now();
  const auto us =
      std::chrono::duration_cast<std::chrono::microseconds>(sys.time_since_epoch()).count();
  return us + platform::localOffsetSeconds(us / kMicrosPerSecond) * kMicrosPerSecond;
}

}  // namespace

SystemClock::SystemClock()
    : anchor_(localWallNow()), steadyAnchor_(std::chrono::steady_clock::now()) {}

Micros SystemClock::now() const {
  const auto since = std::chrono::steady_clock::now() - steadyAnchor_;
  return anchor_ + std::chrono::duration_cast<std::chrono::microseconds>(since).count();
}

bool SystemClock::idleUntil(Micros due, std::condition_variable& cv,
                            std::unique_lock<std::mutex>& lock, const std::function<bool()>& woken,
                            bool /*outsideMayWake*/) {
  if (due == kNever) {
    cv.wait(lock, woken);
    return true;
  }
  const auto deadline = steadyAnchor_ + std::chrono::microseconds(due - anchor_);
  const auto margin = platform::coarseWaitMargin();
  if (margin.count() == 0) {
    cv.wait_until(lock, deadline, woken);
    return true;
  }
  // Where the system's timed waits end late, the last stretch is slept
  // precisely; a wake-up in that stretch waits for its end.
  if (cv.wait_until(lock, deadline - margin, woken)) return true;
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
      deadline - std::chrono::steady_clock::now());
  if (left.count() > 0) {
    lock.unlock();
    platform::sleepPrecisely(left);
    lock.lock();
  }
  return true;
}

VirtualClock::VirtualClock(Micros start) : now_(start) {}

void VirtualClock::advanceTo(Micros t) {
  Micros current = now_.load();
  while (t > current && !now_.compare_exchange_weak(current, t)) {
  }
}

bool VirtualClock::idleUntil(Micros due, std::condition_variable& cv,
                             std::unique_lock<std::mutex>& lock, const std::function<bool()>& woken,
                             bool outsideMayWake) {
  if (woken()) return true;
  if (outsideMayWake) {
    // A person may answer at any moment: sleep for real until they do. Timers
    // that fall due meanwhile keep their virtual instants.
    cv.wait(lock, woken);
    return true;
  }
  if (due == kNever) return false;
  advanceTo(due);
  return true;
}

}  // namespace tavrix
