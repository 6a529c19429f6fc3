#include "platform/wildcard.h"

#include <cctype>

namespace tavrix::platform {

namespace {

char fold(char c, bool ignoreCase) {
  return ignoreCase ? static_cast<char>(std::tolower(static_cast<unsigned char>(c))) : c;
}

// Matches the set starting at pattern[p] (just after '['). Sets `end` to the
// index after the closing ']'; false when the set is not closed (the '[' is
// then an ordinary character).
bool matchSet(std::string_view pattern, size_t p, char c, bool ignoreCase, bool& matched,
              size_t& end) {
  bool negate = false;
  if (p < pattern.size() && (pattern[p] == '!' || pattern[p] == '^')) {
    negate = true;
    ++p;
  }
  bool found = false;
  bool first = true;
  while (p < pattern.size() && (first || pattern[p] != ']')) {
    first = false;
    const char lo = fold(pattern[p], ignoreCase);
    if (p + 2 < pattern.size() && pattern[p + 1] == '-' && pattern[p + 2] != ']') {
      const char hi = fold(pattern[p + 2], ignoreCase);
      if (lo <= c && c <= hi) found = true;
      p += 3;
    } else {
      if (lo == c) found = true;
      ++p;
    }
  }
  if (p >= pattern.size()) return false;
  end = p + 1;
  matched = found != negate;
  return true;
}

}  // namespace

bool matchesWildcard(std::string_view pattern, std::string_view name) {
  const bool ignoreCase = fileNamesIgnoreCase();
  size_t p = 0;
  size_t n = 0;
  // Where to resume after the last `*`: its pattern position and the name
  // position it has swallowed up to.
  size_t starP = std::string_view::npos;
  size_t starN = 0;
  while (n < name.size()) {
    const char c = fold(name[n], ignoreCase);
    if (p < pattern.size()) {
      const char want = pattern[p];
      if (want == '*') {
        starP = ++p;
        starN = n;
        continue;
      }
      if (want == '?') {
        ++p;
        ++n;
        continue;
      }
      if (want == '[') {
        bool matched = false;
        size_t end = 0;
        if (matchSet(pattern, p + 1, c, ignoreCase, matched, end)) {
          if (matched) {
            p = end;
            ++n;
            continue;
          }
        } else if (c == '[') {
          ++p;
          ++n;
          continue;
        }
      } else if (fold(want, ignoreCase) == c) {
        ++p;
        ++n;
        continue;
      }
    }
    if (starP == std::string_view::npos) return false;
    p = starP;
    n = ++starN;
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

}  // namespace tavrix::platform
