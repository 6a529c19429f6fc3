#include "crypto/tea.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>

namespace tavrix {

namespace {

constexpr uint32_t kDelta = 0x9E3779B9u;
constexpr uint32_t kDecipherSum = 0xC6EF3720u;  // kDelta * 32 modulo 2^32
constexpr int kCycles = 32;
constexpr size_t kBlock = 8;
constexpr size_t kHeader = 12;
// A frame's length minus its plaintext length lies in this range.
constexpr int64_t kMinOverhead = 12;
constexpr int64_t kMaxOverhead = 19;
// The plaintext length is stored as a signed 32-bit value, and the frame
// length must stay in that range too.
constexpr size_t kMaxPlaintext = static_cast<size_t>(std::numeric_limits<int32_t>::max()) - 19;

uint32_t loadBigEndian(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

void storeBigEndian(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

uint32_t loadLittleEndian(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void storeLittleEndian(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

constexpr char kHexDigits[] = "0123456789ABCDEF";

std::string toHex(const std::vector<uint8_t>& bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    text.push_back(kHexDigits[b >> 4]);
    text.push_back(kHexDigits[b & 0x0F]);
  }
  return text;
}

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The value of "&H" followed by `pair`, converted as a leading number.
uint8_t hexPairValue(std::string_view pair) {
  unsigned value = 0;
  for (char c : pair) {
    if (c == ' ') continue;
    const int digit = hexDigitValue(c);
    if (digit < 0) break;
    value = value * 16 + static_cast<unsigned>(digit);
  }
  return static_cast<uint8_t>(value);
}

std::vector<uint8_t> fromHex(std::string_view text) {
  std::vector<uint8_t> bytes;
  bytes.reserve((text.size() + 1) / 2);
  for (size_t i = 0; i < text.size(); i += 2) bytes.push_back(hexPairValue(text.substr(i, 2)));
  return bytes;
}

// Blocks handled per read and write when a file is streamed (a multiple of
// the block size); the memory a file member needs, whatever the file's size.
constexpr size_t kChunk = 64 * 1024;

// A file being written under a temporary name beside its target, renamed over
// the target by commit() only when complete; removed otherwise.
class SafeTarget {
 public:
  SafeTarget(FileSystem& files, std::string path) : files_(files), path_(std::move(path)) {}

  bool open(std::string& reason) {
    std::string error;
    file_ = files_.rewrite(path_, &error);
    if (!file_) reason = "cannot write file " + path_ + ": " + Why(error);
    return file_ != nullptr;
  }

  bool write(const uint8_t* bytes, size_t size, std::string& reason) {
    std::string error;
    if (file_->write(std::string_view(reinterpret_cast<const char*>(bytes), size), &error))
      return true;
    reason = "cannot write file " + path_ + ": " + Why(error);
    return false;
  }

  bool commit(std::string& reason) {
    std::string error;
    if (file_->commit(&error)) return true;
    reason = "cannot write file " + path_ + ": " + Why(error);
    return false;
  }

 private:
  // The operating system's reason at the end of a file system message.
  static std::string Why(const std::string& error) {
    const size_t at = error.rfind("\": ");
    return at == std::string::npos ? error : error.substr(at + 3);
  }
  FileSystem& files_;
  std::string path_;
  std::unique_ptr<AtomicFile> file_;
};

// A source file open for reading, with its size.
class SourceFile {
 public:
  explicit SourceFile(const FileSystem& files) : files_(files) {}
  bool open(const std::string& path, std::string& reason) {
    path_ = path;
    std::string error;
    file_ = files_.openInput(path, &error);
    if (!file_) {
      const size_t at = error.rfind("\": ");
      reason = "cannot open file " + path + ": " +
               (at == std::string::npos ? error : error.substr(at + 3));
      return false;
    }
    return true;
  }
  uint64_t size() const { return file_->size(); }
  // Reads exactly `size` bytes; a shorter file is a read error.
  bool read(uint8_t* bytes, size_t size, std::string& reason) {
    size_t done = 0;
    while (done < size) {
      size_t got = 0;
      std::string error;
      if (!file_->read(bytes + done, size - done, got, &error)) {
        reason = "cannot read file " + path_ + ": " + error;
        return false;
      }
      if (got == 0) {
        reason = "cannot read file " + path_ + ": it changed while being read";
        return false;
      }
      done += got;
    }
    return true;
  }

 private:
  const FileSystem& files_;
  std::string path_;
  std::unique_ptr<InputFile> file_;
};

}  // namespace

// Raises Progress as the block position passes each threshold: Percent is
// the integer part of position / length x 100, and the next threshold the
// integer part of (Percent + 1) / 100 x length, plus 1. Computed exactly in
// integers, so that no percent is raised twice through rounding.
class TeaProgressMeter {
 public:
  TeaProgressMeter(const std::function<void(int)>& progress, size_t length)
      : progress_(progress), length_(length) {}

  void at(size_t position) {
    if (!progress_ || position < next_) return;
    last_ = static_cast<int>(uint64_t{position} * 100 / length_);
    next_ = (static_cast<uint64_t>(last_) + 1) * length_ / 100 + 1;
    progress_(last_);
  }

  void finish() {
    if (progress_ && last_ != 100) progress_(100);
  }

 private:
  const std::function<void(int)>& progress_;
  uint64_t length_;
  uint64_t next_ = 0;
  int last_ = -1;
};

TeaKey teaKeyFromText(std::string_view text) {
  uint8_t bytes[16] = {};
  for (size_t i = 0; i < text.size() && i < sizeof bytes; ++i) {
    bytes[i] = static_cast<uint8_t>(text[i]);
  }
  return {loadBigEndian(bytes), loadBigEndian(bytes + 4), loadBigEndian(bytes + 8),
          loadBigEndian(bytes + 12)};
}

// The words and the key are copied into locals first: through references the
// compiler must assume that a store to y or z could change the key, and
// reloads it every round.
void teaEncipher(uint32_t& y, uint32_t& z, const TeaKey& k) {
  uint32_t a = y, b = z, sum = 0;
  const uint32_t k0 = k[0], k1 = k[1], k2 = k[2], k3 = k[3];
#pragma GCC unroll 8
  for (int i = 0; i < kCycles; ++i) {
    sum += kDelta;
    a += ((b << 4) + k0) ^ (b + sum) ^ ((b >> 5) + k1);
    b += ((a << 4) + k2) ^ (a + sum) ^ ((a >> 5) + k3);
  }
  y = a;
  z = b;
}

void teaDecipher(uint32_t& y, uint32_t& z, const TeaKey& k) {
  uint32_t a = y, b = z, sum = kDecipherSum;
  const uint32_t k0 = k[0], k1 = k[1], k2 = k[2], k3 = k[3];
#pragma GCC unroll 8
  for (int i = 0; i < kCycles; ++i) {
    b -= ((a << 4) + k2) ^ (a + sum) ^ ((a >> 5) + k3);
    a -= ((b << 4) + k0) ^ (b + sum) ^ ((b >> 5) + k1);
    sum -= kDelta;
  }
  y = a;
  z = b;
}

TeaCipher::TeaCipher() = default;

TeaCipher::TeaCipher(RandomSource random) : random_(std::move(random)) {}

void TeaCipher::Key(std::string_view text) { key_ = teaKeyFromText(text); }

bool TeaCipher::fail(uint32_t number, std::string description) {
  error_.number = number;
  error_.description = std::move(description);
  return false;
}

uint32_t TeaCipher::randomWord() {
  double r;
  if (random_) {
    r = random_();
  } else {
    // Re-seeded from the clock for every frame; the count keeps two frames
    // made within one clock tick apart.
    const auto ticks = std::chrono::system_clock::now().time_since_epoch().count();
    std::seed_seq seed{static_cast<uint32_t>(ticks), static_cast<uint32_t>(ticks >> 32),
                       static_cast<uint32_t>(++encryptions_)};
    std::mt19937 generator(seed);
    r = std::uniform_real_distribution<double>(0.0, 1.0)(generator);
  }
  if (!(r >= 0.0)) r = 0.0;
  if (r >= 1.0) r = std::nextafter(1.0, 0.0);
  return static_cast<uint32_t>(std::floor(r * 2147483647.0));
}

void TeaCipher::cipherBlocks(std::vector<uint8_t>& data, bool encipher, bool reportProgress) {
  static const std::function<void(int)> kSilent;
  TeaProgressMeter meter(reportProgress ? Progress : kSilent, data.size());
  cipherRange(data.data(), data.size(), encipher, &meter, 0);
  meter.finish();
}

bool TeaCipher::EncryptByte(std::vector<uint8_t>& data, std::optional<std::string_view> key) {
  error_ = {};
  if (key) Key(*key);
  const size_t n = data.size();
  if (n > kMaxPlaintext) return fail(kTeaErrTooLarge, "Data too large for TEA encryption");
  const size_t length = (n + kHeader + kBlock - 1) / kBlock * kBlock;
  data.insert(data.begin(), kHeader, 0);
  data.resize(length, 0);
  storeLittleEndian(data.data(), randomWord());
  storeLittleEndian(data.data() + 8, static_cast<uint32_t>(n));
  cipherBlocks(data, true, true);
  return true;
}

bool TeaCipher::DecryptByte(std::vector<uint8_t>& data, std::optional<std::string_view> key) {
  error_ = {};
  if (key) Key(*key);
  const size_t length = data.size();
  if (length < kHeader + 4 || length % kBlock != 0 ||
      length > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
    return fail(kTeaErrSizeDescriptor, std::string(kTeaTextSizeDescriptor));
  }
  cipherBlocks(data, false, true);
  const int64_t n = static_cast<int32_t>(loadLittleEndian(data.data() + 8));
  const int64_t overhead = static_cast<int64_t>(length) - n;
  // A negative length can pass the overhead test in a short frame; it cannot
  // describe a plaintext either.
  if (n < 0 || overhead < kMinOverhead || overhead > kMaxOverhead) {
    cipherBlocks(data, true, false);
    return fail(kTeaErrSizeDescriptor, std::string(kTeaTextSizeDescriptor));
  }
  data.erase(data.begin(), data.begin() + kHeader);
  data.resize(static_cast<size_t>(n));
  return true;
}

std::optional<std::string> TeaCipher::EncryptString(std::string_view text,
                                                    std::optional<std::string_view> key,
                                                    bool OutputInHex) {
  std::vector<uint8_t> bytes(text.begin(), text.end());
  if (!EncryptByte(bytes, key)) return std::nullopt;
  if (OutputInHex) return toHex(bytes);
  return std::string(bytes.begin(), bytes.end());
}

std::optional<std::string> TeaCipher::DecryptString(std::string_view text,
                                                    std::optional<std::string_view> key,
                                                    bool IsTextInHex) {
  std::vector<uint8_t> bytes =
      IsTextInHex ? fromHex(text) : std::vector<uint8_t>(text.begin(), text.end());
  if (!DecryptByte(bytes, key)) return std::nullopt;
  return std::string(bytes.begin(), bytes.end());
}

void TeaCipher::cipherRange(uint8_t* data, size_t size, bool encipher, TeaProgressMeter* meter,
                            uint64_t position) {
  const TeaKey key = key_;
  for (size_t pos = 0; pos + kBlock <= size; pos += kBlock) {
    if (meter != nullptr) meter->at(position + pos);
    uint8_t* block = data + pos;
    uint32_t y = loadBigEndian(block);
    uint32_t z = loadBigEndian(block + 4);
    if (encipher) {
      teaEncipher(y, z, key);
    } else {
      teaDecipher(y, z, key);
    }
    storeBigEndian(block, y);
    storeBigEndian(block + 4, z);
  }
}

// The file members stream: a frame is built or taken apart one chunk of
// blocks at a time, so memory stays at one chunk whatever the file's size.
bool TeaCipher::EncryptFile(const std::string& source, const std::string& target,
                            std::optional<std::string_view> key) {
  error_ = {};
  if (key) Key(*key);
  std::string reason;
  if (files_ == nullptr) return fail(kTeaErrFileRead, "no file system to read the file through");
  SourceFile in(*files_);
  if (!in.open(source, reason)) return fail(kTeaErrFileRead, reason);
  if (in.size() > kMaxPlaintext) return fail(kTeaErrTooLarge, "Data too large for TEA encryption");
  const uint64_t n = in.size();
  const uint64_t length = (n + kHeader + kBlock - 1) / kBlock * kBlock;
  SafeTarget out(*files_, target);
  if (!out.open(reason)) return fail(kTeaErrFileWrite, reason);

  std::vector<uint8_t> buffer(kChunk, 0);
  storeLittleEndian(buffer.data(), randomWord());
  storeLittleEndian(buffer.data() + 8, static_cast<uint32_t>(n));
  size_t fill = kHeader;
  uint64_t remaining = n;
  uint64_t position = 0;
  TeaProgressMeter meter(Progress, length);
  while (position < length) {
    const size_t take = static_cast<size_t>(std::min<uint64_t>(kChunk - fill, remaining));
    if (!in.read(buffer.data() + fill, take, reason)) return fail(kTeaErrFileRead, reason);
    fill += take;
    remaining -= take;
    if (remaining == 0) {
      const size_t padded = (fill + kBlock - 1) / kBlock * kBlock;
      std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(fill),
                buffer.begin() + static_cast<std::ptrdiff_t>(padded), 0);
      fill = padded;
    }
    cipherRange(buffer.data(), fill, true, &meter, position);
    if (!out.write(buffer.data(), fill, reason)) return fail(kTeaErrFileWrite, reason);
    position += fill;
    fill = 0;
  }
  meter.finish();
  if (!out.commit(reason)) return fail(kTeaErrFileWrite, reason);
  return true;
}

bool TeaCipher::DecryptFile(const std::string& source, const std::string& target,
                            std::optional<std::string_view> key) {
  error_ = {};
  if (key) Key(*key);
  std::string reason;
  if (files_ == nullptr) return fail(kTeaErrFileRead, "no file system to read the file through");
  SourceFile in(*files_);
  if (!in.open(source, reason)) return fail(kTeaErrFileRead, reason);
  const uint64_t length = in.size();
  if (length < kHeader + 4 || length % kBlock != 0 ||
      length > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
    return fail(kTeaErrSizeDescriptor, std::string(kTeaTextSizeDescriptor));
  }
  // The first two blocks hold the header; check it before writing anything.
  std::vector<uint8_t> buffer(kChunk);
  const size_t first = static_cast<size_t>(std::min<uint64_t>(kChunk, length));
  if (!in.read(buffer.data(), first, reason)) return fail(kTeaErrFileRead, reason);
  uint8_t head[16];
  std::memcpy(head, buffer.data(), sizeof head);
  cipherRange(head, sizeof head, false, nullptr, 0);
  const int64_t n = static_cast<int32_t>(loadLittleEndian(head + 8));
  const int64_t overhead = static_cast<int64_t>(length) - n;
  if (n < 0 || overhead < kMinOverhead || overhead > kMaxOverhead) {
    return fail(kTeaErrSizeDescriptor, std::string(kTeaTextSizeDescriptor));
  }

  SafeTarget out(*files_, target);
  if (!out.open(reason)) return fail(kTeaErrFileWrite, reason);
  TeaProgressMeter meter(Progress, length);
  const uint64_t plainEnd = kHeader + static_cast<uint64_t>(n);
  uint64_t position = 0;
  size_t fill = first;
  for (;;) {
    cipherRange(buffer.data(), fill, false, &meter, position);
    // The part of this chunk that lies in [12, 12 + n).
    const uint64_t from = std::max<uint64_t>(position, kHeader);
    const uint64_t to = std::min<uint64_t>(position + fill, plainEnd);
    if (to > from) {
      if (!out.write(buffer.data() + (from - position), static_cast<size_t>(to - from), reason)) {
        return fail(kTeaErrFileWrite, reason);
      }
    }
    position += fill;
    if (position >= length) break;
    fill = static_cast<size_t>(std::min<uint64_t>(kChunk, length - position));
    if (!in.read(buffer.data(), fill, reason)) return fail(kTeaErrFileRead, reason);
  }
  meter.finish();
  if (!out.commit(reason)) return fail(kTeaErrFileWrite, reason);
  return true;
}

}  // namespace tavrix
