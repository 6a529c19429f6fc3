#include "sequencer/line_splitter.h"

#include <gtest/gtest.h>

namespace tavrix {
namespace {

CommandLine Split(std::string line) { return SplitCommandLine(line); }

TEST(LineSplitter, CutsWordAndThreeArguments) {
  struct Case {
    std::string line, word, arg1, arg2, arg3;
  } cases[] = {
      {"waitseconds 5", "WAITSECONDS", "5", "", ""},
      {"SEND T1, 2.5", "SEND", "T1", "2.5", ""},
      {"RAMP A, B, C, D", "RAMP", "A", "B", "C, D"},
      {"STOP", "STOP", "", "", ""},
      // Only the word is upper-cased; the arguments keep their case.
      {"send Temp1, On", "SEND", "Temp1", "On", ""},
      // A second blank after the word starts the first argument.
      {"GOTO  LABEL1", "GOTO", " LABEL1", "", ""},
      // A blank before the comma stays in the first argument; the second
      // keeps its trailing blanks but loses its leading ones.
      {"SEND T1 , 5", "SEND", "T1 ", "5", ""},
      {"X a,  b  ,  c", "X", "a", "b  ", "c"},
      // Only a blank ends the word.
      {"WAITSECONDS,5", "WAITSECONDS,5", "", "", ""},
      {"START:", "START:", "", "", ""},
      {"\t\tSTOP   ", "STOP", "", "", ""},
      {"A ,,", "A", "", "", ""},
  };
  for (const auto& c : cases) {
    const CommandLine got = Split(c.line);
    EXPECT_EQ(got.word, c.word) << c.line;
    EXPECT_EQ(got.arg1, c.arg1) << c.line;
    EXPECT_EQ(got.arg2, c.arg2) << c.line;
    EXPECT_EQ(got.arg3, c.arg3) << c.line;
  }
}

TEST(LineSplitter, WritesTheCleanedLineBack) {
  std::string line = "\t\tWAIT T1 > 5   ";
  SplitCommandLine(line);
  EXPECT_EQ(line, "WAIT T1 > 5");
  // Tabs and blanks only: an empty word, which matches no keyword.
  std::string blank = "\t \t  ";
  EXPECT_EQ(SplitCommandLine(blank).word, "");
  std::string tabs = "\t\t";
  EXPECT_EQ(SplitCommandLine(tabs).word, "");
}

}  // namespace
}  // namespace tavrix
