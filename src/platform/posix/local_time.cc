#include "platform/local_time.h"

#include <ctime>

namespace tavrix::platform {

int64_t localOffsetSeconds(int64_t utcSeconds) {
  const std::time_t secs = static_cast<std::time_t>(utcSeconds);
  std::tm local{};
  localtime_r(&secs, &local);
  return local.tm_gmtoff;
}

}  // namespace tavrix::platform
