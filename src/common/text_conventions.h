// The number, text and rounding conventions of the sequencer. Every subsystem
// converts and formats through these functions; nothing formats by hand.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix {

// The number that text starts with: leading blanks, tabs and line feeds are
// skipped, blanks inside the number are ignored ("1 2" is 12), an optional
// sign, digits, a decimal point, an exponent ("E" or "D"), and "&H"/"&O"
// prefixes for hexadecimal and octal. Conversion stops at the first character
// that cannot continue the number. Empty or non-numeric text is 0.
double leadingNumber(std::string_view text);

// A number as text with a leading blank when it is not negative, as the
// runtime's number-to-text function writes it: 12 -> " 12", -1.5 -> "-1.5",
// 0.5 -> " .5", 1e20 -> " 1E+20". Up to 15 significant digits.
std::string numberText(double value);

// The same for a single-precision value (7 significant digits).
std::string numberTextSingle(float value);

// Formats a number with one of the patterns "#.00", "#0.00", "#0", "0.00",
// "0", "000", "0000" (and, more generally, any pattern made of an integer part
// of '#' and '0' and an optional fraction of '0' after a '.'). Halves round
// away from zero, as the runtime's formatting does. "#.00" of 0.5 is ".50".
std::string formatNumber(double value, std::string_view pattern);

// Rounding to 16- and 32-bit integers as the runtime converts: halves round
// to the even neighbour (2.5 -> 2, 3.5 -> 4, -2.5 -> -2). An out-of-range
// value gives std::nullopt (the runtime's overflow).
std::optional<int16_t> roundToInt16(double value);
std::optional<int32_t> roundToInt32(double value);

// Upper- and lower-casing of the ASCII letters; other bytes are left alone.
std::string upperCase(std::string_view text);
std::string lowerCase(std::string_view text);

// Blank trimming (blanks only, code 32; tabs are not blanks).
std::string_view trimLeft(std::string_view text);
std::string_view trimRight(std::string_view text);
std::string_view trim(std::string_view text);

}  // namespace tavrix
