#include "instrument/tcp/link_key.h"

#include <array>
#include <cstdint>

#include "common/file_system.h"
#include "platform/keyed_hash.h"
#include "platform/private_file.h"

namespace tavrix {
namespace {

constexpr size_t kNonceBytes = 32;
constexpr char kDigits[] = "0123456789abcdef";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string toHex(const uint8_t* bytes, size_t size) {
  std::string out;
  out.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

std::string proof(std::string_view key, std::string_view label, std::string_view first,
                  std::string_view second) {
  std::string data(label);
  data += '\n';
  data += first;
  data += '\n';
  data += second;
  platform::Sha256Mac mac{};
  if (!platform::hmacSha256(key, data, mac)) return {};
  return toHex(mac.data(), mac.size());
}

}  // namespace

bool ParseLinkKey(std::string_view text, std::string& key, std::string* why) {
  std::string digits;
  size_t lineStart = 0;
  while (lineStart < text.size()) {
    size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = text.size();
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd + 1;
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos || line[first] == '#') continue;
    for (char c : line) {
      if (c == ' ' || c == '\t' || c == '\r') continue;
      if (hexValue(c) < 0) {
        if (why) *why = "the key must be written as hex digits (0-9, a-f)";
        return false;
      }
      digits += c;
    }
  }
  if (digits.size() % 2 != 0) {
    if (why) *why = "the key has an odd number of hex digits";
    return false;
  }
  if (digits.size() < kMinKeyBytes * 2 || digits.size() > kMaxKeyBytes * 2) {
    if (why)
      *why = "the key must have " + std::to_string(kMinKeyBytes * 2) + " to " +
             std::to_string(kMaxKeyBytes * 2) + " hex digits, not " + std::to_string(digits.size());
    return false;
  }
  key.clear();
  for (size_t i = 0; i < digits.size(); i += 2) {
    key += static_cast<char>(hexValue(digits[i]) * 16 + hexValue(digits[i + 1]));
  }
  return true;
}

bool LoadLinkKey(const FileSystem& files, const std::string& path, std::string& key,
                 std::string* error) {
  const FileInfo info = files.info(path);
  std::string text;
  if (info.kind != FileKind::kFile) {
    if (error) *error = "cannot read the key file " + path;
    return false;
  }
  // Far more than any key file needs: a wrong file named by mistake is not
  // read whole.
  if (info.size > 4096) {
    if (error) *error = "the key file " + path + " is too long to hold a key";
    return false;
  }
  if (std::string why; !files.readFile(path, text, &why)) {
    if (error) *error = "cannot read the key file " + path + ": " + why;
    return false;
  }
  if (platform::othersMayAccess(path)) {
    if (error)
      *error = "the key file " + path +
               " may be read by other users; make it private (chmod 600) and try again";
    return false;
  }
  std::string why;
  if (!ParseLinkKey(text, key, &why)) {
    if (error) *error = "the key file " + path + ": " + why;
    return false;
  }
  return true;
}

bool WriteNewLinkKey(const std::string& path, std::string* error) {
  std::array<uint8_t, kNewKeyBytes> bytes{};
  if (!platform::secureRandom(bytes.data(), bytes.size())) {
    if (error) *error = "the system's random generator failed";
    return false;
  }
  const std::string text =
      "# tavrix link key: copy this file to the other side, keep it private\n" +
      toHex(bytes.data(), bytes.size()) + "\n";
  if (const std::string why = platform::writeNewPrivateFile(path, text); !why.empty()) {
    if (error) *error = "cannot make the key file " + path + ": " + why;
    return false;
  }
  return true;
}

std::string NewNonce() {
  std::array<uint8_t, kNonceBytes> bytes{};
  if (!platform::secureRandom(bytes.data(), bytes.size())) return {};
  return toHex(bytes.data(), bytes.size());
}

bool IsNonce(std::string_view text) {
  if (text.size() != kNonceBytes * 2) return false;
  for (char c : text) {
    if (hexValue(c) < 0) return false;
  }
  return true;
}

std::string ServerProof(std::string_view key, std::string_view linkNonce,
                        std::string_view serverNonce) {
  return proof(key, "tavrix-rig server", linkNonce, serverNonce);
}

std::string LinkProof(std::string_view key, std::string_view serverNonce,
                      std::string_view linkNonce) {
  return proof(key, "tavrix-rig link", serverNonce, linkNonce);
}

bool SameProof(std::string_view a, std::string_view b) {
  if (a.size() != b.size() || a.empty()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return difference == 0;
}

}  // namespace tavrix
