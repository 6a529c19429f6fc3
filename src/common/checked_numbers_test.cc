#include "common/checked_numbers.h"

#include <gtest/gtest.h>

#include <limits>

namespace tavrix {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// Values that do not fit give no number, right up to the edge of each type.
TEST(CheckedNumbers, ConversionsFromFloatingValuesRefuseWhatDoesNotFit) {
  EXPECT_EQ(checkedInteger<int64_t>(-2.9), -2);
  EXPECT_EQ(checkedInteger<int64_t>(-0.0), 0);
  for (double bad : {kNan, kInf, -kInf, 1e308, -1e308, 1e19, 9223372036854775808.0}) {
    EXPECT_EQ(checkedInteger<int64_t>(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(checkedInteger<int64_t>(-9223372036854775808.0), INT64_MIN);
  EXPECT_EQ(checkedInteger<int16_t>(32767.9), 32767);
  EXPECT_EQ(checkedInteger<int16_t>(32768.0), std::nullopt);
  EXPECT_EQ(checkedInteger<int16_t>(-32768.0), -32768);
  EXPECT_EQ(checkedInteger<int16_t>(-32769.0), std::nullopt);
  EXPECT_EQ(checkedInteger<uint32_t>(-1.0), std::nullopt);
  EXPECT_EQ(checkedInteger<uint32_t>(-0.5), 0u);

  EXPECT_EQ(checkedMicros(1.5e6), 1'500'000);
  EXPECT_EQ(checkedMicros(static_cast<double>(kLongestSpan) * 2), std::nullopt);
  EXPECT_EQ(checkedMicros(-static_cast<double>(kLongestSpan) * 2), std::nullopt);
  EXPECT_EQ(checkedIndex(2.0, 3), 2u);
  EXPECT_EQ(checkedIndex(3.0, 3), std::nullopt);
  EXPECT_EQ(checkedIndex(-1.0, 3), std::nullopt);
}

TEST(CheckedNumbers, WholeNumbersAndDurationsFromText) {
  EXPECT_EQ(parseWholeNumber("+42"), 42);
  EXPECT_EQ(parseWholeNumber("-9223372036854775808"), INT64_MIN);
  for (const char* bad :
       {"", "+", "++1", "9223372036854775808", "99999999999999999999", "1e3", "1 ", " 1", "0x10"}) {
    EXPECT_EQ(parseWholeNumber(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(parseDuration("90s"), 90 * kMicrosPerSecond);
  EXPECT_EQ(parseDuration("30m"), 1800 * kMicrosPerSecond);
  EXPECT_EQ(parseDuration("48h"), 172800 * kMicrosPerSecond);
  EXPECT_EQ(parseDuration("7d"), 7 * kMicrosPerDay);
  EXPECT_EQ(parseDuration("1.5h"), 5400 * kMicrosPerSecond);
  EXPECT_EQ(parseDuration("20"), 20 * kMicrosPerSecond);
  for (const char* bad :
       {"", "s", "0s", "-5s", "7y", "1e308h", "nan", "inf", "1e19d", "5 s", "+5s"}) {
    EXPECT_EQ(parseDuration(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace tavrix
