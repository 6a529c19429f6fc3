// Index files and the three indexing commands, on a temporary folder mapped
// as drive C.

#include "indexing/index_files.h"

#include "common/text_file.h"
#include "common/text_items.h"
#include "indexing/indexing_commands.h"
#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class IndexingTest : public CommandTest {
 protected:
  IndexingTest() { RegisterIndexingCommands(seq_, companion_); }
  Lines ReadLines(const std::string& path) {
    Lines lines;
    readTextLines(files_, path, lines, nullptr);
    return lines;
  }
};

TEST_F(IndexingTest, NumbersRunToTheLimitAndWrap) {
  IndexFileTable table(files_, paths_);
  ASSERT_TRUE(table.add("c:\\idx\\runs.idx", "C:\\DATA\\RUN???.DAT", 999, nullptr));
  std::string message, reason;
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "C:\\DATA\\RUN001.DAT");
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "C:\\DATA\\RUN002.DAT");
  Write("c/idx/runs.idx", {"C:\\DATA\\RUN???.DAT", "999", "998"});
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "C:\\DATA\\RUN999.DAT");
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "C:\\DATA\\RUN001.DAT");

  // A limit above 999 gives four digits; "000" is a minimum width.
  Write("c/idx/big.idx", {"B????", "5000", "999"});
  ASSERT_TRUE(table.add("c:\\idx\\big.idx", "ignored", 1, nullptr));
  EXPECT_EQ(table.issue(2, kTestStart, &message, &reason), "B1000?");
  EXPECT_TRUE(message.empty());
}

TEST_F(IndexingTest, TheFileKeepsItsTemplateAndAShortHistory) {
  Write("c/idx/run.idx", {"C:\\DATA\\RUN???.DAT", "3", "41"});
  IndexFileTable table(files_, paths_);
  // An existing file is left as it is, whatever the parameters say.
  ASSERT_TRUE(table.add("c:/idx/run.idx", "X???", 7, nullptr));
  std::string message, reason;
  EXPECT_EQ(table.issue(1, kTestStart + 61 * kMicrosPerSecond, &message, &reason),
            "C:\\DATA\\RUN001.DAT");
  for (int i = 0; i < 3; ++i) table.issue(1, kTestStart, &message, &reason);
  Lines lines = ReadLines(dir_ + "/c/idx/run.idx");
  ASSERT_EQ(lines.size(), 3u + 4u);
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + 3), (Lines{"C:\\DATA\\RUN???.DAT", "3", "1"}));
  EXPECT_EQ(lines[3], "C:\\DATA\\RUN001.DAT\t01-01-2026 00:00:00");
  EXPECT_EQ(lines.back(), "C:\\DATA\\RUN001.DAT\t01-01-2026 00:01:01");
  // With a limit of 3 the history never holds more than four lines.
  table.issue(1, kTestStart, &message, &reason);
  lines = ReadLines(dir_ + "/c/idx/run.idx");
  EXPECT_EQ(lines.size(), 3u + 4u);
  EXPECT_EQ(lines[3], "C:\\DATA\\RUN002.DAT\t01-01-2026 00:00:00");

  // A template holding a comma is read as a quoted item and written back as
  // one, so every later issue reads it whole.
  Write("c/idx/run.idx", {"\"A,B???.DAT\"", "999", "0"});
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "A,B001.DAT");
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "A,B002.DAT");
  EXPECT_EQ(ReadLines(dir_ + "/c/idx/run.idx")[0], "\"A,B???.DAT\"");
  ASSERT_TRUE(table.add("c:/idx/new.idx", " A,B???", 9, nullptr));
  EXPECT_EQ(table.issue(2, kTestStart, &message, &reason), " A,B001");
  EXPECT_EQ(table.issue(2, kTestStart, &message, &reason), " A,B002");
  table.clear();
  ASSERT_TRUE(table.add("c:/idx/run.idx", "", 0, nullptr));

  Write("c/idx/run.idx", {"C:\\DATA\\RUN41.DAT", "999", "41"});
  EXPECT_EQ(table.issue(1, kTestStart, &message, &reason), "");
  EXPECT_EQ(message, kNoQuestionMarks);
  message.clear();
  EXPECT_EQ(table.issue(2, kTestStart, &message, &reason), "");
  EXPECT_EQ(reason, "there is no index file number 2");
  EXPECT_TRUE(message.empty());
}

TEST_F(IndexingTest, IndexInitReportsAFileItCannotOpen) {
  files_.makeFolders(dir_ + "/c/idx/folder.idx", nullptr);
  IndexFileTable table(files_, paths_);
  std::string message;
  EXPECT_FALSE(table.add("c:\\idx\\folder.idx", "R???", 9, &message));
  EXPECT_EQ(message, "Open c:\\idx\\folder.idx error: -it is a folder");
  EXPECT_EQ(table.count(), 1u);
}

TEST_F(IndexingTest, IndexLoggerFileTypesTheNameIntoTheLogger) {
  EXPECT_EQ(
      Run({"INDEXINIT c:\\idx\\log.idx, C:\\DATA\\RUN???.DAT, 999", "INDEXLOGGERFILE Logger - Run",
           "INDEXLOGGERFILE Logger - Run, 1", "INDEXLOGGERFILE Logger - Run, 2"}),
      "");
  ASSERT_EQ(companion_.calls().size(), 2u);
  EXPECT_EQ(companion_.calls()[0].kind, "keys");
  EXPECT_EQ(companion_.calls()[0].topic, "Logger - Run");
  EXPECT_EQ(companion_.calls()[0].text, "%D%N{DEL}C:\\DATA\\RUN001.DAT~");
  EXPECT_EQ(companion_.calls()[1].text, "%D%N{DEL}C:\\DATA\\RUN002.DAT~");
  EXPECT_EQ(op_.messages.back(), "New Logger data filename could not be created");
  // The sequence goes on after the message.
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);

  EXPECT_EQ(Run({"INDEXINIT c:\\idx\\dirs.idx, C:\\REC\\T???\\, 99", "INDEXLOGGERFILE Logger"}),
            "");
  EXPECT_EQ(op_.messages.back(), "New Logger data filespec is not a valid file specification");
}

TEST_F(IndexingTest, IndexSave580CopiesTheChannelFilesIntoANewFolder) {
  for (int channel = 0; channel < 16; channel += 5) {
    Write("c/rec/chn" + std::to_string(channel) + ".bin", {"data " + std::to_string(channel)});
  }
  Write("c/save/T001/old.bin", {"stale"});
  Write("c/save/T001/notes.txt", {"kept"});
  EXPECT_EQ(Run({"INDEXINIT c:\\idx\\save.idx, c:\\save\\T???\\, 50", "INDEXSAVE580 c:\\rec, bin"}),
            "");
  EXPECT_FALSE(files_.isFile(dir_ + "/c/save/T001/old.bin"));
  EXPECT_TRUE(files_.isFile(dir_ + "/c/save/T001/notes.txt"));
  EXPECT_EQ(ReadLines(dir_ + "/c/save/T001/chn15.bin"), (Lines{"data 15"}));
  EXPECT_TRUE(files_.isFile(dir_ + "/c/save/T001/chn0.bin"));
  EXPECT_FALSE(files_.isFile(dir_ + "/c/save/T001/chn1.bin"));

  EXPECT_EQ(
      Run({"INDEXINIT c:\\idx\\file.idx, c:\\save\\F???.DAT, 50", "INDEXSAVE580 c:\\rec, bin"}),
      "");
  EXPECT_EQ(op_.messages.back(), "Indexed filespec for IndexSave580 is not a valid directory name");
  EXPECT_EQ(Run({"INDEXSAVE580 c:\\rec, bin, 3"}), "");
  EXPECT_EQ(op_.messages.back(), "New 580 data directory name could not be created");
}

}  // namespace
}  // namespace tavrix
