#include "common/checked_numbers.h"

#include <charconv>
#include <string>
#include <utility>

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

std::optional<uint64_t> parseByteSize(std::string_view text) {
  static const std::pair<std::string_view, uint64_t> kUnits[] = {
      {"kib", uint64_t{1} << 10},
      {"mib", uint64_t{1} << 20},
      {"gib", uint64_t{1} << 30},
      {"tib", uint64_t{1} << 40},
      {"kb", 1000},
      {"mb", 1000 * 1000},
      {"gb", 1000 * 1000 * 1000},
      {"tb", uint64_t{1000} * 1000 * 1000 * 1000},
      {"b", 1}};
  std::string lower;
  for (const char c : text) lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  std::string_view number = lower;
  uint64_t unit = 1;
  for (const auto& [suffix, size] : kUnits) {
    if (number.size() > suffix.size() && number.substr(number.size() - suffix.size()) == suffix) {
      number.remove_suffix(suffix.size());
      unit = size;
      break;
    }
  }
  while (!number.empty() && number.back() == ' ') number.remove_suffix(1);
  for (const char c : number)
    if (c < '0' || c > '9') return std::nullopt;
  const auto value = parseWholeNumber(number);
  if (!value || *value < 1 || static_cast<uint64_t>(*value) > UINT64_MAX / unit)
    return std::nullopt;
  return static_cast<uint64_t>(*value) * unit;
}

}  // namespace tavrix
