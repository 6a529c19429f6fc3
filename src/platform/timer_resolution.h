// While it lives, the system's timers wake a waiting thread to within about a
// millisecond. Windows otherwise ticks every 15.6 ms, too coarse for timed
// waits and ramp steps; POSIX systems need nothing.
#pragma once

#include <chrono>

namespace tavrix::platform {

// How long before a timed wait's end a waiting thread stops waiting on its
// condition variable and sleeps the rest with sleepPrecisely(): the C++
// runtime's timed waits on Windows end up to 2 ms late. Zero where they are
// precise.
std::chrono::microseconds coarseWaitMargin();
// Sleeps for `duration` as precisely as the system can (a high-resolution
// waitable timer on Windows).
void sleepPrecisely(std::chrono::microseconds duration);

class FineTimerResolution {
 public:
  FineTimerResolution();
  ~FineTimerResolution();
  FineTimerResolution(const FineTimerResolution&) = delete;
  FineTimerResolution& operator=(const FineTimerResolution&) = delete;

 private:
  bool raised_ = false;
};

}  // namespace tavrix::platform
