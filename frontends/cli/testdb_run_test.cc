// `tavrix-cli run` with a test database: the data-entry answer line, the
// stage-check question kinds, results files dated by the virtual clock, and
// exit status 4 for a failed UUT.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "cli_test_support.h"
#include "common/file_system.h"
#include "run_command.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using ::testing::HasSubstr;

class TestDbRunTest : public ::testing::Test {
 protected:
  TestDbRunTest() {
    // The results store and its queue live in the data root: this folder's.
    setenv("TAVRIX_HOME", (dir_ + "/home").c_str(), 1);
    const std::string t = "\t";
    File("details.txt", "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test" + t + t +
                            "1" + t + t + dir_ + "/fields.txt" + t + dir_ + "/stages.txt" + t +
                            dir_ + "/results\r\n");
    File("fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
    File("stages.txt",
         "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
         "1\tMEASURE\tPRESS\t\t-0.5\t0.5\tPressure\tbar\r\n"
         "2\tMANUAL\t\t\t\t\tSeal\t\tIs the seal fitted?\r\n");
    File("test.wts", "NEXT:\r\nDB_DATAENTRY " + dir_ +
                         "/details.txt\r\nDB_STAGECHECK 1\r\n"
                         "DB_STAGECHECK 2\r\nGOTO NEXT\r\n");
  }
  ~TestDbRunTest() override { unsetenv("TAVRIX_HOME"); }
  std::string File(const std::string& name, const std::string& text) {
    EXPECT_TRUE(testFiles().writeAtomically(dir_ + "/" + name, text, nullptr));
    return dir_ + "/" + name;
  }
  std::string Read(const std::string& name) const {
    std::string text;
    testFiles().readFile(dir_ + "/" + name, text, nullptr);
    return text;
  }
  int Run(const std::string& answers, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {
        "tavrix-cli",          "run",           "--virtual-time", "--start",
        "2026-11-15 14:30:05", "--no-hardware", "--answers",      File("test.answers", answers)};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(dir_ + "/test.wts");
    Captured out;
    Captured err;
    const int status = TavrixCliMain(testHost(), args, nullptr, out.stream(), err.stream());
    err_ = err.take();
    return status;
  }

  ScratchFolder scratch_;
  std::string dir_ = scratch_.path();
  std::string err_;
};

TEST_F(TestDbRunTest, AFailedUutEndsTheRunWithStatusFour) {
  EXPECT_EQ(Run("DATAENTRY: Accept|serial=1|operator=Ann Lee|description=Pump A\n"
                "UUTCHECK: Pass\n"
                "DATAENTRY: Accept|description=Pump B|serial=2\n"
                "UUTCHECK: Fail and Continue\n"
                "DATAENTRY: Cancel\n"),
            kExitUutFailed)
      << err_;
  EXPECT_EQ(Read("results/Pump test_261115.txt"),
            "Test_Results\r\nTest_Name: Pump test\r\nDate: 15-11-2026\r\n"
            "Serial_Number\tResult\tDetails\tFailures\r\n"
            "             \t      \t       \tStage\tTest Item\tValue\tMessage\r\n"
            "1\tPASS\tSN1_261115.txt\r\n"
            "Pump test_261115.txt2\tFAIL\tSN2_261115.txt\r\n"
            "                 \t      \t       \t2\tSeal\t\tOp Fail\r\n");
  EXPECT_THAT(Read("results/SN_1_261115_143005.txt"),
              HasSubstr("1\tPressure\tPRESS\t0.00\tbar\t-.5\t.5\tPass\r\n2\tSeal\t\tOp Pass"));
}

TEST_F(TestDbRunTest, PassingUutsEndWithStatusZeroAndXmlCanBeChosen) {
  EXPECT_EQ(Run("Accept|serial=7\nPass\nCancel\n", {"--results", "xml"}), kExitOk) << err_;
  EXPECT_EQ(Read("results/Pump test_261115.xml"),
            "<Test_Results Test_Name='Pump test' Date='15-11-2026'>\r\n"
            "<UUT Serial_Number='7' Result='PASS' Details='SN7_261115.xml'/>\r\n"
            "</Test_Results>\r\n");
  // A sequence error still beats a failed UUT.
  EXPECT_EQ(Run("Accept|serial=8\nFail and Repeat\n"), kExitSequenceError);
  // Fail and Repeat offers the step again: the question waits for an answer.
  EXPECT_THAT(err_, HasSubstr("No answer to the REPEATSTEP question \"Stage 2\""));
  EXPECT_THAT(Read("results/Pump test_261115.txt"), HasSubstr("8\tFAIL\tSN8_261115.txt"));
  // Results can be switched off.
  removeTree(dir_ + "/results");
  EXPECT_EQ(Run("Accept|serial=9\nPass\nCancel\n", {"--results", "off"}), kExitOk);
  EXPECT_FALSE(testFiles().isFolder(dir_ + "/results"));
  EXPECT_EQ(Run("Cancel\n", {"--results", "html"}), kExitUsage);
}

// A KIND* line gives the same answer to every question of its kind: one the
// question refuses, or one that sends the question round again, would be
// given for ever. The run ends at once, as for an unanswerable question.
TEST_F(TestDbRunTest, AStandingAnswerThatLoopsEndsTheRunWithOneMessage) {
  for (const std::string bad :
       {"DATAENTRY*: Accept|serial=1|bogus=2\n", "DATAENTRY*: Accept|serial=1|date=31-02-2026\n"}) {
    EXPECT_EQ(Run(bad), kExitSequenceError) << bad;
    EXPECT_THAT(err_, HasSubstr("line 1 of the answers file answers \"Accept|serial=1|"));
    EXPECT_THAT(err_, HasSubstr("the same answer would come again"));
    // The window's message is shown once, not once a turn.
    EXPECT_LT(err_.size(), 2000u) << err_;
  }
  EXPECT_EQ(Run("DATAENTRY: Accept|serial=5\nUUTCHECK*: Fail and Repeat\n"), kExitSequenceError);
  EXPECT_THAT(err_, HasSubstr("No answer to the UUTCHECK question"));
  EXPECT_THAT(err_, HasSubstr("line 2 of the answers file"));
  // A refused plain line is used up: the repeated question takes the next.
  EXPECT_EQ(Run("DATAENTRY: Accept|serial=1|bogus=2\nDATAENTRY: Accept|serial=3\nPass\nCancel\n"),
            kExitOk)
      << err_;
  EXPECT_THAT(Read("results/Pump test_261115.txt"), HasSubstr("3\tPASS"));
}

// The example of docs/test-database.md, on the simulated rig: run from a copy
// of the examples folder, as from the top of the repository.
TEST_F(TestDbRunTest, TheTwoPumpExampleOnTheSimulatedRig) {
  ASSERT_TRUE(copyTree(testFiles(), TAVRIX_SOURCE_DIR "/examples", dir_ + "/examples"));
  const std::string before = testFiles().currentFolder();
  ASSERT_TRUE(changeCurrentFolder(dir_));
  std::vector<std::string> args = {"tavrix-cli",
                                   "run",
                                   "--virtual-time",
                                   "--start",
                                   "2026-11-15 14:30:05",
                                   "--setup",
                                   "examples/rig.ims",
                                   "--answers",
                                   "examples/uut_test.answers",
                                   "examples/uut_test.wts"};
  Captured out;
  Captured err;
  const int status = TavrixCliMain(testHost(), args, nullptr, out.stream(), err.stream());
  changeCurrentFolder(before);
  EXPECT_EQ(status, kExitUutFailed);
  EXPECT_THAT(Read("results/Pump test_261115.txt"),
              HasSubstr("1234\tPASS\tSN1234_261115.txt\r\n"
                        "Pump test_261115.txt1235\tFAIL\tSN1235_261115.txt\r\n"
                        "                 \t      \t       \t2\tOVEN-AMBIENT\t"));
  EXPECT_THAT(Read("results/SN_1234_261115_144035.txt"),
              HasSubstr("3\tFan speed\tFAN\t1200.00\trpm\t1150\t1250\tPass\r\n"
                        "4\tSeal\t\tOp Pass\t\t\t\tPass\r\n"));
  // Pump 1235 was failed at step 2; its later steps were still checked.
  EXPECT_THAT(Read("results/SN_1235_261115_145105.txt"),
              HasSubstr("3\tFan speed\tFAN\t1200.00\trpm\t1150\t1250\tPass\r\n"
                        "4\tSeal\t\tOp Pass\t\t\t\tPass\r\n"));
}

}  // namespace
}  // namespace tavrix
