#include "sequencer/sequencer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "sequencer/core_commands.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"

namespace tavrix {
namespace {

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

// A run engine on a virtual clock with the core commands and a recording
// operator; sequences are written to a temporary file.
class RunEngineTest : public ::testing::Test {
 protected:
  RunEngineTest()
      : clock_(kStart),
        events_(clock_),
        trace_(clock_),
        seq_(events_, op_, trace_, files_, paths_) {
    RegisterSequencerCommands(seq_);
    op_.watch(seq_.runEvents());
    kinds_ = seq_.runEvents().subscribe([this](const RunEvent& e) { kinds.push_back(e.kind); });
  }

  // How many events of a kind the run published.
  long Count(RunEventKind kind) const { return std::count(kinds.begin(), kinds.end(), kind); }

  // Writes the lines with CR LF ends and prepares the file.
  void Load(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\r\n";
    files_.put(path_, text);
    std::string error;
    ASSERT_TRUE(seq_.prepareFile(path_, &error)) << error;
  }

  // Runs and returns the text of the last sequence error ("" if none).
  std::string Run(const std::vector<std::string>& lines) {
    Load(lines);
    seq_.start();
    return seq_.lastSequenceError();
  }

  // The commands dispatched, as the command display showed them.
  std::vector<std::string> Shown() const {
    std::vector<std::string> shown;
    for (const auto& c : op_.commands) {
      if (c.rfind("waitseconds ", 0) != 0) shown.push_back(c);
    }
    return shown;
  }

  double Elapsed() const { return static_cast<double>(clock_.now() - kStart) / kMicrosPerSecond; }

  VirtualClock clock_;
  EventLoop events_;
  RecordingOperator op_;
  Trace trace_;
  MemoryFileSystem files_;
  PathMap paths_{files_.dataRoot()};
  Sequencer seq_;
  std::string path_ = "/data/main.wts";
  std::vector<RunEventKind> kinds;
  RunEventBus::Subscription kinds_;
};

TEST_F(RunEngineTest, RunsToTheEndAndShowsTheStatus) {
  EXPECT_EQ(Run({"label:", "unknownword 1, 2", "", "\t \t"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);
  EXPECT_EQ(op_.statuses, (std::vector<std::string>{"Ready", "Running", "Stopped"}));
  EXPECT_FALSE(seq_.flags().running);
  EXPECT_EQ(kinds.front(), RunEventKind::kFile);
  EXPECT_EQ(Count(RunEventKind::kStarted), 1);
  EXPECT_EQ(Count(RunEventKind::kStopped), 1);
  EXPECT_EQ(kinds.back(), RunEventKind::kEnd);
}

TEST_F(RunEngineTest, DispatchCleansTheLineAndMatchesWholeWordsOnly) {
  // Leading blanks and tabs go (the reader and the splitter both drop every
  // leading tab); keywords are case-blind; WAITSECONDSX matches nothing.
  EXPECT_EQ(Run({"  waitseconds 1", "\tWAITSECONDS 1", "WAITSECONDSX 100", "\t\tWAITSECONDS 4",
                 "\t \tWAITSECONDS 8", "\n"}),
            "");
  EXPECT_DOUBLE_EQ(Elapsed(), 14.0);
}

TEST_F(RunEngineTest, AKeywordWithoutItsSubsystemEndsTheRunByName) {
  EXPECT_EQ(Run({"RAMP A, B, C", "STOP"}), Dispatcher::notAvailableText("RAMP"));
  ASSERT_EQ(op_.messages.size(), 1u);
  EXPECT_EQ(op_.messages[0], "Sequence file: " + path_ + "\rError on line: 1\r" +
                                 Dispatcher::notAvailableText("RAMP"));
  EXPECT_EQ(seq_.endReason(), EndReason::kError);
}

TEST_F(RunEngineTest, StopEndsAfterItsLineAndTheNextRunStartsAtTheTop) {
  EXPECT_EQ(Run({"A:", "STOP", "WAITSECONDS 50"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kStop);
  EXPECT_EQ(op_.statuses.back(), "Stopped");
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
  op_.commands.clear();
  seq_.start();
  EXPECT_EQ(Shown(), (std::vector<std::string>{"A:", "STOP"}));
}

TEST_F(RunEngineTest, GotoFindsLabelsBySubstringInAnyCase) {
  EXPECT_EQ(Run({"GOTO start", "WAITSECONDS 100", "XSTART:", "WAITSECONDS 1",
                 "START:", "WAITSECONDS 1000"}),
            "");
  // The first line holding "START:" wins, even inside XSTART:.
  EXPECT_DOUBLE_EQ(Elapsed(), 1001.0);
}

TEST_F(RunEngineTest, AMissingLabelIsReportedWithTheLineNumberReached) {
  EXPECT_EQ(Run({"WAITSECONDS 1", "GOTO  Nowhere", "STOP"}), "Label Nowhere: does not exist");
  // The search read the whole file before giving up.
  EXPECT_EQ(op_.messages.at(0),
            "Sequence file: " + path_ + "\rError on line: 3\rLabel Nowhere: does not exist");
}

TEST_F(RunEngineTest, WaitSecondsHoldsForItsLengthAcrossMidnight) {
  clock_.advanceTo(kStart + (86400 - 10) * kMicrosPerSecond);  // 23:59:50
  EXPECT_EQ(Run({"WAITSECONDS 3600", "WAITSECONDS 0.25"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 86400 - 10 + 3600.25);
  EXPECT_EQ(Run({"WAITSECONDS 0"}), "Invalid parameter - 0 - for a WaitSeconds statement");
  EXPECT_EQ(Run({"WAITSECONDS -3"}), "Invalid parameter - -3 - for a WaitSeconds statement");
  EXPECT_EQ(Run({"WAITSECONDS abc"}), "Invalid parameter - abc - for a WaitSeconds statement");
}

TEST_F(RunEngineTest, TheTimeoutCountDownStandsStillDuringWaitSeconds) {
  Load({"WAITSECONDS 30", "STOP"});
  seq_.setTimeoutDeadline(clock_.now() + 100 * kMicrosPerSecond);
  std::vector<int32_t> shown;
  Timer watch(events_, kMicrosPerSecond, [&] { shown.push_back(op_.timeout); });
  watch.setEnabled(true);
  seq_.start();
  // The seconds timer did not tick during the wait, so the display kept its
  // value; it is switched on again after the wait.
  ASSERT_FALSE(shown.empty());
  EXPECT_EQ(shown.back(), 0);
  EXPECT_FALSE(seq_.flags().timeoutExpired);
}

TEST_F(RunEngineTest, SecondsTimerCountsDownAndExpires) {
  Load({"WAITSECONDS 1"});
  seq_.setTimeoutDeadline(clock_.now() + 2 * kMicrosPerSecond + 500'000);
  clock_.advanceBy(kMicrosPerSecond);
  events_.processPendingEvents();
  EXPECT_EQ(op_.timeout, 1);
  clock_.advanceBy(2 * kMicrosPerSecond);
  events_.processPendingEvents();
  EXPECT_EQ(op_.timeout, -1);
  EXPECT_TRUE(seq_.flags().timeoutExpired);
}

TEST_F(RunEngineTest, AQuestionWithoutAnAnswerEndsTheRun) {
  const std::string error = Run({"ENTEROKCANCEL Ready?, X", "WAITSECONDS 5"});
  EXPECT_NE(error.find("No answer to the ENTEROKCANCEL question"), std::string::npos) << error;
  EXPECT_EQ(seq_.endReason(), EndReason::kError);
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
}

TEST_F(RunEngineTest, SingleSteppingHoldsEachLineUntilStepOrSkip) {
  Load({"WAITSECONDS 1", "WAITSECONDS 2", "WAITSECONDS 4", "WAITSECONDS 8"});
  int presses = 0;
  // A person presses Step, Skip, then Run, each ten seconds apart.
  Timer person(events_, 10 * kMicrosPerSecond, [&] {
    ++presses;
    if (presses == 1) seq_.step();
    if (presses == 2) seq_.skip();
    if (presses == 3) seq_.start();
  });
  person.setEnabled(true);
  seq_.startStepping();
  // Line 1 waited for Step at 10 s and ran to 11 s; line 2 for Skip at 20 s
  // (the held line runs) to 22 s; line 3 for Run at 30 s, after which the
  // run is free: 34 s, 42 s.
  EXPECT_DOUBLE_EQ(Elapsed(), 42.0);
  EXPECT_EQ(presses, 4);
  EXPECT_FALSE(seq_.flags().singleStepMode);
  EXPECT_EQ(Count(RunEventKind::kHold), 3);
  EXPECT_EQ(Count(RunEventKind::kRelease), 3);
  EXPECT_EQ(Count(RunEventKind::kResumed), 1);
}

// Stop while a line is held leaves that line out, however the hold came
// (stepping or a pause); Skip before it still ran its held line.
TEST_F(RunEngineTest, StopNeverRunsTheHeldLine) {
  std::vector<std::string> outputs;
  const Keyword<CommandLine> output{"OUTPUT", "", AsWritten};
  seq_.dispatcher().bind(output,
                         [&](Sequencer&, const CommandLine& c) { outputs.push_back(c.arg1); });
  Load({"OUTPUT 1", "OUTPUT 2", "OUTPUT 3", "OUTPUT 4"});
  int presses = 0;
  Timer person(events_, 10 * kMicrosPerSecond, [&] {
    ++presses;
    if (presses == 1) seq_.step();
    if (presses == 2) seq_.skip();
    if (presses == 3) seq_.stop();
  });
  person.setEnabled(true);
  seq_.startStepping();
  EXPECT_EQ(outputs, (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(presses, 3);
  EXPECT_FALSE(seq_.flags().running);

  // A run paused from outside holds the same way.
  outputs.clear();
  Load({"OUTPUT 1", "WAITSECONDS 5", "OUTPUT 2"});
  Timer pauser(events_, 2 * kMicrosPerSecond, [&] {
    pauser.setEnabled(false);
    seq_.pause();
  });
  pauser.setEnabled(true);
  const auto held = seq_.runEvents().subscribe([&](const RunEvent& e) {
    if (e.kind == RunEventKind::kHold) events_.post([this] { seq_.stop(); });
  });
  person.setEnabled(false);
  seq_.start();
  EXPECT_EQ(outputs, (std::vector<std::string>{"1"}));
  EXPECT_FALSE(seq_.flags().running);
}

TEST_F(RunEngineTest, APendingTimeoutRunsItsLabelBetweenLines) {
  Load({"WAITSECONDS 1000", "WAITSECONDS 1000", "HANDLER:", "WAITSECONDS 5"});
  seq_.setJumpTarget("handler", false);
  // Something with a timer of its own (an alarm, a calculated channel)
  // makes the timeout pending 3 s into the wait.
  Timer fire(events_, 3 * kMicrosPerSecond, [&] {
    fire.setEnabled(false);
    seq_.makeTimeoutPending();
  });
  fire.setEnabled(true);
  seq_.start();
  EXPECT_EQ(seq_.lastSequenceError(), "");
  // The first wait ends at its first turn after 3 s; the label's line runs.
  EXPECT_DOUBLE_EQ(Elapsed(), 8.0);
}

TEST_F(RunEngineTest, AutomaticStartPressesRunAtTheFirstSecondsTick) {
  files_.put(path_, "WAITSECONDS 5\r\n");
  std::string error;
  ASSERT_TRUE(seq_.prepareFile(path_, &error)) << error;
  seq_.startAtNextSecond();
  EXPECT_EQ(op_.statuses, (std::vector<std::string>{"Ready"}));
  events_.waitUntil([&] { return seq_.endReason() != EndReason::kNone; });
  EXPECT_EQ(op_.statuses, (std::vector<std::string>{"Ready", "Running", "Stopped"}));
  EXPECT_DOUBLE_EQ(Elapsed(), 6.0);

  // Without a prepared file there is nothing to start.
  RecordingOperator other;
  Sequencer plain(events_, other, trace_, files_, paths_);
  plain.startAtNextSecond();
  EXPECT_FALSE(plain.flags().autoStartPending);
}

TEST_F(RunEngineTest, CloseAsksOnlyWhileTheRunMustNotBeStoppedAndNeedsAnExplicitYes) {
  EXPECT_TRUE(seq_.mayClose());
  EXPECT_TRUE(op_.questions.empty());
  // No answer at all, No and Cancel each leave the run going; only Yes lets
  // the window close.
  std::vector<bool> allowed;
  op_.answers = {std::nullopt, std::string("No"), std::string("Cancel"), std::string("Yes")};
  Timer closer(events_, kMicrosPerSecond, [&] { allowed.push_back(seq_.mayClose()); });
  closer.setEnabled(true);
  EXPECT_EQ(Run({"NONSTOP", "WAITSECONDS 4", "WAITSECONDS 1"}), "");
  closer.setEnabled(false);
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);
  EXPECT_DOUBLE_EQ(Elapsed(), 5.0);
  EXPECT_TRUE(op_.messages.empty());
  EXPECT_FALSE(op_.stopAllowed);
  ASSERT_GE(op_.questions.size(), 4u);
  EXPECT_EQ(op_.questions[0].text,
            "This application should not be  stopped\rDo you want to stop it ?");
  EXPECT_EQ(op_.questions[0].title, "Corvane Test Sequence");
  EXPECT_EQ(allowed.at(0), false);
  EXPECT_EQ(allowed.at(1), false);
  EXPECT_EQ(allowed.at(2), false);
  EXPECT_EQ(allowed.at(3), true);
}

TEST_F(RunEngineTest, TheLineCounterOverflowsPast32767Lines) {
  std::vector<std::string> lines(32767, "x");
  lines.push_back("STOP");
  EXPECT_EQ(Run(lines), "Line count overflow - a sequence file can hold at most 32767 lines");
  EXPECT_EQ(seq_.lineNumber(), 32767);
  lines.resize(32767);
  EXPECT_EQ(Run(lines), "");
}

}  // namespace
}  // namespace tavrix
