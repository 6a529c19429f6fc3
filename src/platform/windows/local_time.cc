#include "platform/local_time.h"

#include <ctime>

namespace tavrix::platform {

// The local broken-down time read back as if it were UTC differs from the
// instant by the zone's offset at that instant.
int64_t localOffsetSeconds(int64_t utcSeconds) {
  const __time64_t secs = utcSeconds;
  std::tm local{};
  if (_localtime64_s(&local, &secs) != 0) return 0;
  return static_cast<int64_t>(_mkgmtime64(&local)) - utcSeconds;
}

}  // namespace tavrix::platform
