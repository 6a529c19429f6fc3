#include "platform/timer_resolution.h"

#include <mmsystem.h>
#include <windows.h>

namespace tavrix::platform {

FineTimerResolution::FineTimerResolution() : raised_(timeBeginPeriod(1) == TIMERR_NOERROR) {}

FineTimerResolution::~FineTimerResolution() {
  if (raised_) timeEndPeriod(1);
}

}  // namespace tavrix::platform
