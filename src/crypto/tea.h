// The TEA cipher and the framed format of the system's encrypted files.
//
// A frame holds n plaintext bytes: a 12-byte header (a random word, a filler
// word and n, each stored little-endian), the plaintext, and zero bytes up to
// the next multiple of 8. The whole frame is then enciphered block by block
// (8 bytes, no chaining); the two words of a block are read and written
// big-endian. Both byte orders belong to the file format and must be kept.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

class TeaProgressMeter;

// The key words k0..k3.
using TeaKey = std::array<uint32_t, 4>;

// Key words from key text: the text's bytes, cut or zero-padded to 16, make
// k0..k3 four bytes each, first byte most significant. "" gives all zeros.
TeaKey teaKeyFromText(std::string_view text);

// One block through the published TEA rounds (32 cycles, delta 0x9E3779B9),
// all arithmetic modulo 2^32.
void teaEncipher(uint32_t& y, uint32_t& z, const TeaKey& key);
void teaDecipher(uint32_t& y, uint32_t& z, const TeaKey& key);

// Error numbers are application-defined object errors (base 0x80040000).
inline constexpr uint32_t kTeaErrorBase = 0x80040000u;
inline constexpr uint32_t kTeaErrSizeDescriptor = kTeaErrorBase + 0;
inline constexpr uint32_t kTeaErrFileRead = kTeaErrorBase + 1;
inline constexpr uint32_t kTeaErrFileWrite = kTeaErrorBase + 2;
inline constexpr uint32_t kTeaErrTooLarge = kTeaErrorBase + 3;
inline constexpr std::string_view kTeaTextSizeDescriptor =
    "Incorrect size descriptor in TEA decryption";

// The error of the last failed call (number 0 and no text after a success).
struct TeaError {
  uint32_t number = 0;
  std::string description;
};

// Encryption and decryption of byte arrays, strings and files in the frame
// format. Every call reports success by its result and leaves the reason of
// a failure in LastError(); nothing is thrown.
class TeaCipher {
 public:
  // A uniform random number in [0, 1) for the frame's random word.
  using RandomSource = std::function<double()>;

  // Draws the random word from a generator re-seeded from the clock before
  // each encryption.
  TeaCipher();
  // Draws the random word from `random` (tests make frames reproducible).
  explicit TeaCipher(RandomSource random);

  // The file system EncryptFile and DecryptFile go through; without one
  // they fail.
  void useFiles(FileSystem& files) { files_ = &files; }

  // Reads `source`, encrypts it as one frame and writes the frame to
  // `target`, streaming: memory use does not grow with the file. The target is written under a
  // temporary name in its folder and renamed when complete, so a failure never leaves a partial
  // target and leaves an existing target untouched. `key`, when given, is set first.
  bool EncryptFile(const std::string& source, const std::string& target,
                   std::optional<std::string_view> key = std::nullopt);
  // Reads the frame in `source`, decrypts it and writes the plaintext to
  // `target` in the same safe way and as a stream; the header is checked
  // first, so nothing is written when the frame check fails (a wrong key or
  // a damaged file).
  bool DecryptFile(const std::string& source, const std::string& target,
                   std::optional<std::string_view> key = std::nullopt);

  // Encrypts the bytes of `text`. The result is the frame as raw bytes or,
  // with OutputInHex, as hexadecimal text (two upper-case digits a byte).
  std::optional<std::string> EncryptString(std::string_view text,
                                           std::optional<std::string_view> key = std::nullopt,
                                           bool OutputInHex = false);
  // The inverse. With IsTextInHex each pair of characters is read as a
  // hexadecimal number the way "&H" followed by the pair converts: either
  // case, blanks ignored, conversion stops at the first character that is
  // no hex digit (a pair that starts with one is 0); a last lone character
  // makes a byte of its own.
  std::optional<std::string> DecryptString(std::string_view text,
                                           std::optional<std::string_view> key = std::nullopt,
                                           bool IsTextInHex = false);

  // Turns `data` into its frame, in place (the array grows).
  bool EncryptByte(std::vector<uint8_t>& data, std::optional<std::string_view> key = std::nullopt);
  // Turns a frame back into its plaintext, in place (the array shrinks). A
  // frame that fails the size-descriptor check, or that is no whole number
  // of blocks of at least 16 bytes, gives kTeaErrSizeDescriptor and leaves
  // `data` as it was.
  bool DecryptByte(std::vector<uint8_t>& data, std::optional<std::string_view> key = std::nullopt);

  // Sets the key from key text (see teaKeyFromText). Write-only.
  void Key(std::string_view text);

  // Raised with whole percents 0..100 while a byte array is enciphered or
  // deciphered (the string and file members go through the byte members),
  // ending with 100.
  std::function<void(int Percent)> Progress;

  const TeaError& LastError() const { return error_; }

 private:
  void cipherBlocks(std::vector<uint8_t>& data, bool encipher, bool reportProgress);
  // Ciphers the whole blocks of data[0, size); `position` is their offset in
  // the frame, for the progress meter (none: no progress).
  void cipherRange(uint8_t* data, size_t size, bool encipher, TeaProgressMeter* meter,
                   uint64_t position);
  uint32_t randomWord();
  bool fail(uint32_t number, std::string description);

  TeaKey key_{};
  RandomSource random_;
  uint64_t encryptions_ = 0;
  TeaError error_;
  FileSystem* files_ = nullptr;
};

}  // namespace tavrix
