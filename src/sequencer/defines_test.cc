// EXECUTEDEFINE and ONTIMEOUT in virtual time.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class DefinesTest : public CommandTest {};

TEST_F(DefinesTest, TheTimeoutEndsAWaitAndTheRunGoesOnAtItsLabel) {
  // Deadline at 10 s; the seconds tick at 11 s sees -1 and the wait ends.
  EXPECT_EQ(Run({"ONTIMEOUT 10, LATE", "WAITTIMEOFDAY 01:00", "STOP", "LATE:", "WAITRANDOM 2, 2"}),
            "");
  EXPECT_DOUBLE_EQ(Elapsed(), 13.0);
  // The label search places the run behind the label line.
  EXPECT_EQ(Shown(), (Lines{"ONTIMEOUT 10, LATE", "WAITTIMEOFDAY 01:00", "WAITRANDOM 2, 2"}));
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);
}

TEST_F(DefinesTest, TheCountDownStandsStillDuringWaitSecondsButTheDeadlineDoesNot) {
  // WAITSECONDS 30 runs to its end; the first tick after it finds the
  // deadline passed, and the next wait ends at once.
  EXPECT_EQ(Run({"ONTIMEOUT 10, LATE", "WAITSECONDS 30", "WAITTIMEOFDAY 01:00", "STOP",
                 "LATE:", "WAITRANDOM 1, 1"}),
            "");
  EXPECT_DOUBLE_EQ(Elapsed(), 32.0);
  EXPECT_EQ(Shown().back(), "WAITRANDOM 1, 1");
}

TEST_F(DefinesTest, ATimeoutNamingADefineRunsItBetweenLines) {
  EXPECT_EQ(Run({"EXECUTEDEFINE cooldown, GOTO COOL", "ONTIMEOUT 5, COOLDOWN",
                 "WAITTIMEOFDAY 01:00", "STOP", "COOL:", "WAITRANDOM 1, 1"}),
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
  EXPECT_EQ(Run({"ONTIMEOUT 2, LATE", "WAITRANDOM 20, 20", "STOP", "LATE:", "WAITRANDOM 20, 20"}),
            "");
  EXPECT_DOUBLE_EQ(Elapsed(), 20.0 + 3.0 + 20.0);
}

TEST_F(DefinesTest, BadTimeoutsAndMissingTargetsAreReported) {
  EXPECT_EQ(Run({"ONTIMEOUT abc, LATE"}), "Invalid parameter - abc - for an OnTimeout statement");
  EXPECT_EQ(Run({"ONTIMEOUT -3, LATE"}), "Invalid parameter - -3 - for an OnTimeout statement");
  EXPECT_EQ(Run({"ONTIMEOUT 5"}), "OnTimeout - no label or define to go to after 5 seconds");
  EXPECT_EQ(Run({"ONTIMEOUT 1, NOWHERE", "WAITRANDOM 9, 9", "STOP"}),
            "Label NOWHERE: does not exist");
  EXPECT_DOUBLE_EQ(Elapsed(), 2.0);
}

TEST_F(DefinesTest, DefinesRunNowAreClearedAndMayNotLoop) {
  // Arguments behind the second comma belong to the define's command line.
  EXPECT_EQ(
      Run({"EXECUTEDEFINE pause, WAITRANDOM 3, 3", "EXECUTEDEFINE PAUSE", "EXECUTEDEFINE pause"}),
      "");
  EXPECT_DOUBLE_EQ(Elapsed(), 6.0);
  EXPECT_EQ(Run({"EXECUTEDEFINE pause, WAITRANDOM 3, 3", "EXECUTEDEFINE", "EXECUTEDEFINE pause"}),
            "Define pause: does not exist");
  EXPECT_EQ(Run({"EXECUTEDEFINE again, EXECUTEDEFINE again", "EXECUTEDEFINE again"}),
            "ExecuteDefine - defines run each other more than 8 deep: again");
  EXPECT_EQ(Run({"EXECUTEDEFINE , WAITSECONDS 1"}),
            "ExecuteDefine - a define needs a name: WAITSECONDS 1");
  // A redefinition replaces the command line; a CHAIN define is marked.
  Run({"EXECUTEDEFINE next, GOTO A", "EXECUTEDEFINE NEXT, CHAIN other.wts"});
  ASSERT_EQ(seq_.defineTable().size(), 1u);
  EXPECT_EQ(seq_.defineTable()[0].second, "CHAIN other.wts");
  EXPECT_TRUE(seq_.defineTable()[0].isChain);
}

}  // namespace
}  // namespace tavrix
