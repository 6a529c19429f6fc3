// The number, text and rounding conventions of the sequencer. Every subsystem
// converts and formats through these functions; nothing formats by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix {

// The number that text starts with: leading blanks, tabs and line feeds are
// skipped, blanks inside the number are ignored ("1 2" is 12), an optional
// sign, digits, a decimal point, an exponent ("E" or "D"), and "&H"/"&O"
// prefixes for hexadecimal and octal. Conversion stops at the first character
// that cannot continue the number. Empty or non-numeric text is 0. Tabs and
// line feeds inside the number are ignored like blanks. A hexadecimal or
// octal number that fits in 16 bits is a 16-bit integer ("&HFFFF" is -1),
// one that fits in 32 bits a 32-bit integer. An exponent too large gives an
// infinite value (the runtime's overflow), one too small gives 0.
double leadingNumber(std::string_view text);

// A number as text with a leading blank when it is not negative, as the
// runtime's number-to-text function writes it: 12 -> " 12", -1.5 -> "-1.5",
// 0.5 -> " .5", 1e20 -> " 1E+20". Up to 15 significant digits, trailing
// zeros dropped. The exponent form is used when the decimal exponent of the
// value (after rounding to 15 digits) is 15 or more, or less than -4:
// 1e14 -> " 100000000000000", 1e15 -> " 1E+15", 0.0001 -> " .0001",
// 0.00001 -> " 1E-05". Zero, negative zero included, is " 0".
std::string numberText(double value);

// The same for a single-precision value (7 significant digits; the exponent
// form from a decimal exponent of 7: 1e7 -> " 1E+07").
std::string numberTextSingle(float value);

// "%.*g" of `value` with 1 to 15 significant digits into `out` (at least 32
// bytes); returns the length. The text is the C library's, byte for byte.
size_t writeGeneral(double value, int significantDigits, char* out);

// The decimal digits of |value| rounded to `significantDigits` (1 to 15) as
// "%.*e" rounds them: `digits` has exactly that many digits (the first not 0
// unless the value is 0) and `exponent` is the power of ten of the first one.
// False for a value that is not finite.
bool roundedDigits(double value, int significantDigits, uint64_t& digits, int& exponent);

// Formats a number with one of the patterns "#.00", "#0.00", "#0", "0.00",
// "0", "000", "0000" (and, more generally, any pattern made of an integer part
// of '#' and '0' and an optional fraction of '0' after a '.'). Halves round
// away from zero, as the runtime's formatting does. "#.00" of 0.5 is ".50".
// The rounding works on the value's decimal digits as numberText would write
// them (15 significant digits), so 2.675 gives "2.68" with "0.00". A value
// that rounds to zero carries no sign: -0.004 with "0.00" is "0.00". An
// integer part wider than the pattern is written whole. Every character
// after the '.' stands for one fraction digit.
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
