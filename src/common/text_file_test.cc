#include "common/text_file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace tavrix {
namespace {

class TextFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "/textfile-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::filesystem::permissions(dir_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add);
    std::filesystem::remove_all(dir_);
  }

  std::string contents(const std::string& path) {
    std::string text;
    std::string error;
    EXPECT_TRUE(readTextFile(path, text, &error)) << error;
    return text;
  }

  std::vector<std::string> folderEntries(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  // A folder in which no file can be created. Root ignores the permission
  // bits, so there a path below a regular file serves instead.
  std::string unwritableFolder() {
    const std::string folder = dir_ + "/locked";
    if (geteuid() == 0) {
      EXPECT_TRUE(writeTextFileAtomically(folder, {"not a folder"}, nullptr));
      return folder;
    }
    std::filesystem::create_directory(folder);
    chmod(folder.c_str(), 0555);
    return folder;
  }

  std::string dir_;
};

// Reading is bounded: only regular files are read (a FIFO without a writer
// or /dev/zero would block or never end), and a file too large or with a
// line too long is refused with a message naming it.
TEST_F(TextFileTest, ReadsOnlyRegularFilesWithinTheBounds) {
  std::string text;
  std::string error;
  const std::string fifo = dir_ + "/pipe.wts";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(readTextFile(fifo, text, &error));
  EXPECT_EQ(error,
            "Cannot read \"" + fifo + "\": it is not a regular file (a device, FIFO or socket)");
  EXPECT_FALSE(readTextFile("/dev/zero", text, &error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos);
  EXPECT_FALSE(readTextFile(dir_, text, &error));
  EXPECT_NE(error.find("it is a folder"), std::string::npos);

  const std::string file = dir_ + "/big.txt";
  ASSERT_TRUE(writeTextFileAtomically(file, {std::string(100, 'x'), "short"}, nullptr));
  EXPECT_TRUE(readTextFile(file, text, &error, 110, 100)) << error;
  EXPECT_FALSE(readTextFile(file, text, &error, 106, 100));
  EXPECT_EQ(error, "Cannot read \"" + file +
                       "\": it is larger than 106 bytes, the most a text file may hold");
  EXPECT_FALSE(readTextFile(file, text, &error, 1024, 99));
  EXPECT_EQ(error, "Cannot read \"" + file +
                       "\": a line is longer than 99 bytes, the most a line may hold");
  // Lines end at a bare LF as well as at CR, so a file of short LF lines is
  // within the line bound.
  ASSERT_TRUE(
      writeTextFileAtomically(file, {std::string(60, 'a') + "\n" + std::string(60, 'b')}, nullptr));
  EXPECT_TRUE(readTextFile(file, text, &error, 1024, 60)) << error;
}

TEST_F(TextFileTest, WritesLinesWithCrLfAndReplacesTheWholeFile) {
  const std::string path = dir_ + "/results.txt";
  std::string error;
  ASSERT_TRUE(writeTextFileAtomically(path, {"a", "", "b c"}, &error)) << error;
  EXPECT_EQ(contents(path), "a\r\n\r\nb c\r\n");

  ASSERT_TRUE(writeTextFileAtomically(path, {"new"}, &error)) << error;
  EXPECT_EQ(contents(path), "new\r\n");

  ASSERT_TRUE(writeTextFileAtomically(path, {}, &error)) << error;
  EXPECT_EQ(contents(path), "");
  // No temporary file is left behind.
  EXPECT_EQ(folderEntries(dir_), std::vector<std::string>{"results.txt"});
}

TEST_F(TextFileTest, ReplacingAFileKeepsItsPermissions) {
  const std::string path = dir_ + "/setup.txt";
  ASSERT_TRUE(writeTextFileAtomically(path, {"1"}, nullptr));
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(writeTextFileAtomically(path, {"2"}, nullptr));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(TextFileTest, AFailedWriteLeavesNoPartialFile) {
  const std::string folder = unwritableFolder();
  const std::string path = folder + "/results.txt";
  std::string error;
  EXPECT_FALSE(writeTextFileAtomically(path, {"x"}, &error));
  EXPECT_NE(error.find(path), std::string::npos) << error;
  EXPECT_FALSE(std::filesystem::exists(path));
  if (std::filesystem::is_directory(folder)) {
    EXPECT_TRUE(folderEntries(folder).empty());
  }

  // Replacing a file fails when it cannot be renamed over: the old
  // contents stay and no temporary file remains.
  const std::string target = dir_ + "/keep";
  ASSERT_TRUE(std::filesystem::create_directory(target));
  EXPECT_FALSE(writeTextFileAtomically(target, {"x"}, &error));
  EXPECT_NE(error.find(target), std::string::npos) << error;
  EXPECT_TRUE(std::filesystem::is_directory(target));
  auto entries = folderEntries(dir_);
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{"keep", "locked"}));
}

TEST_F(TextFileTest, AppendsWholeLinesAndSaysWhyItCannot) {
  const std::string path = dir_ + "/log.txt";
  std::string error;
  ASSERT_TRUE(appendLines(path, {"first"}, &error)) << error;
  ASSERT_TRUE(appendLines(path, {"second", "third"}, &error)) << error;
  ASSERT_TRUE(appendLines(path, {}, &error)) << error;
  EXPECT_EQ(contents(path), "first\r\nsecond\r\nthird\r\n");

  const std::string locked = unwritableFolder() + "/log.txt";
  EXPECT_FALSE(appendLines(locked, {"x"}, &error));
  EXPECT_NE(error.find("Cannot append to \"" + locked + "\""), std::string::npos) << error;
  // The operating system's reason follows the name.
  EXPECT_GT(error.size(), locked.size() + 22) << error;
  EXPECT_FALSE(std::filesystem::exists(locked));
}

// A results writer killed at an arbitrary instant (here: SIGKILL while it
// appends rows of several lines as fast as it can) may leave part of the
// append it was in; the next append, when the program runs again, cuts that
// part away first. Every earlier row stays whole.
TEST_F(TextFileTest, AWriterKilledWhileAppendingLeavesOnlyWholeRecords) {
  const std::string path = dir_ + "/results.txt";
  const std::string padding(200, '.');
  const auto record = [&](long n) {
    const std::string id = std::to_string(n);
    return std::vector<std::string>{"BEGIN " + id, "a " + padding, "b " + padding, "END " + id};
  };
  ASSERT_TRUE(appendLines(path, {"RESULTS"}, nullptr));
  for (int round = 0; round < 100; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const long first = round * 1000000L;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (long n = first;; ++n) {
        if (!appendLines(path, record(n), nullptr)) _exit(1);
        if (n == first + 50 && write(ready[1], "r", 1) != 1) _exit(1);
      }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);  // 50 rows are on file; the writer goes on
    close(ready[0]);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
  }
  ASSERT_TRUE(appendLines(path, {"AFTER"}, nullptr));

  std::string expected = "RESULTS\r\n";
  const std::string text = contents(path);
  size_t at = expected.size();
  ASSERT_EQ(text.compare(0, at, expected), 0);
  int rounds = 0;
  while (at < text.size() && text.compare(at, 7, "AFTER\r\n") != 0) {
    const long first = std::stol(text.substr(at + 6, 12));
    ASSERT_EQ(first % 1000000L, 0) << "the first row of a writer is missing at " << at;
    long n = first;
    for (;; ++n) {
      std::string whole;
      for (const auto& line : record(n)) whole += line + "\r\n";
      if (text.compare(at, whole.size(), whole) != 0) break;
      at += whole.size();
    }
    EXPECT_GT(n - first, 50) << "writer " << rounds;
    ++rounds;
  }
  EXPECT_EQ(rounds, 100);
  EXPECT_EQ(text.substr(at), "AFTER\r\n");
  EXPECT_EQ(folderEntries(dir_), std::vector<std::string>{"results.txt"});
}

}  // namespace
}  // namespace tavrix
