// IPv4 addresses as text: the same on every system.
#include <cstdint>
#include <optional>
#include <string>

#include "platform/sockets.h"

namespace tavrix::platform {
namespace {

// The address of dotted-decimal text: four numbers of 0 to 255, no leading
// zeros, nothing else.
std::optional<uint32_t> parseIpv4(const std::string& text) {
  uint32_t address = 0;
  size_t at = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0 && (at >= text.size() || text[at++] != '.')) return std::nullopt;
    const size_t start = at;
    uint32_t value = 0;
    while (at < text.size() && at - start < 3 && text[at] >= '0' && text[at] <= '9') {
      value = value * 10 + static_cast<uint32_t>(text[at++] - '0');
    }
    const size_t digits = at - start;
    if (digits == 0 || value > 255 || (digits > 1 && text[start] == '0')) return std::nullopt;
    address = address << 8 | value;
  }
  if (at != text.size()) return std::nullopt;
  return address;
}

}  // namespace

bool isIpv4Address(const std::string& host) { return parseIpv4(host).has_value(); }

bool isLoopbackAddress(const std::string& host) {
  const auto address = parseIpv4(host);
  return address && (*address >> 24) == 127;
}

std::string peerText(uint32_t address, uint16_t port) {
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xff) + "." +
         std::to_string(address >> 8 & 0xff) + "." + std::to_string(address & 0xff) + ":" +
         std::to_string(port);
}

}  // namespace tavrix::platform
