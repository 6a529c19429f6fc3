#include "common/checked_numbers.h"

#include <charconv>
#include <string>

namespace tavrix {

std::optional<int64_t> parseWholeNumber(std::string_view text) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty() || text.front() == '+') return std::nullopt;
  int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<Micros> parseDuration(std::string_view text) {
  double unit = kMicrosPerSecond;
  if (!text.empty()) {
    switch (text.back()) {
      case 's':
        unit = kMicrosPerSecond;
        break;
      case 'm':
        unit = 60.0 * kMicrosPerSecond;
        break;
      case 'h':
        unit = 3600.0 * kMicrosPerSecond;
        break;
      case 'd':
        unit = 86400.0 * kMicrosPerSecond;
        break;
      default:
        unit = 0;
        break;
    }
    if (unit != 0) text.remove_suffix(1);
  }
  if (unit == 0) unit = kMicrosPerSecond;
  if (text.empty() || !((text.front() >= '0' && text.front() <= '9') || text.front() == '.')) {
    return std::nullopt;
  }
  double number = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  const auto span = checkedMicros(number * unit);
  if (!span || *span <= 0) return std::nullopt;
  return span;
}

}  // namespace tavrix
