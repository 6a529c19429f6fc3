// While it lives, the system's timers wake a waiting thread to within about a
// millisecond. Windows otherwise ticks every 15.6 ms, too coarse for timed
// waits and ramp steps; POSIX systems need nothing.
#pragma once

namespace tavrix::platform {

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
