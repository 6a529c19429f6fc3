#include "platform/timer_resolution.h"

#include <thread>

namespace tavrix::platform {

std::chrono::microseconds coarseWaitMargin() { return std::chrono::microseconds(0); }

void sleepPrecisely(std::chrono::microseconds duration) { std::this_thread::sleep_for(duration); }

FineTimerResolution::FineTimerResolution() = default;
FineTimerResolution::~FineTimerResolution() = default;

}  // namespace tavrix::platform
