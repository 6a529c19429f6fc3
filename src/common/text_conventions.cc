#include "common/text_conventions.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace tavrix {

namespace {

bool isNumberBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int digitValue(char c, int base) {
  int v = -1;
  if (c >= '0' && c <= '9')
    v = c - '0';
  else if (c >= 'a' && c <= 'f')
    v = c - 'a' + 10;
  else if (c >= 'A' && c <= 'F')
    v = c - 'A' + 10;
  return v < base ? v : -1;
}

// "&H" and "&O" numbers. Like the runtime, a value that fits in 16 bits is
// read as a 16-bit integer and one that fits in 32 bits as a 32-bit integer,
// so "&HFFFF" is -1 and "&H8000" is -32768.
double radixNumber(std::string_view text, size_t i, int base) {
  double value = 0;
  for (; i < text.size(); ++i) {
    if (isNumberBlank(text[i])) continue;
    const int d = digitValue(text[i], base);
    if (d < 0) break;
    value = value * base + d;
  }
  if (value <= 0xFFFF)
    return static_cast<double>(static_cast<int16_t>(static_cast<uint16_t>(value)));
  if (value <= 0xFFFFFFFFu) {
    return static_cast<double>(static_cast<int32_t>(static_cast<uint32_t>(value)));
  }
  return value;
}

constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr uint64_t kIntegerPowers[] = {1ULL,
                                       10ULL,
                                       100ULL,
                                       1000ULL,
                                       10000ULL,
                                       100000ULL,
                                       1000000ULL,
                                       10000000ULL,
                                       100000000ULL,
                                       1000000000ULL,
                                       10000000000ULL,
                                       100000000000ULL,
                                       1000000000000ULL,
                                       10000000000000ULL,
                                       100000000000000ULL,
                                       1000000000000000ULL,
                                       10000000000000000ULL};

// a * 10^k (a > 0) rounded to the nearest integer as the exact product
// rounds. 10^k is exact up to 10^22, so the product p is the exact one
// correctly rounded. Below 2^52 every n + 1/2 is a double, and rounding to
// the nearest double never carries a value across a double, so p lies on the
// same side of each half as the exact product; only p on a half leaves the
// rounding undecided (the exact product may be that half or beside it).
// False then, or when 10^k is not exact, or p is too large.
bool roundedScaled(double a, int k, uint64_t& out) {
  if (k > 22 || k < -22) return false;
  const double p = k >= 0 ? a * kExactPowers[k] : a / kExactPowers[-k];
  if (!(p < 4e15)) return false;
  const uint64_t whole = static_cast<uint64_t>(p);         // p >= 0: the floor
  const double fraction = p - static_cast<double>(whole);  // exact
  if (fraction == 0.5) return false;
  out = whole + (fraction > 0.5 ? 1 : 0);
  return true;
}

// The C library's digits of "%.*e", taken from its own conversion.
bool libraryDigits(double value, int significantDigits, uint64_t& digits, int& exponent) {
  char buf[64];
  const auto end = std::to_chars(buf, buf + sizeof buf - 1, std::fabs(value),
                                 std::chars_format::scientific, significantDigits - 1);
  *end.ptr = '\0';
  digits = 0;
  const char* c = buf;
  for (; *c != 'e'; ++c)
    if (isDigit(*c)) digits = digits * 10 + static_cast<uint64_t>(*c - '0');
  exponent = static_cast<int>(std::strtol(c + 1, nullptr, 10));
  return true;
}

// Removes what a C conversion adds and the runtime does not write: the zero
// before the point ("0.5" -> ".5"), and gives the exponent its sign and at
// least two digits ("1E+20", "1E-07").
std::string runtimeNumberText(double value, int significantDigits) {
  if (value == 0) return " 0";  // also -0
  char buf[64];
  // As "%.*G" writes it, after a place for the sign.
  char* s = buf + 1;
  size_t n = writeGeneral(value, significantDigits, s);
  for (size_t i = 0; i < n; ++i) {
    if (s[i] >= 'a' && s[i] <= 'z') s[i] = static_cast<char>(s[i] - 'a' + 'A');
  }
  const bool negative = n > 0 && s[0] == '-';
  if (negative) ++s, --n;
  if (n > 1 && s[0] == '0' && s[1] == '.') ++s, --n;
  *--s = negative ? '-' : ' ';
  return std::string(s, n + 1);
}

// The usual number: blanks, a sign, at most 15 digits with at most one
// point, then a character that cannot continue it (no blank, no exponent).
// At most 15 digits are an exact double, and so is a power of ten up to
// 10^22: one division rounds correctly, as the library's conversion does.
// False for anything else, which the full reading takes.
constexpr int kExactDigits = 15;
constexpr double kPowersOfTen[kExactDigits + 1] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                   1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

bool plainDecimal(std::string_view text, double& value) {
  size_t i = 0;
  while (i < text.size() && isNumberBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  uint64_t mantissa = 0;
  int digitCount = 0;
  int fractionDigits = 0;
  bool point = false;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (isDigit(c)) {
      if (++digitCount > kExactDigits) return false;
      mantissa = mantissa * 10 + static_cast<uint64_t>(c - '0');
      fractionDigits += point ? 1 : 0;
    } else if (c == '.' && !point) {
      point = true;
    } else {
      break;
    }
  }
  if (digitCount == 0) return false;
  if (i < text.size()) {
    const char c = text[i];
    if (isNumberBlank(c) || c == 'e' || c == 'E' || c == 'd' || c == 'D') return false;
  }
  value = static_cast<double>(mantissa) / kPowersOfTen[fractionDigits];
  if (negative) value = -value;
  return true;
}

}  // namespace

double leadingNumber(std::string_view text) {
  if (double value = 0; plainDecimal(text, value)) return value;
  size_t i = 0;
  while (i < text.size() && isNumberBlank(text[i])) ++i;
  if (i + 1 < text.size() && text[i] == '&') {
    const char kind = text[i + 1];
    if (kind == 'h' || kind == 'H') return radixNumber(text, i + 2, 16);
    if (kind == 'o' || kind == 'O') return radixNumber(text, i + 2, 8);
    return 0;
  }

  // Gather the characters that continue the number, without the blanks, and
  // let the library convert them.
  std::string number;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  bool point = false;
  bool digits = false;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (isNumberBlank(c)) continue;
    if (isDigit(c)) {
      number += c;
      digits = true;
    } else if (c == '.' && !point) {
      number += c;
      point = true;
    } else {
      break;
    }
  }
  if (!digits) return 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E' || text[i] == 'd' || text[i] == 'D')) {
    std::string exponent = "e";
    size_t j = i + 1;
    while (j < text.size() && isNumberBlank(text[j])) ++j;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) exponent += text[j++];
    bool exponentDigits = false;
    for (; j < text.size(); ++j) {
      if (isNumberBlank(text[j])) continue;
      if (!isDigit(text[j])) break;
      exponent += text[j];
      exponentDigits = true;
    }
    if (exponentDigits) number += exponent;
  }
  double value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  (void)end;
  if (error == std::errc::result_out_of_range) {
    // Too small is 0; too large is infinite (where the runtime overflows).
    const bool tiny = number.find("e-") != std::string::npos;
    value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
  }
  return negative ? -value : value;
}

bool roundedDigits(double value, int significantDigits, uint64_t& digits, int& exponent) {
  if (!std::isfinite(value)) return false;
  if (value == 0) {
    digits = 0;
    exponent = 0;
    return true;
  }
  const double a = std::fabs(value);
  const int d = significantDigits;
  uint64_t bits = 0;
  std::memcpy(&bits, &a, sizeof bits);
  // a lies in [2^binary, 2^(binary+1)) (a subnormal value is placed too low,
  // and the checks below then leave it to the library).
  const int binary = static_cast<int>(bits >> 52) - 1023;
  // The decimal exponent is floor(binary * log10(2)) or one more. The product
  // is taken in fixed point (78913 / 2^18 is log10(2) to 1e-7, exact enough
  // for every exponent a double has; the shift of a negative number rounds
  // down). The larger one is tried first, which keeps the scaled value below
  // 10^d; when it gives d-1 digits or exactly 10^(d-1) (which the finer
  // rounding at the smaller exponent may not give), the smaller one decides.
  // Whatever the estimate, the check on the digits below catches a wrong one.
  int x = ((binary * 78913) >> 18) + 1;
  uint64_t r = 0;
  if (!roundedScaled(a, d - 1 - x, r)) return libraryDigits(value, d, digits, exponent);
  if (r <= kIntegerPowers[d - 1]) {
    --x;
    if (!roundedScaled(a, d - 1 - x, r)) return libraryDigits(value, d, digits, exponent);
  }
  if (r == kIntegerPowers[d]) {  // rounded up to the next power of ten
    r = kIntegerPowers[d - 1];
    ++x;
  }
  if (r < kIntegerPowers[d - 1] || r > kIntegerPowers[d])
    return libraryDigits(value, d, digits, exponent);
  digits = r;
  exponent = x;
  return true;
}

size_t writeGeneral(double value, int significantDigits, char* out) {
  uint64_t r = 0;
  int x = 0;
  if (value == 0 || !roundedDigits(value, significantDigits, r, x)) {
    // The C library's own text, as every number had before: the runtimes
    // differ on a NaN's sign ("-nan" on Linux, "nan" on Windows).
    const int length = std::snprintf(out, 32, "%.*g", significantDigits, value);
    return length < 0 ? 0 : std::min<size_t>(static_cast<size_t>(length), 31);
  }
  char digits[16];
  int n = significantDigits;
  for (int i = n - 1; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + r % 10);
    r /= 10;
  }
  while (n > 1 && digits[n - 1] == '0') --n;  // "%g" drops trailing zeros
  char* o = out;
  if (value < 0) *o++ = '-';
  if (x < -4 || x >= significantDigits) {
    *o++ = digits[0];
    if (n > 1) {
      *o++ = '.';
      for (int i = 1; i < n; ++i) *o++ = digits[i];
    }
    *o++ = 'e';
    *o++ = x < 0 ? '-' : '+';
    const int e = x < 0 ? -x : x;
    if (e >= 100) *o++ = static_cast<char>('0' + e / 100);
    *o++ = static_cast<char>('0' + e / 10 % 10);
    *o++ = static_cast<char>('0' + e % 10);
  } else if (x >= 0) {
    for (int i = 0; i <= x; ++i) *o++ = digits[i];
    if (n > x + 1) {
      *o++ = '.';
      for (int i = x + 1; i < n; ++i) *o++ = digits[i];
    }
  } else {
    *o++ = '0';
    *o++ = '.';
    for (int i = 0; i < -x - 1; ++i) *o++ = '0';
    for (int i = 0; i < n; ++i) *o++ = digits[i];
  }
  return static_cast<size_t>(o - out);
}

std::string numberText(double value) { return runtimeNumberText(value, 15); }

std::string numberTextSingle(float value) { return runtimeNumberText(value, 7); }

namespace {

// What a "0.00" pattern asks for: how many digits after the point (and
// whether there is a point at all) and how many zeros the integer part
// keeps at least.
struct NumberPattern {
  bool hasPoint = false;
  size_t fractionDigits = 0;
  size_t integerZeros = 0;
};

NumberPattern readNumberPattern(std::string_view pattern) {
  NumberPattern p;
  const size_t pointAt = pattern.find('.');
  p.hasPoint = pointAt != std::string_view::npos;
  p.fractionDigits = p.hasPoint ? pattern.size() - pointAt - 1 : 0;
  for (char c : pattern.substr(0, pointAt)) p.integerZeros += c == '0';
  return p;
}

// The room on the stack for the usual value and pattern.
constexpr size_t kStackDigits = 80;

// Where the point falls in the digits of a value written to a pattern.
struct DigitLayout {
  size_t zeros = 0;  // the zeros before the first digit of a value below 1
  long point = 1;    // the digits before the point, those zeros included
  size_t keep = 0;   // the digits kept: those before the point and the fraction
};

// The 15 rounded digits, with the zeros that lead a value below 1, rounded
// half up to the pattern's fraction digits and written out, in a buffer on
// the stack; the caller has checked that the digits fit.
std::string formatOnStack(double value, uint64_t rounded, const DigitLayout& layout,
                          const NumberPattern& p) {
  char d[kStackDigits];
  const size_t zeros = layout.zeros;
  long point = layout.point;
  const size_t keep = layout.keep;
  size_t n = zeros + 15;
  std::memset(d, '0', zeros);
  uint64_t r = rounded;
  for (size_t i = n; i-- > zeros; r /= 10) d[i] = static_cast<char>('0' + r % 10);
  if (n < keep + 1) {
    std::memset(d + n, '0', keep + 1 - n);
    n = keep + 1;
  }
  const bool up = d[keep] >= '5';
  n = keep;
  if (up) {
    size_t k = keep;
    while (k > 0 && d[k - 1] == '9') d[--k] = '0';
    if (k == 0) {
      std::memmove(d + 1, d, n);
      d[0] = '1';
      ++n;
      ++point;
    } else {
      ++d[k - 1];
    }
  }
  const size_t integerEnd = static_cast<size_t>(point);
  size_t first = 0;
  while (first < integerEnd && d[first] == '0') ++first;
  bool zero = first == integerEnd;
  for (size_t i = integerEnd; zero && i < n; ++i) zero = d[i] == '0';
  const size_t integerLength = integerEnd - first;
  std::string out;
  out.reserve(n + p.integerZeros + 2);
  if (value < 0 && !zero) out += '-';
  if (integerLength < p.integerZeros) out.append(p.integerZeros - integerLength, '0');
  out.append(d + first, integerLength);
  if (p.hasPoint) {
    out += '.';
    out.append(d + integerEnd, n - integerEnd);
  }
  return out;
}

// The same steps as formatOnStack for a value or a pattern with more digits
// than the stack buffer holds.
std::string formatInString(double value, uint64_t rounded, long pointPos, const NumberPattern& p) {
  std::string digits(15, '0');
  for (size_t i = 15; i-- > 0; rounded /= 10) digits[i] = static_cast<char>('0' + rounded % 10);
  while (pointPos < 1) {
    digits.insert(digits.begin(), '0');
    ++pointPos;
  }
  const size_t keep = static_cast<size_t>(pointPos) + p.fractionDigits;
  if (digits.size() < keep + 1) digits.append(keep + 1 - digits.size(), '0');
  const bool roundUp = digits[keep] >= '5';
  digits.resize(keep);
  if (roundUp) {
    size_t k = keep;
    while (k > 0 && digits[k - 1] == '9') digits[--k] = '0';
    if (k == 0) {
      digits.insert(digits.begin(), '1');
      ++pointPos;
    } else {
      ++digits[k - 1];
    }
  }

  std::string integerPart = digits.substr(0, static_cast<size_t>(pointPos));
  const std::string fractionPart = digits.substr(static_cast<size_t>(pointPos));
  const size_t firstNonZero = integerPart.find_first_not_of('0');
  integerPart.erase(0, firstNonZero == std::string::npos ? integerPart.size() : firstNonZero);
  if (integerPart.size() < p.integerZeros)
    integerPart.insert(0, p.integerZeros - integerPart.size(), '0');

  // A value that rounds to zero is written without a sign.
  const bool zero = digits.find_first_not_of('0') == std::string::npos;
  std::string out = value < 0 && !zero ? "-" : "";
  out += integerPart;
  if (p.hasPoint) out += '.' + fractionPart;
  return out;
}

}  // namespace

std::string formatNumber(double value, std::string_view pattern) {
  const NumberPattern p = readNumberPattern(pattern);

  if (!std::isfinite(value)) return numberText(value).substr(value < 0 ? 0 : 1);

  // Round the decimal digits of the value as it is written (15 significant
  // digits), so 2.675 gives "2.68" although its binary value lies below.
  // As "%.14e" writes them.
  uint64_t rounded = 0;
  int exponent = 0;
  roundedDigits(value, 15, rounded, exponent);
  const long point = exponent + 1;  // digits before the point
  DigitLayout layout;
  layout.zeros = point < 1 ? static_cast<size_t>(1 - point) : 0;
  layout.point = point < 1 ? 1 : point;
  layout.keep = static_cast<size_t>(layout.point) + p.fractionDigits;
  if (layout.zeros <= 40 && layout.keep + 2 <= kStackDigits)
    return formatOnStack(value, rounded, layout, p);
  return formatInString(value, rounded, point, p);
}

namespace {

template <typename Int>
std::optional<Int> roundToEven(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  // The default floating-point rounding mode rounds halves to even.
  const double rounded = std::nearbyint(value);
  if (rounded < static_cast<double>(std::numeric_limits<Int>::min()) ||
      rounded > static_cast<double>(std::numeric_limits<Int>::max())) {
    return std::nullopt;
  }
  return static_cast<Int>(rounded);
}

}  // namespace

std::optional<int16_t> roundToInt16(double value) { return roundToEven<int16_t>(value); }

std::optional<int32_t> roundToInt32(double value) { return roundToEven<int32_t>(value); }

std::string upperCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

std::string lowerCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string_view trimLeft(std::string_view text) {
  const size_t first = text.find_first_not_of(' ');
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

std::string_view trimRight(std::string_view text) {
  // Fixed-length buffers of the link hold long runs of trailing blanks:
  // skip them eight at a time.
  constexpr uint64_t kBlanks = 0x2020202020202020ULL;
  size_t end = text.size();
  while (end >= 8) {
    uint64_t word;
    std::memcpy(&word, text.data() + end - 8, 8);
    if (word != kBlanks) break;
    end -= 8;
  }
  while (end > 0 && text[end - 1] == ' ') --end;
  return text.substr(0, end);
}

std::string_view trim(std::string_view text) { return trimRight(trimLeft(text)); }

}  // namespace tavrix
