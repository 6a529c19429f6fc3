// TEA decryption of arbitrary frames: as byte arrays with the utility key and
// with no key, and as hexadecimal text.

#include <string_view>
#include <vector>

#include "crypto/encrypted_files.h"
#include "crypto/tea.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  TeaCipher tea([] { return 0.25; });
  std::vector<uint8_t> frame(data, data + size);
  const std::vector<uint8_t> original = frame;
  if (!tea.DecryptByte(frame, kDefaultUtilityKey)) {
    // A refused frame is left as it was.
    if (frame != original) __builtin_trap();
  }
  std::vector<uint8_t> unkeyed(data, data + size);
  tea.DecryptByte(unkeyed, "");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tea.DecryptString(text, "k", true);
  tea.DecryptString(text, std::nullopt, false);
  return 0;
}
