#include "crypt_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli_test_support.h"
#include "crypto/tea.h"
#include "run_command.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using ::testing::HasSubstr;

class CryptCliTest : public CliTestBase {
 protected:
  // Encrypted files are named by their first ".": a folder without one.
  CryptCliTest() : CliTestBase(true) {}
  std::string Read(const std::string& name) const {
    std::string text;
    testFiles().readFile(Path(name), text, nullptr);
    return text;
  }
  size_t Count() const {
    std::vector<std::string> names;
    testFiles().list(dir_, names, nullptr);
    return names.size();
  }
  // An encrypted file made with `key`.
  std::string Sealed(const std::string& name, const std::string& plain, std::string_view key) {
    TeaCipher tea;
    tea.useFiles(testFiles());
    const std::string source = File("source.tmp", plain);
    EXPECT_TRUE(tea.EncryptFile(source, Path(name), key));
    testFiles().remove(source, nullptr);
    return Path(name);
  }
};

TEST_F(CryptCliTest, DecryptWritesThePlainCounterpartWithTheUtilityKey) {
  const std::string sealed = Sealed("PUMP.WTE", "WAITSECONDS 5\r\n", "OSKIRA");
  EXPECT_EQ(Cli({"decrypt", sealed}), kCryptDone) << err_;
  EXPECT_EQ(Read("PUMP.wts"), "WAITSECONDS 5\r\n");
  EXPECT_EQ(out_, Path("PUMP.wts") + "\n");
  // Not a terminal: no progress bar.
  EXPECT_EQ(err_, "");

  // The logger extension gets its "e" removed.
  Sealed("data.wle", "log", "OSKIRA");
  EXPECT_EQ(Cli({"decrypt", Path("data.wle")}), kCryptDone) << err_;
  EXPECT_EQ(Read("data.wl"), "log");
}

TEST_F(CryptCliTest, AnExistingDestinationIsReplacedOnlyAfterYes) {
  const std::string sealed = Sealed("run.txe", "new text", "OSKIRA");
  File("run.txt", "old text");
  // No operator can answer: nothing changes.
  EXPECT_EQ(Cli({"decrypt", sealed}), kCryptDeclined);
  EXPECT_THAT(err_, HasSubstr("File " + Path("run.txt") + " already exists - overwrite"));
  EXPECT_EQ(Read("run.txt"), "old text");

  File("no.answers", "OVERWRITE: No\n");
  EXPECT_EQ(Cli({"decrypt", "--answers", Path("no.answers"), sealed}), kCryptDeclined);
  EXPECT_EQ(Read("run.txt"), "old text");

  File("yes.answers", "OVERWRITE: Yes\n");
  EXPECT_EQ(Cli({"decrypt", "--answers", Path("yes.answers"), sealed}), kCryptDone) << err_;
  EXPECT_EQ(Read("run.txt"), "new text");

  File("run.txt", "old again");
  EXPECT_EQ(Cli({"decrypt", sealed, "--yes"}), kCryptDone) << err_;
  EXPECT_EQ(Read("run.txt"), "new text");
}

TEST_F(CryptCliTest, FailuresLeaveNoFileAndSayWhy) {
  const std::string wrongKey = Sealed("a.xme", "<x/>", "not the utility key");
  EXPECT_EQ(Cli({"decrypt", wrongKey}), kCryptFailed);
  EXPECT_THAT(err_, HasSubstr("Failed to decrypt " + wrongKey));
  EXPECT_THAT(err_, HasSubstr("Incorrect size descriptor in TEA decryption"));
  EXPECT_FALSE(testFiles().isFile(Path("a.xml")));

  File("empty.wte", "");
  EXPECT_EQ(Cli({"decrypt", Path("empty.wte")}), kCryptFailed);
  EXPECT_THAT(err_, HasSubstr("Incorrect size descriptor"));
  EXPECT_EQ(Cli({"decrypt", Path("missing.wte")}), kCryptFailed);
  EXPECT_THAT(err_, HasSubstr("Failed to decrypt " + Path("missing.wte")));
  EXPECT_EQ(Count(), 2u);  // a.xme, empty.wte

  EXPECT_EQ(Cli({"decrypt", Path("notes.doc")}), kCryptUsage);
  EXPECT_THAT(err_,
              HasSubstr("File extension not recognised by encrypt software: " + Path("notes.doc")));
  EXPECT_EQ(Cli({"decrypt", dir_ + "/noextension"}), kCryptUsage);
  // The first "." splits the name, so a dotted folder is not recognised.
  EXPECT_EQ(Cli({"decrypt", "/tmp/test.old/seq.wte"}), kCryptUsage);
  EXPECT_EQ(Cli({"decrypt"}), kExitUsage);
}

TEST_F(CryptCliTest, EncryptThenDecryptWithAKey) {
  File("seq.wts", "STOP\r\n");
  EXPECT_EQ(Cli({"encrypt", Path("seq.wts"), "--key", "secret"}), kCryptDone) << err_;
  EXPECT_EQ(out_, Path("seq.wte") + "\n");
  TeaCipher tea;
  tea.useFiles(testFiles());
  ASSERT_TRUE(tea.DecryptFile(Path("seq.wte"), Path("back"), "secret"));
  EXPECT_EQ(Read("back"), "STOP\r\n");
  // Without --key the utility key is used, which decrypt takes.
  testFiles().remove(Path("seq.wte"), nullptr);
  EXPECT_EQ(Cli({"encrypt", Path("seq.wts")}), kCryptDone) << err_;
  testFiles().remove(Path("seq.wts"), nullptr);
  EXPECT_EQ(Cli({"decrypt", Path("seq.wte")}), kCryptDone) << err_;
  EXPECT_EQ(Read("seq.wts"), "STOP\r\n");
  EXPECT_EQ(Cli({"encrypt", Path("seq.wte")}), kCryptUsage);
}

}  // namespace
}  // namespace tavrix
