#include "crypto/vbtavrix.h"

namespace tavrix::vbtavrix {

std::string helperKey(std::string_view key) { return std::string(key.empty() ? kDefaultKey : key); }

// The key is part of the signature for the day the helpers encrypt; until
// then it is not used.
std::string EncryptString(std::string_view text, std::string_view /*key*/) {
  return std::string(text);
}

std::string DecryptString(std::string_view text, std::string_view /*key*/) {
  return std::string(text);
}

}  // namespace tavrix::vbtavrix
