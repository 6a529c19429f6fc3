#include "platform/timer_resolution.h"

namespace tavrix::platform {

FineTimerResolution::FineTimerResolution() = default;
FineTimerResolution::~FineTimerResolution() = default;

}  // namespace tavrix::platform
