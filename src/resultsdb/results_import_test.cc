#include "resultsdb/results_import.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "common/file_system.h"
#include "testing/store_fixture.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A details file as the station writes it, for two UUTs tested in the same
// second (the second appended without the date line); the first went on
// twice after the program ended abruptly.
const char kTextDetails[] =
    "Test_Details Date=15-11-2026\r\n"
    "Test\r\nTitle: Pump test\r\nVersion: 2\r\nResults file: c:\\r\\SN_77_261115_143005.txt\r\n"
    "UUT\r\nSerial_Number: 77\r\nDescription: Pump B\r\nOperator(s): Ann Lee\r\nResult: FAIL\r\n"
    "Test_Data\r\nStage\tParameter\tChannel\tValue\tUnits\tLower\tUpper\tResult\r\n"
    "1\tSeal\t\tOp Pass\t\t\t\tPass\r\n"
    "2\tPressure\tPRESS\t3.00\tbar\t1\t2\tFail\tValue: 3.00  Min: 1  Max: 2\r\n"
    "Resumed: the test went on at 2026-11-15 14:20:00 after a gap of 0 h 10 min 00 s\r\n"
    "Resumed: the test went on at 2026-11-15 14:25:00 after a gap of 0 h 01 min 00 s\r\n"
    "Test\r\nTitle: Pump test\r\nVersion: 2\r\nResults file: c:\\r\\SN_77_261115_143005.txt\r\n"
    "UUT\r\nSerial_Number: 77\r\nDescription: \r\nOperator(s): \r\nResult: PASS\r\n"
    "Test_Data\r\nStage\tParameter\tChannel\tValue\tUnits\tLower\tUpper\tResult\r\n";

const char kXmlDetails[] =
    "<Test_Details Date='15-11-2026'>\r\n<Test>\r\n<Title>Valve 'V' test</Title>\r\n"
    "<Version>1</Version>\r\n<UUT>\r\n<Serial_Number>88</Serial_Number>\r\n"
    "<Description>d</Description>\r\n<Result>PASS</Result>\r\n<Test_Data>\r\n"
    "<Check Name='Flow' Value='1.50' Result='Pass'/>\r\n"
    "<Check Name='It's' Value='x' Result='Fail'/>\r\n"
    "</Test_Data>\r\n<Resumed>the test went on at 2026-11-15 08:59:00</Resumed>\r\n"
    "</UUT>\r\n</Test>\r\n</Test_Details>\r\n";

TEST(ResultsImport, TextAndXmlDetailsFilesBecomeWholeRecords) {
  std::vector<StoredUut> uuts;
  ImportProblem problem;
  ASSERT_TRUE(ParseDetailsFile("SN_77_261115_143005.txt", kTextDetails, "rig-9", uuts, problem))
      << problem.line << ": " << problem.reason;
  ASSERT_TRUE(ParseDetailsFile("SN_88_261115_090000.xml", kXmlDetails, "rig-9", uuts, problem))
      << problem.line << ": " << problem.reason;
  ASSERT_EQ(uuts.size(), 3u);

  const StoredUut& first = uuts[0];
  EXPECT_EQ(first.serial, "77");
  EXPECT_EQ(first.testTitle, "Pump test");
  EXPECT_EQ(first.operators, "Ann Lee");
  EXPECT_FALSE(first.passed);
  EXPECT_EQ(first.endedAt, "2026-11-15 14:30:05");  // the day inside, the time from the name
  EXPECT_EQ(first.station, "rig-9");
  ASSERT_EQ(first.checks.size(), 2u);
  EXPECT_EQ(first.checks[1].step, 2);
  EXPECT_EQ(first.checks[1].channel, "PRESS");
  EXPECT_EQ(first.checks[1].upper, "2");
  EXPECT_FALSE(first.checks[1].passed);
  EXPECT_EQ(first.checks[1].message, "Value: 3.00  Min: 1  Max: 2");
  EXPECT_EQ(first.resumed,
            "the test went on at 2026-11-15 14:20:00 after a gap of 0 h 10 min 00 s\n"
            "the test went on at 2026-11-15 14:25:00 after a gap of 0 h 01 min 00 s");
  EXPECT_EQ(uuts[1].resumed, "");
  EXPECT_TRUE(uuts[1].passed);
  EXPECT_TRUE(uuts[1].checks.empty());
  EXPECT_NE(uuts[0].key, uuts[1].key);

  const StoredUut& xml = uuts[2];
  EXPECT_EQ(xml.testTitle, "Valve 'V' test");
  EXPECT_EQ(xml.endedAt, "2026-11-15 09:00:00");
  ASSERT_EQ(xml.checks.size(), 2u);
  EXPECT_EQ(xml.checks[1].parameter, "It's");  // quotes are not escaped in the file
  EXPECT_FALSE(xml.checks[1].passed);
  EXPECT_EQ(xml.resumed, "the test went on at 2026-11-15 08:59:00");
}

TEST(ResultsImport, AFileThatCannotBeReadIsNamedWithItsLineAndSkippedWhole) {
  struct Bad {
    const char* name;
    std::string text;
    int line;
    const char* reason;
  };
  std::string badResult = kTextDetails;
  badResult.replace(badResult.find("Result: PASS"), 12, "Result: MAYBE");
  std::string badCheck = kTextDetails;
  badCheck.replace(badCheck.find("\tPass\r\n"), 7, "\tOK\r\n");
  std::string cutXml = kXmlDetails;
  cutXml.resize(cutXml.find("</Test_Data>"));
  for (const Bad& bad : std::vector<Bad>{
           {"SN_1_261115_000000.txt", badResult, 25, "neither PASS nor FAIL"},
           {"SN_2_261115_000000.txt", badCheck, 13, "\"Pass\", or \"Fail\" TAB"},
           {"SN_3_261115_000000.xml", cutXml, 12, "\"</Test_Data>\""},
           {"SN_4_261115_000000.txt", "Test_Details Date=31-02-2026\r\n", 1, "not dd-mm-yyyy"}}) {
    std::vector<StoredUut> uuts;
    ImportProblem problem;
    EXPECT_FALSE(ParseDetailsFile(bad.name, bad.text, "s", uuts, problem)) << bad.name;
    EXPECT_TRUE(uuts.empty()) << bad.name;
    EXPECT_EQ(problem.file, bad.name);
    EXPECT_EQ(problem.line, bad.line) << bad.name;
    EXPECT_THAT(problem.reason, HasSubstr(bad.reason)) << bad.name;
  }

  // In a folder: summary files are passed over, good files taken, bad ones
  // reported and left out.
  testing::TempFolder folder;
  std::filesystem::create_directories(folder.file("2026/11"));
  std::ofstream(folder.file("2026/11/SN_77_261115_143005.txt"), std::ios::binary) << kTextDetails;
  std::ofstream(folder.file("SN_88_261115_090000.xml"), std::ios::binary) << kXmlDetails;
  std::ofstream(folder.file("SN_2_261115_000000.txt"), std::ios::binary) << badCheck;
  std::ofstream(folder.file("Pump test_261115.txt"), std::ios::binary) << "Test_Results\r\n";
  std::ofstream(folder.file("notes.txt"), std::ios::binary) << "shift notes\r\n";
  std::ofstream(folder.file("rig.ims"), std::ios::binary) << "not looked at";
  const ImportScan scan = ScanResultsFolder(testFiles(), folder.path(), "s");
  EXPECT_EQ(scan.uuts.size(), 3u);
  EXPECT_EQ(scan.detailsFiles, 2);
  EXPECT_EQ(scan.summaryFiles, 1);
  ASSERT_EQ(scan.problems.size(), 2u);
  EXPECT_EQ(scan.problems[0].file, "SN_2_261115_000000.txt");
  EXPECT_EQ(scan.problems[0].line, 13);
  EXPECT_EQ(scan.problems[1].file, "notes.txt");
}

// Values a station never writes are refused with a message of bounded
// length: a time of day past 23:59:59 in the name, a stage number beyond
// the integers, a NUL (which would cut a serial short), a date line of
// megabytes.
TEST(ResultsImport, ValuesNoStationWritesAreRefusedWithAShortMessage) {
  std::string hugeStage = kTextDetails;
  hugeStage.replace(hugeStage.find("2\tPressure"), 1, "99999999999999999999");
  std::string nul = kTextDetails;
  nul.replace(nul.find("Serial_Number: 77") + 16, 0, std::string(1, '\0'));
  const std::string hugeDate = "Test_Details Date=" + std::string(50 << 20, '7') + "\r\n";
  struct Bad {
    const char* name;
    const std::string& text;
    int line;
    const char* reason;
  };
  const std::string good = kTextDetails;
  for (const Bad& bad : std::vector<Bad>{
           {"SN_1_261115_999999.txt", good, 0, "\"99:99:99\" in the file's name is not a time"},
           {"SN_1_261115_000000.txt", hugeStage, 14, "stage number \"99999999999999999999\""},
           {"SN_1_261115_000000.txt", nul, 7, "a NUL character"},
           {"SN_1_261115_000000.txt", hugeDate, 1, "is not dd-mm-yyyy"}}) {
    std::vector<StoredUut> uuts;
    ImportProblem problem;
    EXPECT_FALSE(ParseDetailsFile(bad.name, bad.text, "s", uuts, problem)) << bad.reason;
    EXPECT_TRUE(uuts.empty());
    EXPECT_EQ(problem.line, bad.line) << bad.reason;
    EXPECT_THAT(problem.reason, HasSubstr(bad.reason));
    EXPECT_LT(problem.reason.size(), 200u) << bad.reason;
  }
}

// A folder is walked once however links loop back into it, a file is read
// once however many links lead to it, and records are known by the file's
// content: the same file imported from its folder and from the folder above
// gives the same records. A large file is looked at only as far as its
// first bytes, and one too large to be a results file is named and skipped.
TEST(ResultsImport, LinksLargeFilesAndFoldersImportedTwiceLoadEachRecordOnce) {
  testing::TempFolder folder;
  const std::string sub = folder.file("station/2026");
  std::filesystem::create_directories(sub);
  std::ofstream(sub + "/SN_77_261115_143005.txt", std::ios::binary) << kTextDetails;
  std::filesystem::create_directory_symlink(folder.file("station"), sub + "/up");
  std::filesystem::create_directory_symlink(folder.file("station"), sub + "/up again");
  std::filesystem::create_symlink(sub + "/SN_77_261115_143005.txt", sub + "/SN_77_copy.txt");
  {
    std::ofstream big(sub + "/video.txt", std::ios::binary);
    big << "not a results file";
  }
  std::filesystem::resize_file(sub + "/video.txt", std::uintmax_t{700} << 20);  // sparse
  {
    std::ofstream big(sub + "/SN_9_261115_000000.txt", std::ios::binary);
    big << "Test_Details Date=15-11-2026\r\n";
  }
  std::filesystem::resize_file(sub + "/SN_9_261115_000000.txt", std::uintmax_t{100} << 20);

  const ImportScan below = ScanResultsFolder(testFiles(), sub, "s");
  const ImportScan above = ScanResultsFolder(testFiles(), folder.path(), "s");
  ASSERT_EQ(below.uuts.size(), 2u);
  ASSERT_EQ(above.uuts.size(), 2u);
  EXPECT_EQ(below.uuts[0].key, above.uuts[0].key);
  EXPECT_EQ(below.uuts[1].key, above.uuts[1].key);
  ASSERT_EQ(above.files.size(), 1u);
  EXPECT_EQ(above.files[0].name, "station/2026/SN_77_261115_143005.txt");
  EXPECT_EQ(above.files[0].count, 2u);
  ASSERT_EQ(above.problems.size(), 2u);
  EXPECT_EQ(above.problems[0].file, "station/2026/SN_9_261115_000000.txt");
  EXPECT_THAT(above.problems[0].reason, HasSubstr("SN_9_261115_000000.txt"));
  EXPECT_EQ(above.problems[1].file, "station/2026/video.txt");
  EXPECT_THAT(above.problems[1].reason, HasSubstr("not a results file"));
}

}  // namespace
}  // namespace tavrix
