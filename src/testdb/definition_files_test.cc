#include "testdb/definition_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/test_files.h"
#include "testing/testdb_fixture.h"

namespace tavrix {
namespace {

using ::testing::ElementsAre;
using testing_support::TempFolder;

const std::string kT = "\t";

TEST(SplitTabFields, FieldsAreNumberedFromOneAndKeepEmptyFields) {
  EXPECT_THAT(SplitTabFields("a\tb\t\tc\t"), ElementsAre("", "a", "b", "", "c", ""));
  EXPECT_THAT(SplitTabFields("whole line, no tabs"), ElementsAre("", "whole line, no tabs"));
  EXPECT_THAT(SplitTabFields(""), ElementsAre("", ""));
  EXPECT_THAT(SplitTabFields("\t"), ElementsAre("", "", ""));
}

class DefinitionFilesTest : public ::testing::Test {
 protected:
  DefinitionFilesTest() : paths_(folder_.path() + "/drives") {
    options_.paths = &paths_;
    options_.files = &testFiles();
    options_.currentDirectory = "/work/here";
    options_.showMessage = [this](const std::string& text) { messages_.push_back(text); };
  }

  std::string Fields() {
    return folder_.Write("fields.txt",
                         {"TEST SEQUENCE - FIELD NAMES", "Field Name" + kT + "Flag" + kT + "Flag2",
                          "Operator" + kT + "true" + kT + "FALSE" + kT + "x" + kT + "y",
                          "Serial" + kT + "FALSE" + kT + "True" + kT + "s4" + kT + "s5"});
  }
  std::string Stages(std::vector<std::string> rows) {
    rows.insert(rows.begin(), {"TEST SEQUENCE - STAGE CHECKS", "Step Number" + kT + "Type"});
    return folder_.Write("stages.txt", rows);
  }
  std::string DetailsRow(const std::string& title, const std::string& version,
                         const std::string& results = "<none>") {
    std::string row = title + kT + "x" + kT + version + kT + "y" + kT + folder_.path() +
                      "/fields.txt" + kT + folder_.path() + "/stages.txt";
    if (results != "<none>") row += kT + results;
    return row;
  }
  bool Read(const std::vector<std::string>& detailsLines) {
    definition_ = {};
    messages_.clear();
    return ReadTestDefinitionFiles(folder_.Write("details.txt", detailsLines), options_,
                                   definition_);
  }

  TempFolder folder_;
  PathMap paths_;
  DefinitionReadOptions options_;
  std::vector<std::string> messages_;
  TestDefinition definition_;
};

TEST_F(DefinitionFilesTest, HighestVersionWinsNumericallyAndTheFirstOfEqualOnes) {
  Fields();
  Stages({});
  ASSERT_TRUE(Read({"A comment line before the header", "Test Sequence - Details",
                    "Title" + kT + "-" + kT + "Version", DetailsRow("Old", "2", "c:\\old"),
                    DetailsRow("New", "10", "c:\\results"), DetailsRow("Same", "10", "d:\\same")}));
  EXPECT_EQ(definition_.details.title, "New");
  EXPECT_EQ(definition_.details.versionText, "10");
  EXPECT_EQ(definition_.details.version, 10.0f);
  EXPECT_EQ(definition_.details.resultsDirectory, "c:\\results\\");
  EXPECT_TRUE(messages_.empty());

  // Without field 7 the results go to the current directory.
  ASSERT_TRUE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));
  EXPECT_EQ(definition_.details.resultsDirectory, "/work/here\\");
  // A directory that already ends in "\" keeps its one backslash.
  ASSERT_TRUE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1", "r\\")}));
  EXPECT_EQ(definition_.details.resultsDirectory, "r\\");
  // A row whose version is not above -1 is never chosen.
  EXPECT_FALSE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "-3")}));
  EXPECT_THAT(messages_,
              ElementsAre(std::string(kMsgNoDetailsRow) + folder_.path() + "/details.txt"));
}

TEST_F(DefinitionFilesTest, FieldNamesAndStageRows) {
  Fields();
  Stages({"1" + kT + "MEASURE" + kT + "PRESS" + kT + kT + "1.5" + kT + "2.5" + kT + "Pressure" +
              kT + "bar" + kT + "Check the gauge",
          "   ", "", "3.6" + kT + "manual", "2.5" + kT + "RECORD" + kT + "FLOW",
          "abc" + kT + "DIFFERENCE" + kT + "P1" + kT + "P2" + kT + "-1" + kT + "1"});
  ASSERT_TRUE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));

  ASSERT_EQ(definition_.fieldNames.size(), 2u);
  const FieldName& op = definition_.fieldNames[0];
  EXPECT_EQ(op.name, "Operator");
  EXPECT_TRUE(op.firstFlag);
  EXPECT_FALSE(op.secondFlag);
  EXPECT_EQ(op.text4, "x");
  EXPECT_EQ(op.text5, "");  // present, but the second flag is false
  EXPECT_EQ(definition_.fieldNames[1].text5, "s5");
  EXPECT_TRUE(definition_.fieldNames[1].secondFlag);

  // Blank lines are skipped; step numbers are rounded (half to even).
  ASSERT_EQ(definition_.stageChecks.size(), 4u);
  const StageCheck& m = definition_.stageChecks[0];
  EXPECT_EQ(m.step, 1);
  EXPECT_EQ(m.type, "MEASURE");
  EXPECT_EQ(m.channel, "PRESS");
  EXPECT_EQ(m.secondChannel, "");
  EXPECT_EQ(m.lower, 1.5f);
  EXPECT_EQ(m.upper, 2.5f);
  EXPECT_EQ(m.text7, "Pressure");
  EXPECT_EQ(m.text8, "bar");
  EXPECT_EQ(m.text9, "Check the gauge");
  EXPECT_EQ(definition_.stageChecks[1].step, 4);
  EXPECT_EQ(definition_.stageChecks[1].text9, "");
  EXPECT_EQ(definition_.stageChecks[2].step, 2);
  EXPECT_EQ(definition_.stageChecks[3].step, 0);  // non-numeric text is 0
  EXPECT_EQ(definition_.stageChecks[3].lower, -1.0f);
}

TEST_F(DefinitionFilesTest, HeaderFaultsShowTheirMessageAndFailTheLoad) {
  Stages({});
  // The field names file's fault names the details file in its wording.
  folder_.Write("fields.txt", {"TEST SEQUENCE - FIELD NAMES", "Name" + kT + "Flag"});
  EXPECT_FALSE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));
  EXPECT_THAT(messages_, ElementsAre("Column titles not in the expected place in details file: " +
                                     folder_.path() + "/fields.txt"));

  // A header as the last line: the column titles are missing.
  Fields();
  EXPECT_FALSE(Read({"title", "TEST SEQUENCE - DETAILS"}));
  EXPECT_THAT(messages_, ElementsAre("Column titles not in the expected place in details file: " +
                                     folder_.path() + "/details.txt"));

  Stages({});
  folder_.Write("stages.txt", {"TEST SEQUENCE - STAGE CHECKS", "", "Step Number"});
  EXPECT_FALSE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));
  EXPECT_THAT(messages_, ElementsAre("Column titles not in the expected place in Stages file: " +
                                     folder_.path() + "/stages.txt"));
  // Tables read before the fault stay as read.
  EXPECT_EQ(definition_.details.title, "Pump");
  EXPECT_EQ(definition_.fieldNames.size(), 2u);
}

TEST_F(DefinitionFilesTest, BadFilesGiveAMessageNeverACrash) {
  Fields();
  // A stage checks file without its header is an empty table, not a fault.
  folder_.Write("stages.txt", {"1" + kT + "MANUAL"});
  EXPECT_TRUE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));
  EXPECT_TRUE(definition_.stageChecks.empty());

  // Binary garbage as the details file: no details row.
  std::string garbage;
  for (int i = 0; i < 4096; ++i) garbage += static_cast<char>((i * 131 + 7) % 256);
  const std::string junk = folder_.WriteRaw("junk.bin", garbage);
  definition_ = {};
  messages_.clear();
  EXPECT_FALSE(ReadTestDefinitionFiles(junk, options_, definition_));
  EXPECT_THAT(messages_, ElementsAre(std::string(kMsgNoDetailsRow) + junk));

  // A details row too short to name both other files.
  EXPECT_FALSE(Read({"TEST SEQUENCE - DETAILS", "TITLE", "Pump" + kT + "x" + kT + "1"}));
  EXPECT_THAT(messages_,
              ElementsAre(std::string(kMsgShortRow) + "3 of " + folder_.path() + "/details.txt"));

  // A stage row with only a step number.
  Stages({"1" + kT + "MANUAL", "2"});
  EXPECT_FALSE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));
  EXPECT_THAT(messages_,
              ElementsAre(std::string(kMsgShortRow) + "4 of " + folder_.path() + "/stages.txt"));
  // A step number beyond 16 bits.
  Stages({"40000" + kT + "MANUAL"});
  EXPECT_FALSE(Read({"TEST SEQUENCE - DETAILS", "TITLE", DetailsRow("Pump", "1")}));
  EXPECT_THAT(messages_,
              ElementsAre(std::string(kMsgBadStep) + "3 of " + folder_.path() + "/stages.txt"));

  // A missing file names itself.
  definition_ = {};
  messages_.clear();
  EXPECT_FALSE(ReadTestDefinitionFiles(folder_.path() + "/none.txt", options_, definition_));
  ASSERT_EQ(messages_.size(), 1u);
  EXPECT_THAT(messages_[0],
              ::testing::StartsWith(std::string(kMsgCannotRead) + folder_.path() + "/none.txt"));
}

TEST_F(DefinitionFilesTest, WindowsPathsInTheDetailsMapThroughTheDriveMap) {
  // A drive no scratch folder lives on, so that the details file's own path
  // (on Windows "C:\\...") is not mapped too.
  paths_.setDrive('q', folder_.path());
  Fields();
  Stages({"1" + kT + "MANUAL"});
  ASSERT_TRUE(Read({"TEST SEQUENCE - DETAILS", "TITLE",
                    "Pump" + kT + kT + "1" + kT + kT + "Q:\\fields.txt" + kT + "q:\\stages.txt"}))
      << ::testing::PrintToString(messages_);
  EXPECT_EQ(definition_.details.fieldNamesFile, "Q:\\fields.txt");
  EXPECT_EQ(definition_.fieldNames.size(), 2u);
  EXPECT_EQ(definition_.stageChecks.size(), 1u);
}

}  // namespace
}  // namespace tavrix
