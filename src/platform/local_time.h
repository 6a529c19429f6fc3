// The machine's time zone.
#pragma once

#include <cstdint>

namespace tavrix::platform {

// How far local civil time is ahead of UTC at `utcSeconds` (seconds since
// 1970), summer time included.
int64_t localOffsetSeconds(int64_t utcSeconds);

}  // namespace tavrix::platform
