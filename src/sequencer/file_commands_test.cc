// COPYFILE, FILEDELETE, LOGONCE and WAIT580 on a temporary folder mapped as
// drive C.

#include "common/text_file.h"
#include "common/text_items.h"
#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

class FileCommandsTest : public CommandTest {
 protected:
  std::string Read(const std::string& path) {
    std::string text;
    readTextFile(files_, path, text, nullptr);
    return text;
  }
};

TEST_F(FileCommandsTest, CopyFileCopiesIntoFilesAndFolders) {
  Write("c/data/a.txt", {"one", "two"});
  files_.makeFolders(dir_ + "/c/backup", nullptr);
  EXPECT_EQ(
      Run({"COPYFILE c:\\data\\a.txt, c:\\data\\b.txt", "COPYFILE c:/data/a.txt, c:\\backup"}), "");
  EXPECT_EQ(Read(dir_ + "/c/data/b.txt"), "one\r\ntwo\r\n");
  EXPECT_EQ(Read(dir_ + "/c/backup/a.txt"), "one\r\ntwo\r\n");
  const std::string missing = Run({"COPYFILE c:\\data\\none.txt, c:\\data\\c.txt"});
  EXPECT_EQ(missing.rfind("CopyFile - ", 0), 0u) << missing;
  EXPECT_FALSE(files_.isFile(dir_ + "/c/data/c.txt"));
  const std::string noFolder = Run({"COPYFILE c:\\data\\a.txt, c:\\nowhere\\c.txt"});
  EXPECT_EQ(noFolder.rfind("CopyFile - Cannot write", 0), 0u) << noFolder;
  EXPECT_EQ(Run({"COPYFILE c:\\data\\a.txt"}),
            "CopyFile - a source and a destination file are needed");
  EXPECT_EQ(Run({"COPYFILE c:\\data, c:\\x"}), "CopyFile - c:\\data is a folder, not a file");
}

TEST_F(FileCommandsTest, FileDeleteTakesNamesAndWildcards) {
  for (const char* name : {"c/d/run1.dat", "c/d/run2.dat", "c/d/run1.txt", "c/d/keep.dat"})
    Write(name, {"x"});
  EXPECT_EQ(Run({"FILEDELETE c:\\d\\run?.dat", "FILEDELETE c:\\d\\run1.txt",
                 "FILEDELETE c:\\d\\gone.txt"}),
            "");
  EXPECT_FALSE(files_.isFile(dir_ + "/c/d/run1.dat"));
  EXPECT_FALSE(files_.isFile(dir_ + "/c/d/run2.dat"));
  EXPECT_FALSE(files_.isFile(dir_ + "/c/d/run1.txt"));
  EXPECT_TRUE(files_.isFile(dir_ + "/c/d/keep.dat"));
  EXPECT_EQ(Run({"FILEDELETE c:\\d"}), "FileDelete - c:\\d is a folder, not a file");
  EXPECT_EQ(Run({"FILEDELETE"}), "FileDelete - no file given");
}

TEST_F(FileCommandsTest, LogOnceWritesEachTextOncePerRun) {
  const std::string noFolder = Run({"LOGONCE c:\\log.txt, x"});
  EXPECT_EQ(noFolder.rfind("LogOnce - Cannot append", 0), 0u) << noFolder;
  files_.makeFolders(dir_ + "/c", nullptr);
  EXPECT_EQ(
      Run({"RESETLOOPCOUNT", "TOP:", "LOOPCHECK 3, DONE", "LOGONCE c:\\log.txt, started, cold",
           "WAITRANDOM 1, 1", "GOTO TOP", "DONE:", "LOGONCE c:\\log.txt, finished"}),
      "");
  EXPECT_EQ(Read(dir_ + "/c/log.txt"),
            "01-01-2026 00:00:00\tstarted, cold\r\n01-01-2026 00:00:03\tfinished\r\n");
  Run({"LOGONCE c:\\log.txt, finished"});  // a new run logs again
  EXPECT_EQ(splitLines(Read(dir_ + "/c/log.txt")).size(), 3u);
  EXPECT_EQ(Run({"LOGONCE , text"}), "LogOnce - no log file given");
}

TEST_F(FileCommandsTest, Wait580EndsWhenTheRecorderHasCaptured) {
  Timer recorder(events_, 4 * kMicrosPerSecond, [&] {
    Write("c/rec/STATUS.HDW", {Elapsed() < 5 ? "ARMED" : "Captured 16 channels"});
  });
  recorder.setEnabled(true);
  EXPECT_EQ(Run({"WAIT580 c:\\rec"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 8.0);
  recorder.setEnabled(false);
  EXPECT_EQ(Run({"WAIT580"}), "Wait580 - no recorder folder given");

  // Without a status file it waits until the sequence time-out.
  EXPECT_EQ(Run({"ONTIMEOUT 30, LATE", "WAIT580 c:\\none", "STOP", "LATE:"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 8.0 + 31.0);
}

}  // namespace
}  // namespace tavrix
