#include "crypto/encrypted_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "common/file_system.h"
#include "crypto/tea.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Outcome = CounterpartName::Outcome;

TEST(EncryptedNames, PlainCounterpartOfEachEncryptedKind) {
  struct Case {
    const char* name;
    const char* source;
    const char* destination;
  };
  const Case cases[] = {
      {"c:\\seqs\\PUMP.WTE", "c:\\seqs\\PUMP.wte", "c:\\seqs\\PUMP.wts"},
      {"data.wle", "data.wle", "data.wl"},
      {"results.TxE", "results.txe", "results.txt"},
      {"/rig/out/run7.xme", "/rig/out/run7.xme", "/rig/out/run7.xml"},
  };
  for (const Case& c : cases) {
    const CounterpartName name = plainCounterpart(c.name);
    EXPECT_EQ(name.outcome, Outcome::kRecognised) << c.name;
    EXPECT_EQ(name.source, c.source);
    EXPECT_EQ(name.destination, c.destination);
    EXPECT_EQ(name.message, "");
  }

  EXPECT_EQ(plainCounterpart("").outcome, Outcome::kEmpty);
  EXPECT_EQ(plainCounterpart("c:\\seqs\\PUMP").outcome, Outcome::kNoExtension);

  // The split is at the first ".", so a dotted folder name is not recognised.
  for (const char* bad : {"c:\\test.old\\seq.wte", "seq.wts", "seq.wte.bak", "seq.", "x.we"}) {
    const CounterpartName name = plainCounterpart(bad);
    EXPECT_EQ(name.outcome, Outcome::kNotRecognised) << bad;
    EXPECT_EQ(name.message,
              std::string("File extension not recognised by encrypt software: ") + bad);
    EXPECT_EQ(name.destination, "");
  }
}

TEST(EncryptedNames, EncryptedCounterpartOfEachPlainKind) {
  EXPECT_EQ(encryptedCounterpart("c:\\seqs\\PUMP.WTS").destination, "c:\\seqs\\PUMP.wte");
  EXPECT_EQ(encryptedCounterpart("log.WL").destination, "log.wle");
  EXPECT_EQ(encryptedCounterpart("notes.txt").destination, "notes.txe");
  EXPECT_EQ(encryptedCounterpart("res.Xml").destination, "res.xme");
  EXPECT_EQ(encryptedCounterpart("res.xme").outcome, Outcome::kNotRecognised);
  EXPECT_EQ(overwriteQuestion("c:\\seqs\\PUMP.wts"),
            "File c:\\seqs\\PUMP.wts already exists - overwrite");
}

class TempFolder {
 public:
  std::string file(const std::string& name) const { return scratch_.file(name); }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    testFiles().list(scratch_.path(), out, nullptr);
    std::sort(out.begin(), out.end());
    return out;
  }

 private:
  ScratchFolder scratch_{true};
};

void writeFile(const std::string& path, const std::string& content) {
  testFiles().writeAtomically(path, content, nullptr);
}

std::string readFile(const std::string& path) {
  std::string text;
  testFiles().readFile(path, text, nullptr);
  return text;
}

TEST(EncryptedFiles, EncryptThenDecryptNextToTheSource) {
  TempFolder folder;
  for (size_t n : {0, 1, 7, 8, 9, 1000}) {
    std::string content;
    for (size_t i = 0; i < n; ++i) content.push_back(static_cast<char>(i * 13 + 5));
    const std::string plain = folder.file("seq" + std::to_string(n) + ".wts");
    writeFile(plain, content);
    std::string error;
    ASSERT_TRUE(encryptFile(testFiles(), plain, "", kDefaultUtilityKey, &error)) << error;
    const std::string sealed = folder.file("seq" + std::to_string(n) + ".wte");
    EXPECT_EQ(readFile(sealed).size(), (n + 12 + 7) / 8 * 8);
    testFiles().remove(plain, nullptr);
    ASSERT_TRUE(decryptFile(testFiles(), sealed, "", kDefaultUtilityKey, &error)) << error;
    EXPECT_EQ(readFile(plain), content) << n;
  }

  // The utility key is the text key OSKIRA: a frame made by TeaCipher with it
  // decrypts, to an explicitly named output as well.
  TeaCipher tea;
  tea.useFiles(testFiles());
  const auto frame = tea.EncryptString("1,2,3\r\n", "OSKIRA");
  ASSERT_TRUE(frame);
  writeFile(folder.file("LOG.WLE"), *frame);
  std::string error;
  ASSERT_TRUE(decryptFile(testFiles(), folder.file("LOG.WLE"), "", kDefaultUtilityKey, &error))
      << error;
  EXPECT_EQ(readFile(folder.file("LOG.wl")), "1,2,3\r\n");
  ASSERT_TRUE(
      decryptFile(testFiles(), folder.file("LOG.WLE"), folder.file("copy"), "OSKIRA", &error));
  EXPECT_EQ(readFile(folder.file("copy")), "1,2,3\r\n");
}

TEST(EncryptedFiles, FailuresExplainThemselvesAndLeaveNoPartialOutput) {
  TempFolder folder;
  std::string error;
  writeFile(folder.file("a.wts"), "WAITSECONDS 5\r\n");
  ASSERT_TRUE(encryptFile(testFiles(), folder.file("a.wts"), "", "OSKIRA", &error)) << error;
  writeFile(folder.file("a.wts"), "previous plain file");

  // A wrong key: the existing plain file stays as it was.
  EXPECT_FALSE(decryptFile(testFiles(), folder.file("a.wte"), "", "WRONG", &error));
  EXPECT_THAT(error, StartsWith("Failed to decrypt " + folder.file("a.wte")));
  EXPECT_THAT(error, HasSubstr("Incorrect size descriptor in TEA decryption"));
  EXPECT_EQ(readFile(folder.file("a.wts")), "previous plain file");

  // A damaged file.
  writeFile(folder.file("b.wte"), "this is not a frame at all......");
  EXPECT_FALSE(decryptFile(testFiles(), folder.file("b.wte"), "", "OSKIRA", &error));
  EXPECT_THAT(error, HasSubstr("Incorrect size descriptor in TEA decryption"));
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"a.wte", "a.wts", "b.wte"}));

  // A missing file.
  EXPECT_FALSE(decryptFile(testFiles(), folder.file("gone.wte"), "", "OSKIRA", &error));
  EXPECT_THAT(error, StartsWith("Failed to decrypt " + folder.file("gone.wte")));
  EXPECT_THAT(error, HasSubstr("No such file or directory"));

  // A folder that cannot be written to.
  EXPECT_FALSE(decryptFile(testFiles(), folder.file("a.wte"), folder.file("missing/a.wts"),
                           "OSKIRA", &error));
  EXPECT_THAT(error, HasSubstr("cannot write file " + folder.file("missing/a.wts")));
  EXPECT_FALSE(encryptFile(testFiles(), folder.file("a.wts"), folder.file("missing/a.wte"),
                           "OSKIRA", &error));
  EXPECT_THAT(error, StartsWith("Failed to encrypt " + folder.file("a.wts")));

  // No output name can be made for an unknown extension.
  writeFile(folder.file("c.dat"), "x");
  EXPECT_FALSE(decryptFile(testFiles(), folder.file("c.dat"), "", "OSKIRA", &error));
  EXPECT_THAT(error, HasSubstr("File extension not recognised by encrypt software: "));
  EXPECT_FALSE(encryptFile(testFiles(), folder.file("c.dat"), "", "OSKIRA", &error));

  EXPECT_EQ(folder.names(), (std::vector<std::string>{"a.wte", "a.wts", "b.wte", "c.dat"}));
  // The error pointer is optional.
  EXPECT_FALSE(decryptFile(testFiles(), folder.file("b.wte"), "", "OSKIRA", nullptr));
}

}  // namespace
}  // namespace tavrix
