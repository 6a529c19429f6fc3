// Where the tests' virtual clocks start, unless a test needs another day.
#pragma once

#include "common/civil_time.h"

namespace tavrix {

inline constexpr Micros kTestStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

}  // namespace tavrix
