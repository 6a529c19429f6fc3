#include "common/civil_time.h"

#include <cctype>
#include <cstdio>

namespace tavrix {

namespace {

// Days from 1970-01-01 to a proleptic Gregorian date.
int64_t daysFromCivil(int y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civilFromDays(int64_t z, int& y, int& m, int& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = static_cast<int>(yoe + era * 400 + (m <= 2));
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

std::string twoDigits(int v) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%02d", v % 100);
  return buf;
}

}  // namespace

CivilTime toCivil(Micros t) {
  const int64_t days = floorDiv(t, kMicrosPerDay);
  Micros rest = t - days * kMicrosPerDay;
  CivilTime c;
  civilFromDays(days, c.year, c.month, c.day);
  c.hour = static_cast<int>(rest / (3600 * kMicrosPerSecond));
  rest %= 3600 * kMicrosPerSecond;
  c.minute = static_cast<int>(rest / (60 * kMicrosPerSecond));
  rest %= 60 * kMicrosPerSecond;
  c.second = static_cast<int>(rest / kMicrosPerSecond);
  c.micros = static_cast<int>(rest % kMicrosPerSecond);
  return c;
}

Micros fromCivil(const CivilTime& c) {
  return daysFromCivil(c.year, c.month, c.day) * kMicrosPerDay +
         ((c.hour * 60 + c.minute) * 60LL + c.second) * kMicrosPerSecond + c.micros;
}

double secondsSinceMidnight(Micros t) {
  const int64_t days = floorDiv(t, kMicrosPerDay);
  return static_cast<double>(t - days * kMicrosPerDay) / kMicrosPerSecond;
}

std::optional<Micros> parseDateTime(std::string_view text) {
  // Strict: every character must belong to the pattern, so "10:20x" or a
  // missing field is refused rather than read in part.
  size_t i = 0;
  auto number = [&](size_t maxDigits, int& out) {
    const size_t start = i;
    out = 0;
    while (i < text.size() && i - start < maxDigits && text[i] >= '0' && text[i] <= '9') {
      out = out * 10 + (text[i++] - '0');
    }
    return i > start;
  };
  auto literal = [&](char c) {
    if (i >= text.size() || text[i] != c) return false;
    ++i;
    return true;
  };
  while (i < text.size() && text[i] == ' ') ++i;
  CivilTime c;
  if (!number(4, c.year) || !literal('-') || !number(2, c.month) || !literal('-') ||
      !number(2, c.day) || !literal(' ') || !number(2, c.hour) || !literal(':') ||
      !number(2, c.minute)) {
    return std::nullopt;
  }
  if (literal(':') && !number(2, c.second)) return std::nullopt;
  while (i < text.size() && text[i] == ' ') ++i;
  if (i != text.size()) return std::nullopt;
  if (c.month < 1 || c.month > 12 || c.day < 1 || c.day > 31 || c.hour > 23 || c.minute > 59 ||
      c.second > 59 || c.year < 1) {
    return std::nullopt;
  }
  const Micros t = fromCivil(c);
  const CivilTime back = toCivil(t);
  if (back.day != c.day) return std::nullopt;  // 31 April and the like
  return t;
}

std::string isoDateTime(Micros t) {
  const CivilTime c = toCivil(t);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", c.year, c.month, c.day, c.hour,
                c.minute, c.second);
  return buf;
}

std::string formatDate(Micros t, std::string_view pattern) {
  const CivilTime c = toCivil(t);
  std::string out;
  std::string p;
  for (char ch : pattern) p += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  size_t i = 0;
  auto starts = [&](std::string_view token) { return p.compare(i, token.size(), token) == 0; };
  // "mm" means minutes after an hour or before seconds, with any separators
  // between ("hhmm", "hh:mm", "mm:ss"), and the month otherwise.
  bool afterHour = false;
  auto beforeSeconds = [&] {
    size_t j = i + 2;
    while (j < p.size() && !std::isalpha(static_cast<unsigned char>(p[j]))) ++j;
    return p.compare(j, 2, "ss") == 0;
  };
  while (i < p.size()) {
    const bool hourBefore = afterHour;
    if (std::isalpha(static_cast<unsigned char>(p[i]))) afterHour = starts("hh");
    if (starts("yyyy")) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "%04d", c.year);
      out += buf;
      i += 4;
    } else if (starts("yy")) {
      out += twoDigits(c.year);
      i += 2;
    } else if (starts("mm")) {
      const bool minutes = hourBefore || beforeSeconds();
      out += twoDigits(minutes ? c.minute : c.month);
      i += 2;
    } else if (starts("dd")) {
      out += twoDigits(c.day);
      i += 2;
    } else if (starts("hh")) {
      out += twoDigits(c.hour);
      i += 2;
    } else if (starts("ss")) {
      out += twoDigits(c.second);
      i += 2;
    } else {
      out += pattern[i];
      ++i;
    }
  }
  return out;
}

}  // namespace tavrix
