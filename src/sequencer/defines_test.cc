// EXECUTEDEFINE, ONTIMEOUT, CHAIN, RETURN, ABORTTEST and ENDTAVRIX in virtual
// time.

#include "sequencer/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class DefinesTest : public CommandTest {};

TEST_F(DefinesTest, TheTimeoutEndsAWaitAndTheRunGoesOnAtItsLabel) {
  // Deadline at 10 s; the seconds tick at 11 s sees -1 and the wait ends.
  EXPECT_EQ(Run({"ONTIMEOUT 10, LATE", "WAITTIMEOFDAY 01:00", "STOP", "LATE:", "WAITRANDOM 2, 2"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 13.0);
  // The label search places the run behind the label line.
  EXPECT_EQ(Shown(), (Lines{"ONTIMEOUT 10, LATE", "WAITTIMEOFDAY 01:00", "WAITRANDOM 2, 2"}));
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);
}

TEST_F(DefinesTest, TheCountDownStandsStillDuringWaitSecondsButTheDeadlineDoesNot) {
  // WAITSECONDS 30 runs to its end; the first tick after it finds the
  // deadline passed, and the next wait ends at once.
  EXPECT_EQ(Run({"ONTIMEOUT 10, LATE", "WAITSECONDS 30", "WAITTIMEOFDAY 01:00", "STOP", "LATE:",
                 "WAITRANDOM 1, 1"}),
            "");
  EXPECT_DOUBLE_EQ(Elapsed(), 32.0);
  EXPECT_EQ(Shown().back(), "WAITRANDOM 1, 1");
}

TEST_F(DefinesTest, ATimeoutNamingADefineRunsItBetweenLines) {
  EXPECT_EQ(Run({"EXECUTEDEFINE cooldown, GOTO COOL", "ONTIMEOUT 5, COOLDOWN", "WAITTIMEOFDAY 01:00",
                 "STOP", "COOL:", "WAITRANDOM 1, 1"}),
            "");
  EXPECT_DOUBLE_EQ(Elapsed(), 7.0);
  EXPECT_EQ(Shown(), (Lines{"EXECUTEDEFINE cooldown, GOTO COOL", "ONTIMEOUT 5, COOLDOWN",
                            "WAITTIMEOFDAY 01:00", "GOTO COOL", "WAITRANDOM 1, 1"}));
  ASSERT_EQ(seq_.defineTable().size(), 1u);
  EXPECT_FALSE(seq_.defineTable()[0].isChain);
}

TEST_F(DefinesTest, ATimeoutCanBeCancelledAndFiresOnlyOnce) {
  EXPECT_EQ(Run({"ONTIMEOUT 5, LATE", "ONTIMEOUT 0", "WAITRANDOM 20, 20", "STOP", "LATE:"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 20.0);
  EXPECT_FALSE(seq_.secondsTimerEnabled());

  // After firing, a later wait is not cut short again.
  EXPECT_EQ(Run({"ONTIMEOUT 2, LATE", "WAITRANDOM 20, 20", "STOP", "LATE:", "WAITRANDOM 20, 20"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 20.0 + 3.0 + 20.0);
}

TEST_F(DefinesTest, BadTimeoutsAndMissingTargetsAreReported) {
  EXPECT_EQ(Run({"ONTIMEOUT abc, LATE"}), "Invalid parameter - abc - for an OnTimeout statement");
  EXPECT_EQ(Run({"ONTIMEOUT -3, LATE"}), "Invalid parameter - -3 - for an OnTimeout statement");
  EXPECT_EQ(Run({"ONTIMEOUT 5"}), "OnTimeout - no label or define to go to after 5 seconds");
  EXPECT_EQ(Run({"ONTIMEOUT 1, NOWHERE", "WAITRANDOM 9, 9", "STOP"}), "Label NOWHERE: does not exist");
  EXPECT_DOUBLE_EQ(Elapsed(), 2.0);
}

TEST_F(DefinesTest, DefinesRunNowAreClearedAndMayNotLoop) {
  // Arguments behind the second comma belong to the define's command line.
  EXPECT_EQ(Run({"EXECUTEDEFINE pause, WAITRANDOM 3, 3", "EXECUTEDEFINE PAUSE", "EXECUTEDEFINE pause"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 6.0);
  EXPECT_EQ(Run({"EXECUTEDEFINE pause, WAITRANDOM 3, 3", "EXECUTEDEFINE", "EXECUTEDEFINE pause"}),
            "Define pause: does not exist");
  EXPECT_EQ(Run({"EXECUTEDEFINE again, EXECUTEDEFINE again", "EXECUTEDEFINE again"}),
            "ExecuteDefine - defines run each other more than 8 deep: again");
  EXPECT_EQ(Run({"EXECUTEDEFINE , WAITSECONDS 1"}), "ExecuteDefine - a define needs a name: WAITSECONDS 1");
  // A redefinition replaces the command line; a CHAIN define is marked.
  Run({"EXECUTEDEFINE next, GOTO A", "EXECUTEDEFINE NEXT, CHAIN other.wts"});
  ASSERT_EQ(seq_.defineTable().size(), 1u);
  EXPECT_EQ(seq_.defineTable()[0].second, "CHAIN other.wts");
  EXPECT_TRUE(seq_.defineTable()[0].isChain);
}

TEST_F(DefinesTest, StopEndsTheClockWaitsAtOnce) {
  Timer stopper(events_, 5 * kMicrosPerSecond, [&] { seq_.pressStop(); });
  stopper.setEnabled(true);
  EXPECT_EQ(Run({"WAITDATETIME 01-02-2026", "WAITRANDOM 3, 3"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 5.0);
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  EXPECT_EQ(op_.statuses.back(), "Stopped");
}

TEST_F(DefinesTest, ChainContinuesInAnotherFileAndReturnComesBack) {
  Write("sub.wts", {"WAITRANDOM 2, 2", "RETURN", "PART2:", "WAITRANDOM 5, 5", "RETURN"});
  Write("c/seq/deep.wts", {"CHAIN ../../sub.wts, PART2", "RETURN"});
  EXPECT_EQ(Run({"CHAIN sub.wts", "WAITRANDOM 1, 1", "CHAIN c:\\seq\\deep.wts", "STOP"}), "");
  EXPECT_EQ(Shown(), (Lines{"CHAIN sub.wts", "WAITRANDOM 2, 2", "RETURN", "WAITRANDOM 1, 1",
                            "CHAIN c:\\seq\\deep.wts", "CHAIN ../../sub.wts, PART2",
                            "WAITRANDOM 5, 5", "RETURN", "RETURN", "STOP"}));
  EXPECT_DOUBLE_EQ(Elapsed(), 8.0);
  // The next run starts again in the prepared file.
  op_.commands.clear();
  seq_.pressRun();
  EXPECT_EQ(Shown().front(), "CHAIN sub.wts");
}

TEST_F(DefinesTest, ChainFailuresAreReportedWithTheFileThatHoldsThem) {
  Write("self.wts", {"CHAIN self.wts"});
  EXPECT_EQ(Run({"CHAIN self.wts"}), "Chain - more than 16 nested Chain commands: self.wts");
  EXPECT_EQ(seq_.sequenceFileName(), dir_ + "/self.wts");
  EXPECT_EQ(Run({"RETURN"}), "Return - there is no Chain command to return to");
  EXPECT_EQ(Run({"CHAIN"}), "Chain - no sequence file given");
  const std::string missing = Run({"CHAIN missing.wts"});
  EXPECT_EQ(missing.rfind("Chain - ", 0), 0u) << missing;
  EXPECT_NE(missing.find("missing.wts"), std::string::npos) << missing;
  Write("nolabel.wts", {"STOP"});
  EXPECT_EQ(Run({"CHAIN nolabel.wts, THERE"}), "Label THERE: does not exist");
  EXPECT_NE(op_.messages.back().find("nolabel.wts"), std::string::npos);
}

TEST_F(DefinesTest, AbortTestAndEndTavrixEndTheRun) {
  EXPECT_EQ(Run({"ABORTTEST Unit failed", "WAITRANDOM 5, 5"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  EXPECT_EQ(op_.messages.back(), "Unit failed");
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);

  EXPECT_EQ(Run({"NONSTOP", "ENDTAVRIX", "WAITRANDOM 5, 5"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kStop);
  EXPECT_TRUE(seq_.flags().quitRequested);
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
  EXPECT_EQ(Run({"STOP"}), "");
  EXPECT_FALSE(seq_.flags().quitRequested);
}

}  // namespace
}  // namespace tavrix
