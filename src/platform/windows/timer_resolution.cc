#include "platform/timer_resolution.h"

#include <windows.h>
// After windows.h, which it needs.
#include <mmsystem.h>

namespace tavrix::platform {

FineTimerResolution::FineTimerResolution() : raised_(timeBeginPeriod(1) == TIMERR_NOERROR) {}

FineTimerResolution::~FineTimerResolution() {
  if (raised_) timeEndPeriod(1);
}

}  // namespace tavrix::platform
