// Blocking reads and writes over the platform's non-blocking sockets, for
// the test programs' own clients and servers.
#pragma once

#include <string_view>
#include <vector>

#include "platform/sockets.h"

namespace tavrix::testing {

// Sends all of `text`, waiting while the other side reads no more; false
// when the connection broke.
inline bool SendAll(platform::Socket socket, std::string_view text) {
  while (!text.empty()) {
    const long n = platform::sendSome(socket, text.data(), text.size());
    if (n == platform::kBroken) return false;
    if (n == platform::kWouldBlock) {
      std::vector<platform::Watch> writable{{socket, false, true}};
      platform::waitSockets(writable, 1000);
      continue;
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

enum class Read { kByte, kClosed, kNothingYet };

// Reads one byte, waiting at most `waitMs` for it.
inline Read ReadByte(platform::Socket socket, char& c, int waitMs) {
  for (;;) {
    const long n = platform::receiveSome(socket, &c, 1);
    if (n == 1) return Read::kByte;
    if (n != platform::kWouldBlock) return Read::kClosed;
    std::vector<platform::Watch> readable{{socket, true, false}};
    if (platform::waitSockets(readable, waitMs) == 0) return Read::kNothingYet;
  }
}

}  // namespace tavrix::testing
