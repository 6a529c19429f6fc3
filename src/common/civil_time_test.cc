#include "common/civil_time.h"

#include <gtest/gtest.h>

namespace tavrix {
namespace {

Micros at(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  return fromCivil(CivilTime{y, mo, d, h, mi, s, 0});
}

TEST(CivilTime, ConvertsBothWaysAcrossEpochAndLeapDays) {
  EXPECT_EQ(at(1970, 1, 1), 0);
  EXPECT_EQ(at(1969, 12, 31, 23, 59, 59), -kMicrosPerSecond);
  const CivilTime before = toCivil(-1);
  EXPECT_EQ(before.year, 1969);
  EXPECT_EQ(before.day, 31);
  EXPECT_EQ(before.second, 59);
  EXPECT_EQ(before.micros, 999'999);
  EXPECT_EQ(isoDateTime(at(2024, 2, 28) + kMicrosPerDay), "2024-02-29 00:00:00");
  EXPECT_EQ(isoDateTime(at(2023, 2, 28) + kMicrosPerDay), "2023-03-01 00:00:00");
  EXPECT_EQ(isoDateTime(at(2000, 2, 28) + kMicrosPerDay), "2000-02-29 00:00:00");
  EXPECT_EQ(isoDateTime(at(1900, 2, 28) + kMicrosPerDay), "1900-03-01 00:00:00");
  EXPECT_DOUBLE_EQ(secondsSinceMidnight(at(2024, 5, 6, 1, 2, 3) + 500'000), 3723.5);
  EXPECT_DOUBLE_EQ(secondsSinceMidnight(-kMicrosPerSecond / 2), 86399.5);
}

TEST(FormatDate, FillsThePatterns) {
  const Micros t = at(2024, 3, 7, 9, 5, 2);
  EXPECT_EQ(formatDate(t, "yymmdd"), "240307");
  EXPECT_EQ(formatDate(t, "yymm"), "2403");
  EXPECT_EQ(formatDate(t, "mmyy"), "0324");
  EXPECT_EQ(formatDate(t, "dd"), "07");
  EXPECT_EQ(formatDate(t, "dd-mm-yyyy"), "07-03-2024");
  EXPECT_EQ(formatDate(t, "hhmmss"), "090502");
  EXPECT_EQ(formatDate(t, "YYMMDD"), "240307");
  EXPECT_EQ(formatDate(t, "HHMMSS"), "090502");
  // "mm" is minutes next to hours or seconds, even across separators.
  EXPECT_EQ(formatDate(t, "hh:mm:ss"), "09:05:02");
  EXPECT_EQ(formatDate(t, "mm:ss"), "05:02");
  EXPECT_EQ(formatDate(t, "dd/mm/yy hh:mm"), "07/03/24 09:05");
  // Other characters are kept as written.
  EXPECT_EQ(formatDate(t, "Run_yymmdd.TXT"), "Run_240307.TXT");
  EXPECT_EQ(formatDate(at(1999, 12, 31, 23, 59, 59), "yymmdd hhmmss"), "991231 235959");
}

TEST(ParseDateTime, AcceptsOnlyRealDatesAndTimes) {
  EXPECT_EQ(parseDateTime("2024-04-30 23:59:59"), at(2024, 4, 30, 23, 59, 59));
  EXPECT_EQ(parseDateTime("2024-04-30 08:15"), at(2024, 4, 30, 8, 15));
  EXPECT_EQ(parseDateTime("2024-2-9 8:05"), at(2024, 2, 9, 8, 5));
  EXPECT_EQ(parseDateTime("2024-02-29 00:00"), at(2024, 2, 29));
  EXPECT_EQ(parseDateTime(" 2024-02-29 00:00:00 "), at(2024, 2, 29));
  const Micros t = at(2031, 7, 14, 6, 30, 12);
  EXPECT_EQ(parseDateTime(isoDateTime(t)), t);

  EXPECT_EQ(parseDateTime("2024-04-31 10:00:00"), std::nullopt);
  EXPECT_EQ(parseDateTime("2023-02-29 10:00"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-13-01 10:00"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-00-01 10:00"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-00 10:00"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 24:00"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 10:60"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 10:59:60"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 10"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 10:20x"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 10:20:"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 10:20:30x"), std::nullopt);
  EXPECT_EQ(parseDateTime("2024-01-01 -1:20"), std::nullopt);
  EXPECT_EQ(parseDateTime("0000-01-01 00:00"), std::nullopt);
  EXPECT_EQ(parseDateTime(""), std::nullopt);
}

}  // namespace
}  // namespace tavrix
