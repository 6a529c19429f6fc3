// Dates and times of day as the sequencer sees them: local civil time without
// a time zone, counted in microseconds from 1970-01-01 00:00:00.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix {

using Micros = int64_t;
constexpr Micros kMicrosPerSecond = 1'000'000;
constexpr Micros kMicrosPerDay = 86'400 * kMicrosPerSecond;

struct CivilTime {
  int year = 1970;
  int month = 1;  // 1..12
  int day = 1;    // 1..31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int micros = 0;
};

CivilTime toCivil(Micros t);
Micros fromCivil(const CivilTime& c);

// Seconds since the midnight before t, with fractions.
double secondsSinceMidnight(Micros t);

// Parses "YYYY-MM-DD HH:MM:SS" (the seconds may be left off).
std::optional<Micros> parseDateTime(std::string_view text);

// "YYYY-MM-DD HH:MM:SS".
std::string isoDateTime(Micros t);

// Formats a date with one of the patterns "yymmdd", "yymm", "mmyy", "dd",
// "dd-mm-yyyy", "hhmmss" (letters are case-blind; other characters are kept).
std::string formatDate(Micros t, std::string_view pattern);

}  // namespace tavrix
