#include "common/text_conventions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

namespace tavrix {
namespace {

TEST(LeadingNumber, TakesTheNumberThatTextStartsWith) {
  EXPECT_EQ(leadingNumber("12"), 12);
  EXPECT_EQ(leadingNumber("  12abc"), 12);
  EXPECT_EQ(leadingNumber("12abc"), 12);
  EXPECT_EQ(leadingNumber(" .5"), 0.5);
  EXPECT_EQ(leadingNumber("-1.5"), -1.5);
  EXPECT_EQ(leadingNumber("+4"), 4);
  EXPECT_EQ(leadingNumber("1.2.3"), 1.2);
  EXPECT_EQ(leadingNumber("7."), 7);
  // Blanks, tabs and line feeds before and inside the number do not count.
  EXPECT_EQ(leadingNumber("\t\n 7"), 7);
  EXPECT_EQ(leadingNumber("1 2"), 12);
  EXPECT_EQ(leadingNumber("- 3 4 . 5"), -34.5);
  // A carriage return is not a blank: it ends the number.
  EXPECT_EQ(leadingNumber("1\r2"), 1);
}

TEST(LeadingNumber, EmptyOrNonNumericTextIsZero) {
  EXPECT_EQ(leadingNumber(""), 0);
  EXPECT_EQ(leadingNumber("   "), 0);
  EXPECT_EQ(leadingNumber("abc"), 0);
  EXPECT_EQ(leadingNumber("."), 0);
  EXPECT_EQ(leadingNumber("-"), 0);
  EXPECT_EQ(leadingNumber("--1"), 0);
  EXPECT_EQ(leadingNumber("x12"), 0);
  EXPECT_EQ(leadingNumber("&"), 0);
  EXPECT_EQ(leadingNumber("&H"), 0);
  EXPECT_EQ(leadingNumber("&X12"), 0);
}

TEST(LeadingNumber, ReadsExponentsWithEOrD) {
  EXPECT_EQ(leadingNumber("1e3"), 1000);
  EXPECT_EQ(leadingNumber("1D3"), 1000);
  EXPECT_EQ(leadingNumber("1.5E-2"), 0.015);
  EXPECT_EQ(leadingNumber("2d+2"), 200);
  EXPECT_EQ(leadingNumber("1 e 2"), 100);
  // An exponent letter without digits ends the number before it.
  EXPECT_EQ(leadingNumber("1e"), 1);
  EXPECT_EQ(leadingNumber("1E+x"), 1);
  EXPECT_EQ(leadingNumber("3EUR"), 3);
  EXPECT_EQ(leadingNumber("1e-400"), 0);
  EXPECT_TRUE(std::isinf(leadingNumber("1e400")));
  EXPECT_LT(leadingNumber("-1e400"), 0);
}

// Plain decimals of up to 15 digits are converted without the library; the
// value must be the correctly rounded one all the same, to the last bit.
TEST(LeadingNumber, PlainDecimalsGiveTheCorrectlyRoundedValue) {
  uint64_t state = 12345;
  auto next = [&state] {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return state >> 33;
  };
  for (int n = 0; n < 200000; ++n) {
    const int digits = 1 + static_cast<int>(next() % 17);
    const int pointAt = static_cast<int>(next() % (digits + 1));
    std::string text = next() % 2 ? "-" : "";
    for (int d = 0; d < digits; ++d) {
      if (d == pointAt) text += '.';
      text += static_cast<char>('0' + next() % 10);
    }
    // What follows the number: nothing, text, a separator, blanks before
    // text, or an exponent (which the library reads).
    static const char* const kAfter[] = {"", "abc", ",5", " V", "e2", "D-3", "  "};
    text += kAfter[next() % 7];
    std::string forLibrary = text;
    if (const size_t d = forLibrary.find('D'); d != std::string::npos) forLibrary[d] = 'e';
    const double expected = std::strtod(forLibrary.c_str(), nullptr);
    const double got = leadingNumber(text);
    ASSERT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << text << " " << got << " " << expected;
  }
  EXPECT_EQ(leadingNumber("0.30000000000000004"), 0.30000000000000004);
  EXPECT_EQ(leadingNumber("9007199254740993"), 9007199254740992.0);  // 16 digits: the library's
  EXPECT_TRUE(std::signbit(leadingNumber("-0.0")));
}

TEST(LeadingNumber, ReadsHexadecimalAndOctal) {
  EXPECT_EQ(leadingNumber("&H1F"), 31);
  EXPECT_EQ(leadingNumber("&h1f"), 31);
  EXPECT_EQ(leadingNumber("  &H0A"), 10);
  EXPECT_EQ(leadingNumber("&HFFG"), 255);
  EXPECT_EQ(leadingNumber("&O17"), 15);
  EXPECT_EQ(leadingNumber("&o78"), 7);
  // 16-bit and 32-bit values read as signed integers of that size.
  EXPECT_EQ(leadingNumber("&HFFFF"), -1);
  EXPECT_EQ(leadingNumber("&H8000"), -32768);
  EXPECT_EQ(leadingNumber("&H10000"), 65536);
  EXPECT_EQ(leadingNumber("&HFFFFFFFF"), -1);
  // A sign does not go with a hexadecimal number.
  EXPECT_EQ(leadingNumber("-&H10"), 0);
}

TEST(NumberText, WritesNonNegativeNumbersWithALeadingBlank) {
  EXPECT_EQ(numberText(12), " 12");
  EXPECT_EQ(numberText(-12), "-12");
  EXPECT_EQ(numberText(-1.5), "-1.5");
  EXPECT_EQ(numberText(0), " 0");
  EXPECT_EQ(numberText(-0.0), " 0");
  // No zero before the point.
  EXPECT_EQ(numberText(0.5), " .5");
  EXPECT_EQ(numberText(-0.5), "-.5");
  EXPECT_EQ(numberText(0.1 + 0.2), " .3");
  EXPECT_EQ(numberText(1.0 / 3), " .333333333333333");
  EXPECT_EQ(numberText(2.0 / 3), " .666666666666667");
  EXPECT_EQ(numberText(123.456), " 123.456");
}

// The exponent form is used from a decimal exponent of 15 upwards and below
// -4; the exponent has a sign and at least two digits.
TEST(NumberText, UsesTheExponentFormForLargeAndSmallNumbers) {
  EXPECT_EQ(numberText(1e14), " 100000000000000");
  EXPECT_EQ(numberText(999999999999999), " 999999999999999");
  EXPECT_EQ(numberText(1e15), " 1E+15");
  EXPECT_EQ(numberText(1e20), " 1E+20");
  EXPECT_EQ(numberText(-1e20), "-1E+20");
  EXPECT_EQ(numberText(123456789012345678.0), " 1.23456789012346E+17");
  EXPECT_EQ(numberText(1e100), " 1E+100");
  EXPECT_EQ(numberText(0.0001), " .0001");
  EXPECT_EQ(numberText(0.000123), " .000123");
  EXPECT_EQ(numberText(0.00001), " 1E-05");
  EXPECT_EQ(numberText(1e-7), " 1E-07");
  EXPECT_EQ(numberText(-1.5e-7), "-1.5E-07");
}

TEST(NumberText, WritesSinglesWithSevenDigits) {
  EXPECT_EQ(numberTextSingle(0.1f), " .1");
  EXPECT_EQ(numberTextSingle(-2.5f), "-2.5");
  EXPECT_EQ(numberTextSingle(1.0f / 3), " .3333333");
  EXPECT_EQ(numberTextSingle(1234567.0f), " 1234567");
  EXPECT_EQ(numberTextSingle(1e7f), " 1E+07");
  EXPECT_EQ(numberTextSingle(3.14159274f), " 3.141593");
  EXPECT_EQ(numberTextSingle(0.0f), " 0");
}

TEST(FormatNumber, FillsThePatterns) {
  EXPECT_EQ(formatNumber(0.5, "#.00"), ".50");
  EXPECT_EQ(formatNumber(12.3, "#.00"), "12.30");
  EXPECT_EQ(formatNumber(0, "#.00"), ".00");
  EXPECT_EQ(formatNumber(0.5, "#0.00"), "0.50");
  EXPECT_EQ(formatNumber(3.14159, "#0.00"), "3.14");
  EXPECT_EQ(formatNumber(0, "#0"), "0");
  EXPECT_EQ(formatNumber(1234.4, "#0"), "1234");
  EXPECT_EQ(formatNumber(3.14159, "0.00"), "3.14");
  EXPECT_EQ(formatNumber(42, "0"), "42");
  EXPECT_EQ(formatNumber(7, "000"), "007");
  EXPECT_EQ(formatNumber(7, "0000"), "0007");
  EXPECT_EQ(formatNumber(-7, "0000"), "-0007");
  EXPECT_EQ(formatNumber(-12.345, "#0.00"), "-12.35");
  // An integer part wider than the pattern is written whole.
  EXPECT_EQ(formatNumber(12345, "000"), "12345");
  EXPECT_EQ(formatNumber(1e20, "0"), "100000000000000000000");
  EXPECT_EQ(formatNumber(0.001234, "0.0000"), "0.0012");
}

// Halves round away from zero, on the decimal digits the value is written
// with: 2.675 and 1.005 lie just below the half in binary but round up. A
// value that rounds to zero is written without a sign: -0.004 with "0.00" is
// "0.00", not "-0.00".
TEST(FormatNumber, RoundsHalvesAwayFromZero) {
  EXPECT_EQ(formatNumber(2.5, "0"), "3");
  EXPECT_EQ(formatNumber(3.5, "0"), "4");
  EXPECT_EQ(formatNumber(-2.5, "0"), "-3");
  EXPECT_EQ(formatNumber(0.125, "0.00"), "0.13");
  EXPECT_EQ(formatNumber(2.675, "0.00"), "2.68");
  EXPECT_EQ(formatNumber(-1.005, "#0.00"), "-1.01");
  EXPECT_EQ(formatNumber(9.995, "0.00"), "10.00");
  EXPECT_EQ(formatNumber(99.5, "#0"), "100");
  EXPECT_EQ(formatNumber(0.995, "#.00"), "1.00");
  EXPECT_EQ(formatNumber(0.4, "#0"), "0");
  EXPECT_EQ(formatNumber(0.6, "#"), "1");
  EXPECT_EQ(formatNumber(-0.004, "0.00"), "0.00");
  EXPECT_EQ(formatNumber(-0.4, "0"), "0");
  EXPECT_EQ(formatNumber(-0.005, "0.00"), "-0.01");
}

TEST(RoundToInteger, RoundsHalvesToEvenAndReportsOverflow) {
  EXPECT_EQ(roundToInt16(2.5), 2);
  EXPECT_EQ(roundToInt16(3.5), 4);
  EXPECT_EQ(roundToInt16(-2.5), -2);
  EXPECT_EQ(roundToInt16(-3.5), -4);
  EXPECT_EQ(roundToInt16(0.5), 0);
  EXPECT_EQ(roundToInt16(1.5), 2);
  EXPECT_EQ(roundToInt16(2.6), 3);
  EXPECT_EQ(roundToInt16(-2.4), -2);
  EXPECT_EQ(roundToInt16(32767.4), 32767);
  EXPECT_EQ(roundToInt16(32767.5), std::nullopt);
  EXPECT_EQ(roundToInt16(32768), std::nullopt);
  EXPECT_EQ(roundToInt16(-32768.5), -32768);
  EXPECT_EQ(roundToInt16(-32768.6), std::nullopt);
  EXPECT_EQ(roundToInt16(std::numeric_limits<double>::quiet_NaN()), std::nullopt);
  EXPECT_EQ(roundToInt16(std::numeric_limits<double>::infinity()), std::nullopt);

  EXPECT_EQ(roundToInt32(2.5), 2);
  EXPECT_EQ(roundToInt32(32768), 32768);
  EXPECT_EQ(roundToInt32(2147483646.5), 2147483646);
  EXPECT_EQ(roundToInt32(2147483647.5), std::nullopt);
  EXPECT_EQ(roundToInt32(-2147483648.5), -2147483647 - 1);
  EXPECT_EQ(roundToInt32(1e10), std::nullopt);
}

TEST(TextCase, ChangesOnlyAsciiLetters) {
  EXPECT_EQ(upperCase("Loop 1: wait_x"), "LOOP 1: WAIT_X");
  EXPECT_EQ(lowerCase("Loop 1: WAIT_X"), "loop 1: wait_x");
  EXPECT_EQ(upperCase("\xe9t\xe9"), "\xe9T\xe9");
  EXPECT_EQ(upperCase(""), "");
}

TEST(Trim, RemovesBlanksOnly) {
  EXPECT_EQ(trimLeft("  a b  "), "a b  ");
  EXPECT_EQ(trimRight("  a b  "), "  a b");
  EXPECT_EQ(trim("  a b  "), "a b");
  EXPECT_EQ(trim("\ta\t"), "\ta\t");
  EXPECT_EQ(trim("    "), "");
  EXPECT_EQ(trimLeft(""), "");
}

}  // namespace
}  // namespace tavrix
