#include "common/file_system.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "common/text_file.h"

namespace tavrix {
namespace {

class TextFileTest : public ::testing::Test {
 protected:
  void TearDown() override { chmod(locked_.c_str(), 0755); }

  std::string contents(const std::string& path) {
    std::string text;
    std::string error;
    EXPECT_TRUE(readTextFile(files_, path, text, &error)) << error;
    return text;
  }

  std::vector<std::string> folderEntries(const std::string& folder) {
    std::vector<std::string> names;
    EXPECT_TRUE(files_.list(folder, names, nullptr));
    std::sort(names.begin(), names.end());
    return names;
  }

  // A folder in which no file can be created. Root ignores the permission
  // bits, so there a path below a regular file serves instead.
  std::string unwritableFolder() {
    const std::string folder = dir_ + "/locked";
    if (geteuid() == 0) {
      EXPECT_TRUE(writeTextFileAtomically(files_, folder, {"not a folder"}, nullptr));
      return folder;
    }
    EXPECT_TRUE(files_.makeFolders(folder, nullptr));
    chmod(folder.c_str(), 0555);
    locked_ = folder;
    return folder;
  }

  ScratchFolder scratch_;
  LocalFileSystem files_{scratch_.path()};
  std::string dir_ = scratch_.path();
  std::string locked_;
};

// Reading is bounded: only regular files are read (a FIFO without a writer
// or /dev/zero would block or never end), and a file too large or with a
// line too long is refused with a message naming it.
TEST_F(TextFileTest, ReadsOnlyRegularFilesWithinTheBounds) {
  std::string text;
  std::string error;
  const std::string fifo = dir_ + "/pipe.wts";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(readTextFile(files_, fifo, text, &error));
  EXPECT_EQ(error,
            "Cannot read \"" + fifo + "\": it is not a regular file (a device, FIFO or socket)");
  EXPECT_FALSE(readTextFile(files_, "/dev/zero", text, &error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos);
  EXPECT_FALSE(readTextFile(files_, dir_, text, &error));
  EXPECT_NE(error.find("it is a folder"), std::string::npos);

  const std::string file = dir_ + "/big.txt";
  ASSERT_TRUE(writeTextFileAtomically(files_, file, {std::string(100, 'x'), "short"}, nullptr));
  EXPECT_TRUE(readTextFile(files_, file, text, &error, 110, 100)) << error;
  EXPECT_FALSE(readTextFile(files_, file, text, &error, 106, 100));
  EXPECT_EQ(error, "Cannot read \"" + file +
                       "\": it is larger than 106 bytes, the most a text file may hold");
  EXPECT_FALSE(readTextFile(files_, file, text, &error, 1024, 99));
  EXPECT_EQ(error, "Cannot read \"" + file +
                       "\": a line is longer than 99 bytes, the most a line may hold");
  // Lines end at a bare LF as well as at CR, so a file of short LF lines is
  // within the line bound.
  ASSERT_TRUE(writeTextFileAtomically(
      files_, file, {std::string(60, 'a') + "\n" + std::string(60, 'b')}, nullptr));
  EXPECT_TRUE(readTextFile(files_, file, text, &error, 1024, 60)) << error;
}

TEST_F(TextFileTest, WritesLinesWithCrLfAndReplacesTheWholeFile) {
  const std::string path = dir_ + "/results.txt";
  std::string error;
  ASSERT_TRUE(writeTextFileAtomically(files_, path, {"a", "", "b c"}, &error)) << error;
  EXPECT_EQ(contents(path), "a\r\n\r\nb c\r\n");

  ASSERT_TRUE(writeTextFileAtomically(files_, path, {"new"}, &error)) << error;
  EXPECT_EQ(contents(path), "new\r\n");

  ASSERT_TRUE(writeTextFileAtomically(files_, path, {}, &error)) << error;
  EXPECT_EQ(contents(path), "");
  // No temporary file is left behind.
  EXPECT_EQ(folderEntries(dir_), std::vector<std::string>{"results.txt"});
}

TEST_F(TextFileTest, ReplacingAFileKeepsItsPermissions) {
  const std::string path = dir_ + "/setup.txt";
  ASSERT_TRUE(writeTextFileAtomically(files_, path, {"1"}, nullptr));
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(writeTextFileAtomically(files_, path, {"2"}, nullptr));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(TextFileTest, AFailedWriteLeavesNoPartialFile) {
  const std::string folder = unwritableFolder();
  const std::string path = folder + "/results.txt";
  std::string error;
  EXPECT_FALSE(writeTextFileAtomically(files_, path, {"x"}, &error));
  EXPECT_NE(error.find(path), std::string::npos) << error;
  EXPECT_FALSE(files_.info(path).kind != FileKind::kMissing);
  if (files_.isFolder(folder)) {
    EXPECT_TRUE(folderEntries(folder).empty());
  }

  // Replacing a file fails when it cannot be renamed over: the old
  // contents stay and no temporary file remains.
  const std::string target = dir_ + "/keep";
  ASSERT_TRUE(files_.makeFolders(target, nullptr));
  EXPECT_FALSE(writeTextFileAtomically(files_, target, {"x"}, &error));
  EXPECT_NE(error.find(target), std::string::npos) << error;
  EXPECT_TRUE(files_.isFolder(target));
  EXPECT_EQ(folderEntries(dir_), (std::vector<std::string>{"keep", "locked"}));
}

TEST_F(TextFileTest, AppendsWholeLinesAndSaysWhyItCannot) {
  const std::string path = dir_ + "/log.txt";
  std::string error;
  ASSERT_TRUE(appendLines(files_, path, {"first"}, &error)) << error;
  ASSERT_TRUE(appendLines(files_, path, {"second", "third"}, &error)) << error;
  ASSERT_TRUE(appendLines(files_, path, {}, &error)) << error;
  EXPECT_EQ(contents(path), "first\r\nsecond\r\nthird\r\n");

  const std::string locked = unwritableFolder() + "/log.txt";
  EXPECT_FALSE(appendLines(files_, locked, {"x"}, &error));
  EXPECT_NE(error.find("Cannot append to \"" + locked + "\""), std::string::npos) << error;
  // The operating system's reason follows the name.
  EXPECT_GT(error.size(), locked.size() + 22) << error;
  EXPECT_FALSE(files_.info(locked).kind != FileKind::kMissing);
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
  ASSERT_TRUE(appendLines(files_, path, {"RESULTS"}, nullptr));
  for (int round = 0; round < 100; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const long first = round * 1000000L;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (long n = first;; ++n) {
        if (!appendLines(files_, path, record(n), nullptr)) _exit(1);
        if (n == first + 5 && write(ready[1], "r", 1) != 1) _exit(1);
      }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);  // 5 rows are on file; the writer goes on
    close(ready[0]);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
  }
  ASSERT_TRUE(appendLines(files_, path, {"AFTER"}, nullptr));

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
    EXPECT_GT(n - first, 5) << "writer " << rounds;
    ++rounds;
  }
  EXPECT_EQ(rounds, 100);
  EXPECT_EQ(text.substr(at), "AFTER\r\n");
  EXPECT_EQ(folderEntries(dir_), std::vector<std::string>{"results.txt"});
}

// What a writer killed in the middle of an append leaves beside the file (a
// marker holding the file's length before the append, and the file's
// identity) cuts back only that file: a rewrite of the file since, or a file
// put in its place, keeps everything it holds.
TEST_F(TextFileTest, AnAppendCutOffByAKillCutsBackOnlyTheFileItWasMadeOn) {
  const std::string path = dir_ + "/journal.txt";
  const std::string marker = dir_ + "/.journal.txt.appending";
  auto leaveMarker = [&](const std::string& text) {
    ASSERT_TRUE(files_.writeAtomically(marker, text, nullptr));
  };
  auto identity = [&] {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return std::to_string(st.st_dev) + " " + std::to_string(st.st_ino);
  };

  // The killed writer's half line goes.
  ASSERT_TRUE(files_.writeAtomically(path, "one\ntwo\nhalf a li", nullptr));
  leaveMarker("8 " + identity() + "\n");
  ASSERT_TRUE(files_.append(path, "three\n", nullptr));
  EXPECT_EQ(contents(path), "one\ntwo\nthree\n");

  // The file was rewritten after the writer died: the marker is gone with
  // the old file, and the new one is kept whole.
  leaveMarker("4 " + identity() + "\n");
  ASSERT_TRUE(files_.writeAtomically(path, "rewritten, with what still waits\n", nullptr));
  ASSERT_TRUE(files_.append(path, "four\n", nullptr));
  EXPECT_EQ(contents(path), "rewritten, with what still waits\nfour\n");

  // A marker of some other file (another node) leaves this one alone.
  leaveMarker("4 0 0\n");
  ASSERT_TRUE(files_.append(path, "five\n", nullptr));
  EXPECT_EQ(contents(path), "rewritten, with what still waits\nfour\nfive\n");
  EXPECT_EQ(folderEntries(dir_), std::vector<std::string>{"journal.txt"});
}

}  // namespace
}  // namespace tavrix

namespace tavrix {
namespace {

// The temporary file of a rewrite: removed when the rewrite is abandoned,
// when the program ends at a signal (removeUnfinishedRewrites), and, when
// its writer was killed outright, by the next rewrite of the same file.
TEST_F(TextFileTest, TemporaryFilesOfRewritesNeverStayBehind) {
  const std::string path = dir_ + "/big.wts";
  {
    auto file = files_.rewrite(path, nullptr);
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(file->write("half of it", nullptr));
    EXPECT_EQ(folderEntries(dir_).size(), 1u);
  }
  EXPECT_TRUE(folderEntries(dir_).empty());

  auto pending = files_.rewrite(path, nullptr);
  ASSERT_NE(pending, nullptr);
  ASSERT_TRUE(pending->write("interrupted", nullptr));
  removeUnfinishedRewrites();
  EXPECT_TRUE(folderEntries(dir_).empty());
  pending.reset();

  // A writer that died: its process number is free again.
  const pid_t gone = fork();
  ASSERT_GE(gone, 0);
  if (gone == 0) _exit(0);
  ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
  const std::string stale = dir_ + "/.big.wts." + std::to_string(gone) + "-0.tmp";
  const std::string other = dir_ + "/.other.wts." + std::to_string(gone) + "-0.tmp";
  ASSERT_TRUE(files_.writeAtomically(stale, "28 MB of a decrypt", nullptr));
  ASSERT_TRUE(files_.writeAtomically(other, "not this file's", nullptr));
  ASSERT_TRUE(files_.writeAtomically(path, "STOP\r\n", nullptr));
  EXPECT_EQ(folderEntries(dir_),
            (std::vector<std::string>{".other.wts." + std::to_string(gone) + "-0.tmp", "big.wts"}));
}

// The folder lock keeps out other processes until it is let go, gives up
// after its bounded wait with a clear message, and may be taken again by
// the thread that holds it.
TEST_F(TextFileTest, FolderLocksExcludeOtherProcessesForABoundedTime) {
  const std::string path = dir_ + "/summary.txt";
  auto held = files_.lock(path, nullptr);
  ASSERT_NE(held, nullptr);
  auto again = files_.lock(dir_ + "/details.txt", nullptr);  // the same thread, the same folder
  ASSERT_NE(again, nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    LocalFileSystem other(dir_);
    other.setLockWait(50);
    std::string error;
    const bool refused = other.lock(path, &error) == nullptr &&
                         error.find("another program kept it locked") != std::string::npos;
    _exit(refused ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  again.reset();
  held.reset();
  const pid_t next = fork();
  ASSERT_GE(next, 0);
  if (next == 0) {
    LocalFileSystem other(dir_);
    other.setLockWait(0);
    _exit(other.lock(path, nullptr) != nullptr ? 0 : 1);
  }
  ASSERT_EQ(waitpid(next, &status, 0), next);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace tavrix
