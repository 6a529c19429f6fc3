#include "crypto/tea.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>

#include "common/file_system.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using ::testing::ElementsAre;

std::vector<uint8_t> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

std::vector<uint8_t> sample(size_t n) {
  std::vector<uint8_t> data(n);
  for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 37 + 11);
  return data;
}

uint32_t bigEndianAt(const std::vector<uint8_t>& b, size_t at) {
  return uint32_t{b[at]} << 24 | uint32_t{b[at + 1]} << 16 | uint32_t{b[at + 2]} << 8 |
         uint32_t{b[at + 3]};
}

// The frame before encipherment: deciphers every block of `frame`.
std::vector<uint8_t> plainFrame(std::vector<uint8_t> frame, const TeaKey& key) {
  for (size_t pos = 0; pos + 8 <= frame.size(); pos += 8) {
    uint32_t y = bigEndianAt(frame, pos);
    uint32_t z = bigEndianAt(frame, pos + 4);
    teaDecipher(y, z, key);
    for (int i = 0; i < 4; ++i) {
      frame[pos + i] = static_cast<uint8_t>(y >> (24 - 8 * i));
      frame[pos + 4 + i] = static_cast<uint8_t>(z >> (24 - 8 * i));
    }
  }
  return frame;
}

// The inverse of plainFrame, for building frames by hand.
std::vector<uint8_t> encipheredFrame(std::vector<uint8_t> frame, const TeaKey& key) {
  for (size_t pos = 0; pos + 8 <= frame.size(); pos += 8) {
    uint32_t y = bigEndianAt(frame, pos);
    uint32_t z = bigEndianAt(frame, pos + 4);
    teaEncipher(y, z, key);
    for (int i = 0; i < 4; ++i) {
      frame[pos + i] = static_cast<uint8_t>(y >> (24 - 8 * i));
      frame[pos + 4 + i] = static_cast<uint8_t>(z >> (24 - 8 * i));
    }
  }
  return frame;
}

// The published key 01234567 12345678 23456789 3456789A as key text.
const std::string kPublishedKeyText(
    "\x01\x23\x45\x67\x12\x34\x56\x78\x23\x45\x67\x89\x34\x56\x78\x9a", 16);

TEST(TeaBlock, PublishedTestVectors) {
  struct Vector {
    TeaKey key;
    uint32_t y, z, cy, cz;
  };
  const TeaKey zero{0, 0, 0, 0};
  const TeaKey counting{0x01234567, 0x12345678, 0x23456789, 0x3456789A};
  const Vector vectors[] = {
      {zero, 0x00000000, 0x00000000, 0x41EA3A0A, 0x94BAA940},
      {zero, 0x01020304, 0x05060708, 0x6A2F9CF3, 0xFCCF3C55},
      {counting, 0x00000000, 0x00000000, 0x34E943B0, 0x900F5DCB},
      {counting, 0x01020304, 0x05060708, 0x773DC179, 0x878A81C0},
  };
  for (const Vector& v : vectors) {
    uint32_t y = v.y, z = v.z;
    teaEncipher(y, z, v.key);
    EXPECT_EQ(y, v.cy);
    EXPECT_EQ(z, v.cz);
    teaDecipher(y, z, v.key);
    EXPECT_EQ(y, v.y);
    EXPECT_EQ(z, v.z);
  }
  // All-ones words exercise the carries of the 32-bit wrap-around.
  const TeaKey ones{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
  uint32_t y = 0xFFFFFFFF, z = 0xFFFFFFFF;
  teaEncipher(y, z, ones);
  teaDecipher(y, z, ones);
  EXPECT_EQ(y, 0xFFFFFFFFu);
  EXPECT_EQ(z, 0xFFFFFFFFu);
}

TEST(TeaKey, DerivedBigEndianFromSixteenBytes) {
  EXPECT_EQ(teaKeyFromText(""), (TeaKey{0, 0, 0, 0}));
  EXPECT_EQ(teaKeyFromText("AB"), (TeaKey{0x41420000, 0, 0, 0}));
  EXPECT_EQ(teaKeyFromText("OSKIRA"), (TeaKey{0x4F534B49, 0x52410000, 0, 0}));
  EXPECT_EQ(teaKeyFromText("ABCDEFGHIJKLMNOPQRST"), teaKeyFromText("ABCDEFGHIJKLMNOP"));
  EXPECT_EQ(teaKeyFromText("ABCDEFGHIJKLMNOP"),
            (TeaKey{0x41424344, 0x45464748, 0x494A4B4C, 0x4D4E4F50}));
  EXPECT_EQ(teaKeyFromText(kPublishedKeyText),
            (TeaKey{0x01234567, 0x12345678, 0x23456789, 0x3456789A}));
}

TEST(TeaFrame, LayoutMatchesPublishedVectors) {
  // Random word 0 and filler 0 make the first block all zeros; twelve bytes
  // of plaintext put 01..08 into the third block, so whole blocks of the
  // frame are the published vectors.
  TeaCipher tea([] { return 0.0; });
  tea.useFiles(testFiles());
  std::vector<uint8_t> data{0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(tea.EncryptByte(data, ""));
  ASSERT_EQ(data.size(), 24u);
  EXPECT_THAT(std::vector<uint8_t>(data.begin(), data.begin() + 8),
              ElementsAre(0x41, 0xEA, 0x3A, 0x0A, 0x94, 0xBA, 0xA9, 0x40));
  EXPECT_THAT(std::vector<uint8_t>(data.begin() + 16, data.end()),
              ElementsAre(0x6A, 0x2F, 0x9C, 0xF3, 0xFC, 0xCF, 0x3C, 0x55));
  // The middle block holds the length 12 little-endian, read big-endian.
  uint32_t y = 0x0C000000, z = 0;
  teaEncipher(y, z, TeaKey{});
  EXPECT_EQ(bigEndianAt(data, 8), y);
  EXPECT_EQ(bigEndianAt(data, 12), z);

  data = {0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(tea.EncryptByte(data, kPublishedKeyText));
  ASSERT_EQ(data.size(), 24u);
  EXPECT_EQ(bigEndianAt(data, 0), 0x34E943B0u);
  EXPECT_EQ(bigEndianAt(data, 4), 0x900F5DCBu);
  EXPECT_EQ(bigEndianAt(data, 16), 0x773DC179u);
  EXPECT_EQ(bigEndianAt(data, 20), 0x878A81C0u);

  // Nothing to encrypt: header and four zero bytes, two all-zero blocks.
  EXPECT_EQ(TeaCipher([] { return 0.0; }).EncryptString("", "", true),
            "41EA3A0A94BAA94041EA3A0A94BAA940");
}

TEST(TeaFrame, HeaderWordsLittleEndianAndZeroPadding) {
  const TeaKey key = teaKeyFromText("frame key");
  TeaCipher tea([] { return 0.5; });
  tea.useFiles(testFiles());  // 0.5 x 2147483647 -> 1073741823 = 0x3FFFFFFF

  std::vector<uint8_t> data = bytesOf("hello");
  ASSERT_TRUE(tea.EncryptByte(data, "frame key"));
  ASSERT_EQ(data.size(), 24u);
  EXPECT_THAT(plainFrame(data, key), ElementsAre(0xFF, 0xFF, 0xFF, 0x3F, 0, 0, 0, 0, 5, 0, 0, 0,  //
                                                 'h', 'e', 'l', 'l', 'o', 0, 0, 0, 0, 0, 0, 0));

  // Frame lengths: n + 12 rounded up to a multiple of 8; the length word
  // carries the higher bytes of n in its later bytes.
  const struct {
    size_t n, frame;
  } sizes[] = {{0, 16}, {4, 16}, {5, 24}, {7, 24}, {12, 24}, {13, 32}, {300, 312}, {1000, 1016}};
  for (const auto& size : sizes) {
    std::vector<uint8_t> frame = sample(size.n);
    ASSERT_TRUE(tea.EncryptByte(frame));
    EXPECT_EQ(frame.size(), size.frame) << size.n;
    const std::vector<uint8_t> plain = plainFrame(frame, key);
    EXPECT_EQ(plain[8], size.n & 0xFF) << size.n;
    EXPECT_EQ(plain[9], size.n >> 8) << size.n;
    EXPECT_EQ(plain[10], 0) << size.n;
    EXPECT_EQ(plain[11], 0) << size.n;
    for (size_t i = 12 + size.n; i < plain.size(); ++i) EXPECT_EQ(plain[i], 0) << size.n;
  }
}

TEST(TeaFrame, RandomWordMakesEachFrameDifferent) {
  std::vector<double> draws{0.25, 0.75};
  size_t next = 0;
  TeaCipher seeded([&] { return draws[next++ % draws.size()]; });
  seeded.useFiles(testFiles());
  const auto first = seeded.EncryptString("same data", "k");
  const auto second = seeded.EncryptString("same data", "k");
  ASSERT_TRUE(first && second);
  EXPECT_NE(*first, *second);
  EXPECT_EQ(seeded.DecryptString(*first, "k"), "same data");
  EXPECT_EQ(seeded.DecryptString(*second, "k"), "same data");

  // The clock-seeded default as well.
  TeaCipher clocked;
  clocked.useFiles(testFiles());
  const auto a = clocked.EncryptString("same data", "k");
  const auto b = clocked.EncryptString("same data", "k");
  ASSERT_TRUE(a && b);
  EXPECT_NE(*a, *b);
  EXPECT_EQ(clocked.DecryptString(*a, "k"), "same data");
  EXPECT_EQ(clocked.DecryptString(*b, "k"), "same data");
}

TEST(TeaRoundTrip, BytesAndStringsOfEverySize) {
  TeaCipher tea;
  tea.useFiles(testFiles());
  tea.Key("round trip key");
  for (size_t n : {0, 1, 7, 8, 9, 1000}) {
    const std::vector<uint8_t> original = sample(n);
    std::vector<uint8_t> data = original;
    ASSERT_TRUE(tea.EncryptByte(data)) << n;
    EXPECT_NE(data, original) << n;
    ASSERT_TRUE(tea.DecryptByte(data)) << n;
    EXPECT_EQ(data, original) << n;
    EXPECT_EQ(tea.LastError().number, 0u);

    const std::string text(original.begin(), original.end());  // NULs and high bytes too
    const auto raw = tea.EncryptString(text);
    ASSERT_TRUE(raw) << n;
    EXPECT_EQ(tea.DecryptString(*raw), text) << n;
    const auto hex = tea.EncryptString(text, std::nullopt, true);
    ASSERT_TRUE(hex) << n;
    EXPECT_EQ(hex->size(), raw->size() * 2) << n;
    EXPECT_EQ(tea.DecryptString(*hex, std::nullopt, true), text) << n;
  }
  // A key given with a call stays set for the calls after it.
  std::vector<uint8_t> data = sample(20);
  ASSERT_TRUE(tea.EncryptByte(data, "other key"));
  ASSERT_TRUE(tea.DecryptByte(data));
  EXPECT_EQ(data, sample(20));
}

TEST(TeaHex, UpperCaseDigitPairsAndLenientReading) {
  TeaCipher tea([] { return 0.0; });
  tea.useFiles(testFiles());
  const auto hex = tea.EncryptString("Hex text", "hex key", true);
  ASSERT_TRUE(hex);
  EXPECT_EQ(hex->size(), 48u);
  EXPECT_EQ(hex->find_first_not_of("0123456789ABCDEF"), std::string::npos) << *hex;
  const auto raw = tea.EncryptString("Hex text", "hex key");
  ASSERT_TRUE(raw);
  for (size_t i = 0; i < raw->size(); ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned char>((*raw)[i]));
    EXPECT_EQ(hex->substr(2 * i, 2), pair) << i;
  }
  // Lower-case digits read the same.
  std::string lower = *hex;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(tea.DecryptString(lower, "hex key", true), "Hex text");
  // Raw text read as hex does not make a frame.
  EXPECT_EQ(tea.DecryptString("not hex at all, not hex at all, !", "hex key", true), std::nullopt);
  EXPECT_EQ(tea.LastError().number, kTeaErrSizeDescriptor);
}

TEST(TeaDecrypt, BadSizeDescriptorIsReportedAndLeavesDataAlone) {
  TeaCipher tea([] { return 0.0; });
  tea.useFiles(testFiles());
  std::vector<uint8_t> frame = sample(30);
  ASSERT_TRUE(tea.EncryptByte(frame, "right key"));

  auto expectSizeError = [&](std::vector<uint8_t> data, std::string_view key, const char* what) {
    const std::vector<uint8_t> before = data;
    EXPECT_FALSE(tea.DecryptByte(data, key)) << what;
    EXPECT_EQ(tea.LastError().number, 0x80040000u) << what;
    EXPECT_EQ(tea.LastError().description, "Incorrect size descriptor in TEA decryption") << what;
    EXPECT_EQ(data, before) << what;
  };
  expectSizeError(frame, "wrong key", "wrong key");
  std::vector<uint8_t> damaged = frame;
  damaged[9] ^= 0x01;  // the block that holds the length
  expectSizeError(damaged, "right key", "damaged length block");
  expectSizeError({frame.begin(), frame.end() - 8}, "right key", "frame cut short");
  expectSizeError({frame.begin(), frame.end() - 1}, "right key", "not whole blocks");
  expectSizeError({}, "right key", "empty");
  expectSizeError(std::vector<uint8_t>(8), "right key", "one block");
  // A string decryption meets the same check.
  EXPECT_EQ(tea.DecryptString("sixteen bytes!!!", "right key"), std::nullopt);
  EXPECT_EQ(tea.LastError().number, kTeaErrSizeDescriptor);

  // The check accepts a frame length minus n from 12 to 19, and no negative n.
  const TeaKey key = teaKeyFromText("right key");
  auto handMade = [&](size_t frameLength, int32_t n) {
    std::vector<uint8_t> plain(frameLength, 0xAB);
    const auto word = static_cast<uint32_t>(n);
    for (int i = 0; i < 4; ++i) plain[8 + i] = static_cast<uint8_t>(word >> (8 * i));
    return encipheredFrame(plain, key);
  };
  std::vector<uint8_t> data = handMade(24, 12);
  ASSERT_TRUE(tea.DecryptByte(data));
  EXPECT_EQ(data, std::vector<uint8_t>(12, 0xAB));
  data = handMade(24, 5);
  ASSERT_TRUE(tea.DecryptByte(data));
  EXPECT_EQ(data, std::vector<uint8_t>(5, 0xAB));
  expectSizeError(handMade(24, 13), "right key", "overhead 11");
  expectSizeError(handMade(24, 4), "right key", "overhead 20");
  expectSizeError(handMade(16, -1), "right key", "negative length");

  // A success clears the error.
  data = frame;
  ASSERT_TRUE(tea.DecryptByte(data, "right key"));
  EXPECT_EQ(tea.LastError().number, 0u);
  EXPECT_EQ(tea.LastError().description, "");
}

TEST(TeaProgress, PercentsAtThresholdsEndingWithHundred) {
  std::vector<int> seen;
  TeaCipher tea([] { return 0.0; });
  tea.useFiles(testFiles());
  tea.Progress = [&](int percent) { seen.push_back(percent); };

  std::vector<uint8_t> data;  // a 16-byte frame: blocks at 0 and 8
  ASSERT_TRUE(tea.EncryptByte(data, "p"));
  EXPECT_THAT(seen, ElementsAre(0, 50, 100));
  seen.clear();
  ASSERT_TRUE(tea.DecryptByte(data));
  EXPECT_THAT(seen, ElementsAre(0, 50, 100));

  seen.clear();
  data = sample(5);  // 24 bytes: blocks at 0, 8, 16
  ASSERT_TRUE(tea.EncryptByte(data));
  EXPECT_THAT(seen, ElementsAre(0, 33, 66, 100));

  // 6400 bytes, 800 blocks: every whole percent once, each 8 blocks apart.
  seen.clear();
  data = sample(6388);
  ASSERT_TRUE(tea.EncryptByte(data));
  std::vector<int> expected;
  for (int p = 0; p <= 100; ++p) expected.push_back(p);
  EXPECT_EQ(seen, expected);

  // Progress also runs for strings; a failed decryption does not repeat it.
  seen.clear();
  ASSERT_TRUE(tea.EncryptString("", "p"));
  EXPECT_THAT(seen, ElementsAre(0, 50, 100));
  seen.clear();
  EXPECT_FALSE(tea.DecryptString("sixteen bytes!!!", "p"));
  EXPECT_THAT(seen, ElementsAre(0, 50, 100));
}

class TempFolder {
 public:
  std::string file(const std::string& name) const { return scratch_.file(name); }
  size_t count() const {
    std::vector<std::string> names;
    testFiles().list(scratch_.path(), names, nullptr);
    return names.size();
  }

 private:
  ScratchFolder scratch_;
};

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  testFiles().writeAtomically(path, std::string(bytes.begin(), bytes.end()), nullptr);
}

std::vector<uint8_t> readFile(const std::string& path) {
  std::string bytes;
  testFiles().readFile(path, bytes, nullptr);
  return {bytes.begin(), bytes.end()};
}

bool exists(const std::string& path) { return testFiles().info(path).kind != FileKind::kMissing; }

TEST(TeaFiles, RoundTripAndFailuresLeaveNoPartialFile) {
  TempFolder folder;
  TeaCipher tea;
  tea.useFiles(testFiles());
  for (size_t n : {0, 1, 7, 8, 9, 1000}) {
    const std::string plain = folder.file("plain" + std::to_string(n));
    const std::string sealed = folder.file("sealed" + std::to_string(n));
    const std::string back = folder.file("back" + std::to_string(n));
    writeFile(plain, sample(n));
    ASSERT_TRUE(tea.EncryptFile(plain, sealed, "file key")) << tea.LastError().description;
    EXPECT_EQ(readFile(sealed).size(), (n + 12 + 7) / 8 * 8) << n;
    ASSERT_TRUE(tea.DecryptFile(sealed, back)) << tea.LastError().description;
    EXPECT_EQ(readFile(back), sample(n)) << n;
  }
  EXPECT_EQ(folder.count(), 18u);

  // Decrypting over an existing file replaces it.
  writeFile(folder.file("back7"), bytesOf("stale content, longer than seven bytes"));
  ASSERT_TRUE(tea.DecryptFile(folder.file("sealed7"), folder.file("back7")));
  EXPECT_EQ(readFile(folder.file("back7")), sample(7));

  // A wrong key: the target keeps its old content and no stray file appears.
  EXPECT_FALSE(tea.DecryptFile(folder.file("sealed9"), folder.file("back7"), "wrong key"));
  EXPECT_EQ(tea.LastError().number, kTeaErrSizeDescriptor);
  EXPECT_EQ(readFile(folder.file("back7")), sample(7));
  EXPECT_FALSE(tea.DecryptFile(folder.file("sealed9"), folder.file("new"), "wrong key"));
  EXPECT_FALSE(exists(folder.file("new")));
  EXPECT_EQ(folder.count(), 18u);

  EXPECT_FALSE(tea.DecryptFile(folder.file("missing"), folder.file("out"), "file key"));
  EXPECT_EQ(tea.LastError().number, kTeaErrFileRead);
  EXPECT_THAT(tea.LastError().description, ::testing::HasSubstr(folder.file("missing")));

  EXPECT_FALSE(tea.EncryptFile(folder.file("plain8"), folder.file("no/such/folder/x"), "k"));
  EXPECT_EQ(tea.LastError().number, kTeaErrFileWrite);
  EXPECT_THAT(tea.LastError().description, ::testing::HasSubstr("no/such/folder/x"));

  // A folder in the target's place cannot be replaced.
  testFiles().makeFolders(folder.file("taken"), nullptr);
  EXPECT_FALSE(tea.EncryptFile(folder.file("plain8"), folder.file("taken"), "k"));
  EXPECT_EQ(tea.LastError().number, kTeaErrFileWrite);
  EXPECT_EQ(folder.count(), 19u);
}

TEST(TeaFiles, StreamedFramesMatchTheByteFramesAcrossChunkEdges) {
  TempFolder folder;
  constexpr size_t kChunk = 64 * 1024;
  for (size_t n : {kChunk - 12, kChunk - 13, kChunk - 4, kChunk + 5, 3 * kChunk + 1001}) {
    const std::string plain = folder.file("plain");
    writeFile(plain, sample(n));
    std::vector<int> fileProgress;
    std::vector<int> byteProgress;
    TeaCipher streamed([] { return 0.25; });
    streamed.useFiles(testFiles());
    streamed.Progress = [&](int p) { fileProgress.push_back(p); };
    ASSERT_TRUE(streamed.EncryptFile(plain, folder.file("sealed"), "chunk key"));
    TeaCipher whole([] { return 0.25; });
    whole.useFiles(testFiles());
    whole.Progress = [&](int p) { byteProgress.push_back(p); };
    std::vector<uint8_t> frame = sample(n);
    ASSERT_TRUE(whole.EncryptByte(frame, "chunk key"));
    EXPECT_EQ(readFile(folder.file("sealed")), frame) << n;
    EXPECT_EQ(fileProgress, byteProgress) << n;

    fileProgress.clear();
    byteProgress.clear();
    ASSERT_TRUE(streamed.DecryptFile(folder.file("sealed"), folder.file("back")));
    ASSERT_TRUE(whole.DecryptByte(frame));
    EXPECT_EQ(readFile(folder.file("back")), sample(n)) << n;
    EXPECT_EQ(fileProgress, byteProgress) << n;
  }
}

TEST(TeaFiles, DamagedFramesGiveTheSizeDescriptorErrorAndNoFile) {
  TempFolder folder;
  TeaCipher tea([] { return 0.5; });
  tea.useFiles(testFiles());
  std::vector<uint8_t> frame = sample(100);
  ASSERT_TRUE(tea.EncryptByte(frame, "k"));

  // A frame whose length field says `n`, enciphered with key "k".
  auto withLength = [&](uint32_t n, size_t frameLength) {
    std::vector<uint8_t> raw(frameLength, 0);
    raw[8] = static_cast<uint8_t>(n);
    raw[9] = static_cast<uint8_t>(n >> 8);
    raw[10] = static_cast<uint8_t>(n >> 16);
    raw[11] = static_cast<uint8_t>(n >> 24);
    const TeaKey key = teaKeyFromText("k");
    for (size_t i = 0; i < 16; i += 8) {
      uint32_t y = uint32_t{raw[i]} << 24 | uint32_t{raw[i + 1]} << 16 | uint32_t{raw[i + 2]} << 8 |
                   raw[i + 3];
      uint32_t z = uint32_t{raw[i + 4]} << 24 | uint32_t{raw[i + 5]} << 16 |
                   uint32_t{raw[i + 6]} << 8 | raw[i + 7];
      teaEncipher(y, z, key);
      for (int b = 0; b < 4; ++b) {
        raw[i + b] = static_cast<uint8_t>(y >> (24 - 8 * b));
        raw[i + 4 + b] = static_cast<uint8_t>(z >> (24 - 8 * b));
      }
    }
    return raw;
  };
  std::vector<uint8_t> truncated(frame.begin(), frame.end() - 8);
  std::vector<uint8_t> ragged(frame.begin(), frame.end() - 3);
  std::vector<uint8_t> random(4096);
  for (size_t i = 0; i < random.size(); ++i) random[i] = static_cast<uint8_t>(i * 97 + 13);
  const std::vector<std::vector<uint8_t>> bad = {{},
                                                 bytesOf("short"),
                                                 truncated,
                                                 ragged,
                                                 random,
                                                 withLength(0x7FFFFFFF, 64),
                                                 withLength(0xFFFFFFF0u, 16),
                                                 withLength(0x80000000u, 32),
                                                 withLength(40, 48)};
  int i = 0;
  for (const auto& bytes : bad) {
    const std::string name = "bad" + std::to_string(i++);
    writeFile(folder.file(name), bytes);
    EXPECT_FALSE(tea.DecryptFile(folder.file(name), folder.file(name + ".out"), "k")) << name;
    EXPECT_EQ(tea.LastError().number, kTeaErrSizeDescriptor) << name;
    EXPECT_EQ(tea.LastError().description, "Incorrect size descriptor in TEA decryption");
    EXPECT_FALSE(exists(folder.file(name + ".out"))) << name;
  }
  EXPECT_EQ(folder.count(), bad.size());
  // The same frame with its right length decrypts.
  writeFile(folder.file("good"), withLength(33, 48));
  EXPECT_TRUE(tea.DecryptFile(folder.file("good"), folder.file("good.out"), "k"));
  EXPECT_EQ(readFile(folder.file("good.out")).size(), 33u);
}

}  // namespace
}  // namespace tavrix
