#include "sequencer/sequence_file.h"

#include <gtest/gtest.h>

#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

class SequenceFileTest : public ::testing::Test {
 protected:
  void Write(const std::string& text) { files_.put(path_, text); }
  std::vector<std::string> ReadAll() {
    std::vector<std::string> lines;
    std::string error;
    EXPECT_TRUE(file_.open(files_, path_, &error)) << error;
    std::string line;
    while (file_.readLine(line)) lines.push_back(line);
    return lines;
  }
  MemoryFileSystem files_;
  std::string path_ = "/data/seq.wts";
  SequenceFile file_;
};

TEST_F(SequenceFileTest, LinesEndAtCarriageReturnsOnly) {
  Write("  ONE\r\n\t\tTWO\rTHREE\n\n\r\nFOUR");
  EXPECT_EQ(ReadAll(), (std::vector<std::string>{"ONE", "TWO", "THREE", "FOUR"}));
  // A file of bare line feeds is one long line whose inner line feeds stay.
  Write("GOTO A\nSTOP\n");
  EXPECT_EQ(ReadAll(), (std::vector<std::string>{"GOTO A\nSTOP"}));
}

TEST(CleanReadLine, TrimsThenCutsAtAnInnerCarriageReturn) {
  std::string line = "   \t\tWAIT T1 > 5\n\n";
  EXPECT_EQ(CleanReadLine(line), 0u);
  EXPECT_EQ(line, "WAIT T1 > 5");
  // Blanks go before tabs, not after them.
  line = "\t  X";
  CleanReadLine(line);
  EXPECT_EQ(line, "  X");
  line = "AB\rCDE\r\r";
  EXPECT_EQ(CleanReadLine(line), 3u);
  EXPECT_EQ(line, "AB");
}

TEST_F(SequenceFileTest, FindsTheFirstLineContainingTheTarget) {
  Write("XSTART:\r\nSTART:\r\n  loop:\r\nEND\r\n");
  std::string error;
  ASSERT_TRUE(file_.open(files_, path_, &error));
  EXPECT_EQ(file_.findLineContaining("START:"), 0u);  // a substring, not a line start
  EXPECT_EQ(file_.findLineContaining("LOOP:"), 2u);   // upper-cased text
  EXPECT_EQ(file_.findLineContaining("NONE:"), std::nullopt);
  file_.skipPast(2);
  std::string line;
  ASSERT_TRUE(file_.readLine(line));
  EXPECT_EQ(line, "END");
  EXPECT_EQ(file_.linesRead(), 4u);
}

TEST_F(SequenceFileTest, ReopeningSeesAChangedFile) {
  Write("A:\r\nONE\r\n");
  std::string error;
  ASSERT_TRUE(file_.open(files_, path_, &error));
  EXPECT_EQ(file_.findLineContaining("B:"), std::nullopt);
  Write("ZERO\r\nB:\r\nTWO AND MORE\r\n");  // a different size, so surely seen as changed
  ASSERT_TRUE(file_.open(files_, path_, &error));
  EXPECT_EQ(file_.findLineContaining("B:"), 1u);
}

TEST_F(SequenceFileTest, RefusesWhatIsNoTextFile) {
  Write(std::string("STOP\r\nAB\0CD\r\n", 12));
  std::string error;
  EXPECT_FALSE(file_.open(files_, path_, &error));
  EXPECT_NE(error.find("NUL byte on line 2"), std::string::npos) << error;
  EXPECT_FALSE(file_.open(files_, "/nonexistent/x.wts", &error));
  EXPECT_NE(error.find("/nonexistent/x.wts"), std::string::npos);
  EXPECT_FALSE(file_.open(files_, "/data", &error));
  EXPECT_NE(error.find("it is a folder"), std::string::npos) << error;
}

TEST_F(SequenceFileTest, AMultiMegabyteLineIsReadWhole) {
  Write("WAITSECONDS " + std::string(5'000'000, '9') + "\r\nSTOP\r\n");
  const auto lines = ReadAll();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size(), 5'000'012u);
}

}  // namespace
}  // namespace tavrix
