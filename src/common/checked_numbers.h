// The one door from a floating value to an integer, a count of microseconds
// or an index. A value that is not a number, or that does not fit the type,
// gives std::nullopt, and the caller takes its error path for a bad value:
// the conversion itself never overflows.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "common/civil_time.h"

namespace tavrix {

// The longest span of time the program computes with, about 146 000 years:
// a moment plus or minus such a span stays within a 64-bit count of
// microseconds.
inline constexpr Micros kLongestSpan = Micros{1} << 62;

// `value` truncated toward zero, when the result fits Int.
template <typename Int>
std::optional<Int> checkedInteger(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  const double whole = std::trunc(value);
  // 2 to the power of Int's value bits is exact in a double and is one
  // beyond Int's largest value; a signed Int's smallest value is its
  // negative.
  const double beyond = std::ldexp(1.0, std::numeric_limits<Int>::digits);
  const double lowest = std::numeric_limits<Int>::is_signed ? -beyond : 0.0;
  if (whole >= beyond || whole < lowest) return std::nullopt;
  return static_cast<Int>(whole);
}

// A span of `micros` microseconds (truncated), when it is within
// kLongestSpan either way.
inline std::optional<Micros> checkedMicros(double micros) {
  const auto span = checkedInteger<Micros>(micros);
  if (!span || *span > kLongestSpan || *span < -kLongestSpan) return std::nullopt;
  return span;
}

// An index into something of `size` elements.
inline std::optional<size_t> checkedIndex(double value, size_t size) {
  const auto index = checkedInteger<size_t>(value);
  if (!index || *index >= size) return std::nullopt;
  return index;
}

// A whole decimal number written with digits only (an optional leading
// '+' or '-'), when it fits int64_t.
std::optional<int64_t> parseWholeNumber(std::string_view text);

// A span of time written as a number and a unit: "90s", "30m", "48h", "7d"
// (a bare number is seconds; fractions are allowed: "1.5h"). std::nullopt
// for anything else, and for spans that are not positive or beyond
// kLongestSpan.
std::optional<Micros> parseDuration(std::string_view text);

// A size in bytes: a whole number with an optional unit, "64KiB", "500MiB",
// "1GiB", "200MB", "10kB", "4096" (case-blind; blanks between allowed).
// std::nullopt for anything else, for 0 and for sizes beyond 64 bits.
std::optional<uint64_t> parseByteSize(std::string_view text);

}  // namespace tavrix
