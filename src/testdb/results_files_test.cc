#include "testdb/results_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "common/text_items.h"
#include "platform/files.h"
#include "testing/memory_file_system.h"
#include "testing/results_files_fixture.h"
#include "testing/testdb_fixture.h"

namespace tavrix {
namespace {

TEST_F(ResultsFilesTest, NamesKeepTheDeliberateDetailsReferenceMismatch) {
  const ResultsNames names = BuildResultsNames(details_, Passed("1234"), settings_, kWhen);
  EXPECT_EQ(names.summary, "c:\\results\\Valve test_261115.txt");
  EXPECT_EQ(names.details, "c:\\results\\SN_1234_261115_143005.txt");
  EXPECT_EQ(names.detailsReference, "SN1234_261115.txt");
  // The text layout unless XML is selected.
  EXPECT_EQ(ResultsExtension(settings_), ".txt");
  settings_.xmlLayout = true;
  EXPECT_EQ(ResultsExtension(settings_), ".xml");
  // An empty results directory uses the data directory.
  details_.resultsDirectory = "";
  settings_.dataDirectory = "d:\\data";
  EXPECT_EQ(BuildResultsNames(details_, Passed("1"), settings_, kWhen).details,
            "d:\\data\\SN_1_261115_143005.xml");
}

TEST_F(ResultsFilesTest, TextSummaryHeaderOnceThenBareNamePrefixedEntries) {
  Write(Passed("1234"));
  Write(Failed("77"), kWhen + 60 * kMicrosPerSecond);
  const std::string t(1, '\t');
  const std::string fill = std::string(17, ' ') + t + std::string(6, ' ') + t + std::string(7, ' ');
  EXPECT_EQ(folder_.Read("results/Valve test_261115.txt"),
            "Test_Results\r\n"
            "Test_Name: Valve test\r\n"
            "Date: 15-11-2026\r\n"
            "Serial_Number\tResult\tDetails\tFailures\r\n" +
                std::string(13, ' ') + t + std::string(6, ' ') + t + std::string(7, ' ') +
                "\tStage\tTest Item\tValue\tMessage\r\n"
                "1234\tPASS\tSN1234_261115.txt\r\n"
                "Valve test_261115.txt77\tFAIL\tSN77_261115.txt\r\n" +
                fill + "\t2\tFlow\t3.00\tValue: 3.00  Min: 1  Max: 2\r\n" + fill +
                "\t5\tLabel\t\tOp Fail\r\n" + fill +
                "\t12\tP1-P2\t-0.50\tValue: -0.50  Min: 0  Max: 1\r\n");

  // A new day starts a new summary file with its own header.
  Write(Passed("9"), kWhen + 86400 * kMicrosPerSecond);
  EXPECT_THAT(
      folder_.Read("results/Valve test_261116.txt"),
      ::testing::StartsWith("Test_Results\r\nTest_Name: Valve test\r\nDate: 16-11-2026\r\n"));
  EXPECT_THAT(
      folder_.Files(),
      ::testing::ElementsAre("results/SN_1234_261115_143005.txt", "results/SN_77_261115_143105.txt",
                             "results/SN_9_261116_143005.txt", "results/Valve test_261115.txt",
                             "results/Valve test_261116.txt"));
}

TEST_F(ResultsFilesTest, TextDetailsListEveryCheck) {
  details_.title = "Title\twith 'tab'";
  Write(Failed("1234"));
  EXPECT_EQ(folder_.Read("results/SN_1234_261115_143005.txt"),
            "Test_Details Date=15-11-2026\r\n"
            "Test\r\n"
            "Title: Title\twith 'tab'\r\n"
            "Version: 3\r\n"
            "Results file: c:\\results\\SN_1234_261115_143005.txt\r\n"
            "UUT\r\n"
            "Serial_Number: 1234\r\n"
            "Description: Pump A\r\n"
            "Operator(s): Ann Lee\r\n"
            "Result: FAIL\r\n"
            "Test_Data\r\n"
            "Stage\tParameter\tChannel\tValue\tUnits\tLower\tUpper\tResult\r\n"
            "1\tPressure\tPRESS\t1.50\tbar\t1\t2\tPass\r\n"
            "2\tFlow\tFLOW\t3.00\tl/min\t1\t2\tFail\tValue: 3.00  Min: 1  Max: 2\r\n");
  // Windows allows no TAB in a file name: there it becomes '_'.
  const std::string summary = platform::hasDriveLetters() ? "results/Title_with 'tab'_261115.txt"
                                                          : "results/Title\twith 'tab'_261115.txt";
  EXPECT_THAT(folder_.Read(summary),
              ::testing::StartsWith("Test_Results\r\nTest_Name: Title\twith 'tab'\r\nDate: "));

  // Written again within the same second, the details file gets no new
  // date line: its text starts afresh with "Test".
  Write(Passed("1234"));
  const std::string twice = folder_.Read("results/SN_1234_261115_143005.txt");
  EXPECT_NE(twice.find("Max: 2\r\nTest\r\nTitle: "), std::string::npos);
  EXPECT_EQ(twice.find("Test_Details", 10), std::string::npos);
}

TEST_F(ResultsFilesTest, XmlLayoutKeepsItsClosingTagLast) {
  settings_.xmlLayout = true;
  Write(Passed("1234"));
  Write(Failed("77"));
  EXPECT_EQ(
      folder_.Read("results/Valve test_261115.xml"),
      "<Test_Results Test_Name='Valve test' Date='15-11-2026'>\r\n"
      "<UUT Serial_Number='1234' Result='PASS' Details='SN1234_261115.xml'/>\r\n"
      "<UUT Serial_Number='77' Result='FAIL' Details='SN77_261115.xml'>\r\n"
      "<FAILURE Stage='2' Parameter='Flow' Value='3.00' Message='Value: 3.00  Min: 1  Max: 2'/>\r\n"
      "<FAILURE Stage='5' Parameter='Label' Value='' Message='Op Fail'/>\r\n"
      "<FAILURE Stage='12' Parameter='P1-P2' Value='-0.50' Message='Value: -0.50  Min: 0  Max: "
      "1'/>\r\n"
      "</UUT>\r\n"
      "</Test_Results>\r\n");
  EXPECT_EQ(folder_.Read("results/SN_77_261115_143005.xml"),
            "<Test_Details Date='15-11-2026'>\r\n"
            "<Test>\r\n<Title>Valve test</Title>\r\n<Version>3</Version>\r\n<UUT>\r\n"
            "<Serial_Number>77</Serial_Number>\r\n<Description>Pump A</Description>\r\n"
            "<Result>FAIL</Result>\r\n<Test_Data>\r\n"
            "<Check Name='Pressure' Value='1.50' Result='Pass'/>\r\n"
            "<Check Name='Flow' Value='3.00' Result='Fail'/>\r\n"
            "</Test_Data>\r\n</UUT>\r\n</Test>\r\n</Test_Details>\r\n");
}

TEST_F(ResultsFilesTest, SwitchOffWritesNothingAndAFailedWriteKeepsEarlierEntries) {
  settings_.writeResults = false;
  Write(Passed("1"));
  EXPECT_TRUE(folder_.Files().empty());

  settings_.writeResults = true;
  Write(Passed("1"));
  const std::string before = folder_.Read("results/Valve test_261115.txt");
  // The details file's name is taken by a folder: the write fails with a
  // message, and the summary is cut back to what it was before, so that
  // the UUT's two records stay a pair.
  folder_.files().makeFolders(folder_.path() + "/results/SN_2_261115_143005.txt", nullptr);
  std::string error;
  EXPECT_FALSE(
      WriteTestResults(folder_.files(), details_, Passed("2"), settings_, paths_, kWhen, &error));
  EXPECT_THAT(error, ::testing::HasSubstr("SN_2_261115_143005.txt"));
  EXPECT_EQ(folder_.Read("results/Valve test_261115.txt"), before);
}

}  // namespace
}  // namespace tavrix

namespace tavrix {
namespace {

// A full disk or an I/O error at every write in turn, for both layouts: each
// file is as it was, complete, or cut back to whole rows; a UUT never has a
// summary entry without its details; the failure is reported.
TEST_F(ResultsFilesTest, AFailingWriteAtEveryPointLeavesWholeFilesAndPairs) {
  for (const bool xml : {false, true}) {
    for (const auto fault :
         {MemoryFileSystem::Fault::kNoSpace, MemoryFileSystem::Fault::kIoError}) {
      settings_.xmlLayout = xml;
      // The writes that two UUTs take when nothing fails.
      MemoryFileSystem clean;
      PathMap cleanPaths("/data");
      cleanPaths.setDrive('c', "/data/c");
      clean.makeFolders("/data/c", nullptr);
      std::string error;
      ASSERT_TRUE(
          WriteTestResults(clean, details_, Passed("1"), settings_, cleanPaths, kWhen, &error));
      const int afterFirst = clean.writes();
      ASSERT_TRUE(
          WriteTestResults(clean, details_, Passed("2"), settings_, cleanPaths, kWhen, &error));
      const int total = clean.writes() - afterFirst;
      ASSERT_GE(total, 2);
      const std::string summaryPath =
          std::string("/data/c/results/Valve test_261115") + (xml ? ".xml" : ".txt");
      for (int n = 1; n <= total; ++n) {
        MemoryFileSystem files;
        files.makeFolders("/data/c", nullptr);
        ASSERT_TRUE(
            WriteTestResults(files, details_, Passed("1"), settings_, cleanPaths, kWhen, &error));
        const auto before = files.files();
        files.failWrite(n, fault);
        error.clear();
        EXPECT_FALSE(
            WriteTestResults(files, details_, Passed("2"), settings_, cleanPaths, kWhen, &error))
            << "write " << n;
        EXPECT_THAT(error, ::testing::HasSubstr(fault == MemoryFileSystem::Fault::kNoSpace
                                                    ? "No space left on device"
                                                    : "Input/output error"));
        // Every file is as it was before the UUT: the summary is cut back and
        // the details of UUT 2 do not exist.
        EXPECT_EQ(files.files(), before) << "write " << n << (xml ? " xml" : " text");
        std::string summary;
        ASSERT_TRUE(files.readFile(summaryPath, summary, nullptr));
        if (!xml) {
          EXPECT_EQ(Entries(summary, "2"), 0);
        }
      }
    }
  }
}

}  // namespace
}  // namespace tavrix
