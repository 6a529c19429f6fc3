#include "common/text_items.h"

#include <gtest/gtest.h>

#include "common/text_file.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

std::vector<std::string> allItems(std::string text) {
  TextItemReader reader(std::move(text));
  std::vector<std::string> items;
  std::string item;
  while (reader.next(item)) items.push_back(item);
  EXPECT_TRUE(reader.atEnd());
  return items;
}

using Items = std::vector<std::string>;

TEST(SplitLines, AcceptsEveryLineEnd) {
  EXPECT_EQ(splitLines("a\r\nb\r\n"), (Items{"a", "b"}));
  EXPECT_EQ(splitLines("a\nb\rc"), (Items{"a", "b", "c"}));
  EXPECT_EQ(splitLines("a\r\n\r\nb"), (Items{"a", "", "b"}));
  EXPECT_EQ(splitLines("a\r\r\nb"), (Items{"a", "", "b"}));
  EXPECT_EQ(splitLines("a\n\r"), (Items{"a", ""}));
  EXPECT_EQ(splitLines("\r\n"), (Items{""}));
  EXPECT_EQ(splitLines(""), (Items{}));
  EXPECT_EQ(splitLines(" a\tb "), (Items{" a\tb "}));
}

TEST(TextItemReader, EndsItemsAtCommasAndLineEnds) {
  EXPECT_EQ(allItems("1,2,3\r\n4\r\n"), (Items{"1", "2", "3", "4"}));
  EXPECT_EQ(allItems("a\nb\rc"), (Items{"a", "b", "c"}));
  EXPECT_EQ(allItems("  left , right  ,  both  \r\n"), (Items{"left", "right", "both"}));
  // Tabs are not blanks.
  EXPECT_EQ(allItems("\ta\t,b"), (Items{"\ta\t", "b"}));
  EXPECT_EQ(allItems(""), (Items{}));
}

TEST(TextItemReader, KeepsEmptyItems) {
  EXPECT_EQ(allItems("a,,b"), (Items{"a", "", "b"}));
  EXPECT_EQ(allItems(",a"), (Items{"", "a"}));
  EXPECT_EQ(allItems("a,\r\nb"), (Items{"a", "", "b"}));
  EXPECT_EQ(allItems("a,"), (Items{"a", ""}));
  EXPECT_EQ(allItems("a, \r\n"), (Items{"a", ""}));
  EXPECT_EQ(allItems("a\r\n\r\nb\r\n"), (Items{"a", "", "b"}));
}

TEST(TextItemReader, QuotesProtectCommas) {
  EXPECT_EQ(allItems("\"a,b\",c\r\n"), (Items{"a,b", "c"}));
  EXPECT_EQ(allItems("  \" padded \"  ,x"), (Items{" padded ", "x"}));
  EXPECT_EQ(allItems("\"\",\"\""), (Items{"", ""}));
  EXPECT_EQ(allItems("\"q\"\r\n\"r\"\r\n"), (Items{"q", "r"}));
  // After the closing quote the rest of the item is skipped.
  EXPECT_EQ(allItems("\"a\"junk,b"), (Items{"a", "b"}));
  // A quote left open ends at the line end.
  EXPECT_EQ(allItems("\"open,still\r\nnext"), (Items{"open,still", "next"}));
  // A quote inside an unquoted item is an ordinary character.
  EXPECT_EQ(allItems("5\" pipe,x"), (Items{"5\" pipe", "x"}));
}

TEST(TextItemReader, ReportsTheEndBeforeAnItemIsAskedFor) {
  TextItemReader reader("a,\r\n");
  std::string item = "untouched";
  EXPECT_FALSE(reader.atEnd());
  ASSERT_TRUE(reader.next(item));
  EXPECT_EQ(item, "a");
  EXPECT_FALSE(reader.atEnd());
  ASSERT_TRUE(reader.next(item));
  EXPECT_EQ(item, "");
  EXPECT_TRUE(reader.atEnd());
  item = "untouched";
  EXPECT_FALSE(reader.next(item));
  EXPECT_EQ(item, "untouched");
}

class TextFileReading : public ::testing::Test {
 protected:
  MemoryFileSystem files_;
  std::string dir_ = "/data";
};

TEST_F(TextFileReading, ReadsItemsAndLinesOfAFileOrSaysWhyNot) {
  const std::string path = dir_ + "/limits.txt";
  ASSERT_TRUE(writeTextFileAtomically(files_, path, {"\"TC1, inlet\",12.5", "TC2,13"}, nullptr));

  TextItemReader reader("");
  std::string error;
  ASSERT_TRUE(TextItemReader::open(files_, path, reader, &error)) << error;
  std::vector<std::string> items;
  std::string item;
  while (reader.next(item)) items.push_back(item);
  EXPECT_EQ(items, (Items{"TC1, inlet", "12.5", "TC2", "13"}));

  std::vector<std::string> lines;
  ASSERT_TRUE(readTextLines(files_, path, lines, &error)) << error;
  EXPECT_EQ(lines, (Items{"\"TC1, inlet\",12.5", "TC2,13"}));

  const std::string missing = dir_ + "/missing.txt";
  EXPECT_FALSE(TextItemReader::open(files_, missing, reader, &error));
  EXPECT_NE(error.find(missing), std::string::npos) << error;
  EXPECT_NE(error.find("No such file"), std::string::npos) << error;
  error.clear();
  EXPECT_FALSE(readTextLines(files_, missing, lines, &error));
  EXPECT_NE(error.find(missing), std::string::npos) << error;
  // A failed open leaves the reader as it was.
  EXPECT_TRUE(reader.atEnd());
}

}  // namespace
}  // namespace tavrix
