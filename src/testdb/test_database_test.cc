#include "testdb/test_database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>

#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/recording_operator.h"
#include "testing/testdb_fixture.h"

namespace tavrix {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing_support::TempFolder;

const Micros kStart = fromCivil({2026, 11, 15, 14, 30, 5, 0});
const std::string kT = "\t";

// A run engine on a virtual clock with the test database's commands, a
// recording operator and channels whose readings the test sets (a queue of
// readings per channel; the last one stays).
class TestDatabaseTest : public ::testing::Test {
 protected:
  TestDatabaseTest()
      : clock_(kStart),
        events_(clock_),
        trace_(clock_),
        paths_(folder_.path()),
        seq_(events_, op_, trace_, folder_.files(), paths_),
        db_(seq_, paths_) {
    RegisterSequencerCommands(seq_);
    db_.registerCommands();
    db_.setChannelReader([this](const std::string& name, std::string& value, std::string* error) {
      reads_.push_back(name);
      auto it = channels_.find(name);
      if (it == channels_.end()) {
        *error = "Channel " + name + " does not exist";
        return false;
      }
      value = it->second.front();
      if (it->second.size() > 1) it->second.pop_front();
      return true;
    });
    paths_.setDrive('c', folder_.path());
    WriteDatabase({});
  }

  void WriteDatabase(std::vector<std::string> stageRows) {
    folder_.Write("details.txt", {"TEST SEQUENCE - DETAILS", "TITLE",
                                  "Pump test" + kT + kT + "2" + kT + kT + "c:\\fields.txt" + kT +
                                      "c:\\stages.txt" + kT + "c:\\results"});
    folder_.Write("fields.txt", {"TEST SEQUENCE - FIELD NAMES", "FIELD NAME"});
    stageRows.insert(stageRows.begin(), {"TEST SEQUENCE - STAGE CHECKS", "STEP NUMBER"});
    folder_.Write("stages.txt", stageRows);
  }

  // Runs the lines as a sequence; returns the last sequence error.
  std::string Run(const std::vector<std::string>& lines) {
    const std::string path = folder_.Write("seq.wts", lines);
    std::string error;
    EXPECT_TRUE(seq_.prepareFile(path, &error)) << error;
    seq_.start();
    return seq_.lastSequenceError();
  }

  void Answer(std::vector<std::string> answers) {
    for (auto& a : answers) op_.answers.push_back(a);
  }

  std::vector<std::string> Kinds() const {
    std::vector<std::string> kinds;
    for (const auto& q : op_.questions) kinds.push_back(q.kind);
    return kinds;
  }

  std::string Summary() const { return folder_.Read("results/Pump test_261115.txt"); }

  TempFolder folder_;
  VirtualClock clock_;
  EventLoop events_;
  RecordingOperator op_;
  Trace trace_;
  PathMap paths_;
  Sequencer seq_;
  TestDatabase db_;
  std::map<std::string, std::deque<std::string>> channels_;
  std::vector<std::string> reads_;
};

TEST_F(TestDatabaseTest, MeasureLimitsAreInclusiveAndFailuresAreAlerted) {
  WriteDatabase(
      {"1" + kT + "MEASURE" + kT + "A" + kT + kT + "1.0" + kT + "2.0" + kT + "Upper" + kT + "bar",
       "1" + kT + "MEASURE" + kT + "B" + kT + kT + "1.0" + kT + "2.0" + kT + "Lower",
       "1" + kT + "MEASURE" + kT + "C" + kT + kT + "1.0" + kT + "2.0" + kT + kT + kT +
           "Look at gauge C",
       "1" + kT + "MEASURE" + kT + "D" + kT + kT + "1.0" + kT + "2.0",
       "1" + kT + "MEASURE" + kT + "" + kT + kT + "1.0" + kT + "2.0" + kT + "No channel",
       "1" + kT + "DIFFERENCE" + kT + "E" + kT + "F" + kT + "1.1" + kT + "1.1"});
  // 1.3 - 0.2 is 1.1, on the limits.
  channels_ = {{"A", {"2.0"}}, {"B", {"1"}},   {"C", {"2.01"}},
               {"D", {"3"}},   {"E", {"1.3"}}, {"F", {"0.2"}}};
  Answer({"Accept|serial=1234", "Accept", "Accept", "Ignore"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1"}), "");

  // The row without a channel is not evaluated.
  EXPECT_THAT(reads_, ElementsAre("A", "B", "C", "D", "E", "F"));
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "ALERT", "ALERT", "CHECKFAILURE"));
  EXPECT_EQ(op_.questions[1].title, "Alert Message");
  EXPECT_EQ(op_.questions[1].text, "Look at gauge C\rC: Value: 2.01  Min: 1  Max: 2");
  EXPECT_THAT(op_.questions[1].choices, ElementsAre("Accept", "Cancel"));
  EXPECT_EQ(op_.questions[2].text, "D: Value: 3.00  Min: 1  Max: 2");
  EXPECT_EQ(op_.questions[3].text,
            "Stage 1\rC: Value: 2.01  Min: 1  Max: 2\rD: Value: 3.00  Min: 1  Max: 2\r"
            "F1: Ignore  F2 Repeat  F3: Fail and Abandon");
  EXPECT_THAT(op_.questions[3].choices, ElementsAre("Ignore", "Repeat", "Fail and Abandon"));
  EXPECT_EQ(db_.checkVerdict(), kVerdictPass);
  EXPECT_TRUE(db_.continueFlag());
  EXPECT_TRUE(db_.anyUutFailed());

  const std::string details = folder_.Read("results/SN_1234_261115_143005.txt");
  EXPECT_THAT(details, HasSubstr("1\tUpper\tA\t2.00\tbar\t1\t2\tPass\r\n"
                                 "1\tLower\tB\t1.00\t\t1\t2\tPass\r\n"
                                 "1\tC\tC\t2.01\t\t1\t2\tFail\tValue: 2.01  Min: 1  Max: 2\r\n"
                                 "1\tD\tD\t3.00\t\t1\t2\tFail\tValue: 3.00  Min: 1  Max: 2\r\n"
                                 "1\tE-F\tE-F\t1.10\t\t1.1\t1.1\tPass\r\n"));
  EXPECT_THAT(Summary(), HasSubstr("1234\tFAIL\tSN1234_261115.txt\r\n"));
}

TEST_F(TestDatabaseTest, RowsOfAStepRunInFileOrderWhereverTheyStand) {
  WriteDatabase({"2" + kT + "DIFFERENCE" + kT + "P1" + kT + "P2" + kT + "-1" + kT + "1" + kT +
                     "ignored" + kT + "bar",
                 "1" + kT + "RECORD" + kT + "FLOW" + kT + kT + kT + kT + "Flow" + kT + "l/min",
                 "2" + kT + "record" + kT + "SPEED" + kT + kT + kT + kT + kT + "rpm",
                 " 2" + kT + " Bogus " + kT + "X",
                 "2" + kT + "RECORD" + kT + "" + kT + kT + kT + kT + "Empty",
                 "2" + kT + "DIFFERENCE" + kT + "P2" + kT + "P1" + kT + "-1" + kT + "1"});
  channels_ = {{"P1", {"5"}}, {"P2", {"3.5"}}, {"FLOW", {"12.345"}}, {"SPEED", {"abc"}}};
  Answer({"Accept|serial=1", "Accept", "Accept", "Ignore"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 2", "DB_STAGECHECK 3"}), "");
  EXPECT_THAT(reads_, ElementsAre("P1", "P2", "SPEED", "P2", "P1"));
  EXPECT_THAT(op_.messages, ElementsAre("Unrecognised Check Type:  Bogus "));
  const std::string details = folder_.Read("results/SN_1_261115_143005.txt");
  EXPECT_THAT(
      details,
      HasSubstr("2\tP1-P2\tP1-P2\t1.50\tbar\t-1\t1\tFail\tValue: 1.50  Min: -1  Max: 1\r\n"
                "2\tSPEED\tSPEED\t0.00\trpm\t\t\tPass\r\n"
                "2\tP2-P1\tP2-P1\t-1.50\t\t-1\t1\tFail\tValue: -1.50  Min: -1  Max: 1\r\n"));
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "ALERT", "ALERT", "CHECKFAILURE"));

  // A RECORD hook supplies its value; the channel is not read.
  reads_.clear();
  op_.questions.clear();
  db_.setRecordValueHook([](const StageCheck& row) -> std::optional<std::string> {
    if (row.channel == "FLOW") return "hooked";
    return std::nullopt;
  });
  Answer({"Accept|serial=2"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1"}), "");
  EXPECT_TRUE(reads_.empty());
  EXPECT_THAT(folder_.Read("results/SN_2_261115_143005.txt"),
              HasSubstr("1\tFlow\tFLOW\thooked\tl/min\t\t\tPass\r\n"));
  EXPECT_THAT(Summary(), HasSubstr("2\tPASS\tSN2_261115.txt"));
}

TEST_F(TestDatabaseTest, EveryRowOfTheStepIsEvaluatedWhateverTheAlertAnswer) {
  WriteDatabase({"1" + kT + "MEASURE" + kT + "A" + kT + kT + "0" + kT + "1",
                 "1" + kT + "MEASURE" + kT + "B" + kT + kT + "0" + kT + "1"});
  channels_ = {{"A", {"5"}}, {"B", {"5"}}};
  Answer({"Accept|serial=1", "Cancel", "Accept", "Ignore"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1"}), "");
  EXPECT_THAT(reads_, ElementsAre("A", "B"));
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "ALERT", "ALERT", "CHECKFAILURE"));
  EXPECT_EQ(db_.lastAlertAnswer(), 1);
  EXPECT_THAT(Summary(),
              HasSubstr("\t1\tA\t5.00\tValue: 5.00  Min: 0  Max: 1\r\n" + std::string(17, ' ') +
                        "\t      \t       \t1\tB\t5.00\tValue: 5.00  Min: 0  Max: 1\r\n"));
}

TEST_F(TestDatabaseTest, ManualVerdictsAndTheContinueFlag) {
  WriteDatabase(
      {"1" + kT + "MANUAL" + kT + kT + kT + kT + kT + "Label" + kT + kT + "Is the label straight?",
       "2" + kT + "MANUAL", "3" + kT + "MANUAL" + kT + kT + kT + kT + kT + "Seal",
       "4" + kT + "MANUAL" + kT + kT + kT + kT + kT + "Paint", "4" + kT + "MANUAL"});
  std::vector<bool> flags;
  const Keyword<CommandLine> flag{"FLAG", "", AsWritten};
  seq_.dispatcher().bind(
      flag, [&](Sequencer&, const CommandLine&) { flags.push_back(db_.continueFlag()); });
  // Pass; Fail and Repeat asks once and then offers the step again; Fail and
  // Continue clears the flag and the next step's rows are still asked; Fail
  // and Repeat then Continue with test goes on.
  Answer({"Accept|serial=5", "Pass", "Fail and Repeat", "Repeat last test step", "Pass",
          "Fail and Continue", "Fail and Repeat", "Pass", "Continue with test"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1", "DB_STAGECHECK 2",
                 "DB_STAGECHECK 3", "FLAG", "DB_STAGECHECK 4", "FLAG"}),
            "");
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "UUTCHECK", "UUTCHECK", "REPEATSTEP", "UUTCHECK",
                                   "UUTCHECK", "UUTCHECK", "UUTCHECK", "REPEATSTEP"));
  EXPECT_EQ(op_.questions[1].title, "UUT Check");
  EXPECT_EQ(op_.questions[1].text, "Is the label straight?");
  EXPECT_THAT(op_.questions[1].choices,
              ElementsAre("Pass", "Fail and Repeat", "Fail and Continue"));
  EXPECT_EQ(op_.questions[2].text, "Un-Named");
  EXPECT_EQ(op_.questions[3].text, "Stage 2");
  EXPECT_THAT(op_.questions[3].choices, ElementsAre("Repeat last test step", "Continue with test"));
  EXPECT_EQ(op_.questions[6].text, "Paint");
  EXPECT_EQ(op_.questions[8].text, "Stage 4");
  EXPECT_THAT(flags, ElementsAre(false, true));
  // Manual failures open no check-failure window: the verdict is 1.
  EXPECT_EQ(db_.checkVerdict(), kVerdictPass);
  EXPECT_THAT(folder_.Read("results/SN_5_261115_143005.txt"),
              HasSubstr("1\tLabel\t\tOp Pass\t\t\t\tPass\r\n"
                        "2\tUn-Named\t\tOp Fail\t\t\t\tFail\tOp Fail\r\n"
                        "2\tUn-Named\t\tOp Pass\t\t\t\tPass\r\n"
                        "3\tSeal\t\tOp Fail\t\t\t\tFail\tOp Fail\r\n"
                        "4\tPaint\t\tOp Fail\t\t\t\tFail\tOp Fail\r\n"
                        "4\tUn-Named\t\tOp Pass\t\t\t\tPass\r\n"));
  EXPECT_THAT(Summary(), HasSubstr("5\tFAIL\tSN5_261115.txt\r\n"));
  EXPECT_THAT(Summary(), HasSubstr("\t2\tUn-Named\t\tOp Fail\r\n"));
}

TEST_F(TestDatabaseTest, CheckFailureWindowRepeatsTheStepOrFailsTheUut) {
  WriteDatabase({"1" + kT + "MEASURE" + kT + "A" + kT + kT + "0" + kT + "1",
                 "2" + kT + "MANUAL" + kT + kT + kT + kT + kT + "Later"});
  // The first reading fails; Repeat offers the step again, which reads again
  // and passes.
  channels_ = {{"A", {"5", "0.5"}}};
  Answer({"Accept|serial=1", "Accept", "Repeat", "Repeat last test step", "Pass"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1", "DB_STAGECHECK 2"}), "");
  EXPECT_THAT(reads_, ElementsAre("A", "A"));
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "ALERT", "CHECKFAILURE", "REPEATSTEP", "UUTCHECK"));
  EXPECT_TRUE(db_.repeatFlag());
  // The failure of the first attempt stays on record.
  EXPECT_THAT(Summary(), HasSubstr("1\tFAIL\tSN1_261115.txt\r\n"));

  // Repeat, then Continue with test: the step is not evaluated again.
  reads_.clear();
  op_.questions.clear();
  channels_ = {{"A", {"5", "0.5"}}};
  Answer({"Accept|serial=2", "Accept", "Repeat", "Continue with test", "Pass"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1", "DB_STAGECHECK 2"}), "");
  EXPECT_THAT(reads_, ElementsAre("A"));
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "ALERT", "CHECKFAILURE", "REPEATSTEP", "UUTCHECK"));

  // Fail and Abandon: the UUT fails and the continue flag is cleared, but its
  // later steps are still evaluated.
  op_.questions.clear();
  channels_ = {{"A", {"5"}}};
  Answer({"Accept|serial=3", "Accept", "Fail and Abandon", "Pass", "Accept|serial=4", "Pass"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1", "DB_STAGECHECK 2",
                 "DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 2"}),
            "");
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY", "ALERT", "CHECKFAILURE", "UUTCHECK", "DATAENTRY",
                                   "UUTCHECK"));
  EXPECT_EQ(db_.checkVerdict(), kVerdictPass);
  EXPECT_THAT(Summary(), HasSubstr("Pump test_261115.txt3\tFAIL"));
  EXPECT_THAT(Summary(), HasSubstr("Pump test_261115.txt4\tPASS"));
  EXPECT_THAT(folder_.Read("results/SN_3_261115_143005.txt"),
              HasSubstr("2\tLater\t\tOp Pass\t\t\t\tPass\r\n"));
}

TEST_F(TestDatabaseTest, DataEntryLoadsOncePerRunAndWritesEachUutOnce) {
  WriteDatabase({"1" + kT + "MANUAL"});
  Answer({"Accept|date=01-01-2026|operator=  Ann Lee |description=Pump A|serial=100", "Pass",
          "Accept|serial=101|date=31-02-2026", "accept|serial=101|date=16-11-2026",
          "Fail and Continue", "Cancel"});
  // The files may go away once the run has loaded them.
  const std::vector<std::string> sequence = {"NEXT:", "DB_DATAENTRY c:\\details.txt",
                                             "DB_STAGECHECK 1", "FILES GONE", "GOTO NEXT"};
  const Keyword<CommandLine> filesGone{"FILES", "", AsWritten};
  seq_.dispatcher().bind(filesGone, [this](Sequencer&, const CommandLine&) {
    folder_.files().remove(folder_.path() + "/stages.txt", nullptr);
  });
  EXPECT_EQ(Run(sequence), "");
  // Cancel without a label ends the run as STOP does.
  EXPECT_EQ(seq_.endReason(), EndReason::kStop);
  EXPECT_EQ(db_.uutsFinished(), 2);
  EXPECT_FALSE(db_.uutOpen());
  EXPECT_EQ(db_.lastEntry().serialNumber, "101");
  EXPECT_EQ(formatDate(db_.lastEntry().testDate, "dd-mm-yyyy"), "16-11-2026");
  // The invalid date is refused with the window's message and asked again.
  EXPECT_THAT(op_.messages, ElementsAre("You have not entered a valid date for the test date"));
  ASSERT_GE(op_.questions.size(), 1u);
  EXPECT_EQ(op_.questions[0].text,
            "Serial Number, Test Date: (dd-mm-yyyy) 15-11-2026, Operator(s), Description");
  EXPECT_THAT(op_.questions[0].choices, ElementsAre("Accept", "Cancel"));
  EXPECT_EQ(Summary(),
            "Test_Results\r\nTest_Name: Pump test\r\nDate: 15-11-2026\r\n"
            "Serial_Number\tResult\tDetails\tFailures\r\n" +
                std::string(13, ' ') +
                "\t      \t       \tStage\tTest Item\tValue\tMessage\r\n"
                "100\tPASS\tSN100_261115.txt\r\n"
                "Pump test_261115.txt101\tFAIL\tSN101_261115.txt\r\n" +
                std::string(17, ' ') + "\t      \t       \t1\tUn-Named\t\tOp Fail\r\n");
  EXPECT_THAT(folder_.Read("results/SN_100_261115_143005.txt"),
              HasSubstr("Description: Pump A\r\nOperator(s): Ann Lee\r\nResult: PASS\r\n"));

  // The next run loads the files again: now the stage checks file is gone.
  Answer({"Accept|serial=102"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt"}), "Unable to open Database file:c:\\details.txt");
  ASSERT_EQ(op_.messages.size(), 3u);
  EXPECT_THAT(op_.messages[1], HasSubstr("Cannot read test definition file: c:\\stages.txt"));
  EXPECT_THAT(op_.messages[2], HasSubstr("Unable to open Database file:c:\\details.txt"));
  EXPECT_EQ(db_.uutsFinished(), 2);
}

TEST_F(TestDatabaseTest, CancelJumpsToTheLabelAndTheRunEndWritesTheOpenUut) {
  WriteDatabase({"1" + kT + "MEASURE" + kT + "A" + kT + kT + "0" + kT + "1",
                 "2" + kT + "MEASURE" + kT + "MISSING" + kT + kT + "0" + kT + "1"});
  channels_ = {{"A", {"0.5"}}};
  Answer({"Cancel"});
  EXPECT_EQ(Run({"DB_DATAENTRY c:\\details.txt, DONE", "CONTINUEOK not reached", "DONE:"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);
  EXPECT_THAT(Kinds(), ElementsAre("DATAENTRY"));
  EXPECT_EQ(db_.uutsFinished(), 0);

  // Stage checks without a UUT under test do nothing.
  EXPECT_EQ(Run({"DB_STAGECHECK 1", "DB_STAGECHECK 2"}), "");
  EXPECT_TRUE(reads_.empty());

  // A channel that cannot be read is a sequence error; the UUT tested so far
  // is still written when the run ends.
  Answer({"Accept|serial=9"});
  EXPECT_THAT(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1", "DB_STAGECHECK 2"}),
              "Stage 2: cannot read channel MISSING: Channel MISSING does not exist");
  EXPECT_EQ(db_.uutsFinished(), 1);
  EXPECT_THAT(Summary(), HasSubstr("9\tPASS\tSN9_261115.txt\r\n"));

  // No answer to the data entry: a sequence error, and nothing is started.
  EXPECT_THAT(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1"}),
              HasSubstr("No answer to the DATAENTRY question"));
  EXPECT_EQ(db_.uutsFinished(), 1);
}

// The results folder cannot be written (its path runs through a regular file,
// which stops root too): the run ends with the documented message naming the
// UUT, and the results written by the earlier run stay as they were.
TEST_F(TestDatabaseTest, ResultsThatCannotBeWrittenEndTheRunAndKeepEarlierResults) {
  WriteDatabase({"1" + kT + "MANUAL"});
  Answer({"Accept|serial=100", "Pass"});
  ASSERT_EQ(Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1"}), "");
  const std::string before = Summary();
  ASSERT_THAT(before, HasSubstr("100\tPASS\tSN100_261115.txt\r\n"));

  folder_.Write("details.txt", {"TEST SEQUENCE - DETAILS", "TITLE",
                                "Pump test" + kT + kT + "2" + kT + kT + "c:\\fields.txt" + kT +
                                    "c:\\stages.txt" + kT + "c:\\details.txt\\results"});
  Answer({"Accept|serial=101", "Pass"});
  const std::string error = Run({"DB_DATAENTRY c:\\details.txt", "DB_STAGECHECK 1"});
  EXPECT_THAT(error, ::testing::StartsWith("Unable to write the results of UUT 101: "));
  EXPECT_THAT(error, HasSubstr("details.txt/results"));
  EXPECT_EQ(db_.uutsFinished(), 2);
  EXPECT_EQ(Summary(), before);
}

TEST(DataEntryAnswer, FieldsDatesAndRefusals) {
  const Micros today = fromCivil({2026, 11, 15, 9, 0, 0, 0});
  auto got = ParseDataEntryAnswer(
      "Accept|serial=1234|date=15-11-2026|operator=Ann Lee|description=Pump A", today);
  EXPECT_TRUE(got.accepted);
  EXPECT_EQ(got.entry.serialNumber, "1234");
  EXPECT_EQ(formatDate(got.entry.testDate, "dd-mm-yyyy"), "15-11-2026");
  EXPECT_EQ(got.entry.description, "Pump A");
  got = ParseDataEntryAnswer("Accept", today);
  EXPECT_TRUE(got.accepted);
  EXPECT_EQ(got.entry.testDate, fromCivil({2026, 11, 15, 0, 0, 0, 0}));
  EXPECT_EQ(got.entry.serialNumber, "");
  EXPECT_TRUE(ParseDataEntryAnswer("Cancel", today).cancelled);
  got = ParseDataEntryAnswer("Accept|colour=red", today);
  EXPECT_FALSE(got.accepted);
  EXPECT_THAT(got.message, HasSubstr("colour"));
  EXPECT_FALSE(ParseDataEntryAnswer("Yes|serial=1", today).accepted);

  EXPECT_EQ(ParseEntryDate("29-02-2028"), fromCivil({2028, 2, 29, 0, 0, 0, 0}));
  EXPECT_EQ(ParseEntryDate("1/2/26"), fromCivil({2026, 2, 1, 0, 0, 0, 0}));
  for (const char* bad : {"31-02-2026", "29-02-2026", "00-01-2026", "15-13-2026", "15-11",
                          "15-11-2026-1", "a-b-c", "", "15-11-202", "15--2026"}) {
    EXPECT_EQ(ParseEntryDate(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace tavrix
