#include "instrument/outputs/ramps.h"

#include <gtest/gtest.h>

#include "testing/output_test_rig.h"

namespace tavrix {
namespace {

TEST(RampSetup, ParsesTheFourNumbersAndChecksStepsThenInterval) {
  std::string error;
  auto ramp = ParseRampSetup("0 TO 10 OVER 5 IN 10", false, &error);
  ASSERT_TRUE(ramp) << error;
  EXPECT_EQ(ramp->start, 0);
  EXPECT_EQ(ramp->end, 10);
  EXPECT_EQ(ramp->duration, 5);
  EXPECT_EQ(ramp->steps, 10);
  EXPECT_EQ(ramp->stepSize, 1);
  EXPECT_EQ(ramp->stepInterval, 0.5);

  // Case does not matter; leading blanks are dropped; values may fall.
  ramp = ParseRampSetup("   5 to 0 over 10 in 4", false, &error);
  ASSERT_TRUE(ramp) << error;
  EXPECT_EQ(ramp->stepSize, -1.25);
  EXPECT_EQ(ramp->stepInterval, 2.5);

  // The 0.1-second floor is kept exactly.
  EXPECT_TRUE(ParseRampSetup("0 TO 10 OVER 1 IN 10", false, &error));
  EXPECT_FALSE(ParseRampSetup("0 TO 10 OVER 0.5 IN 10", false, &error));
  EXPECT_EQ(error, "Ramp Setup String - Time between steps must be >= 0.1");
  EXPECT_FALSE(ParseRampSetup("0 TO 10 OVER 0.5 IN 10", true, &error));
  EXPECT_EQ(error, "GroupRamp Setup String - Time between steps must be >= 0.1");

  // Steps are checked before the interval.
  EXPECT_FALSE(ParseRampSetup("5 TO 0 OVER 10 IN 0", false, &error));
  EXPECT_EQ(error, "Ramp Setup String - Number of steps must be >0");
  EXPECT_FALSE(ParseRampSetup("5 TO 0 OVER 0 IN -3", true, &error));
  EXPECT_EQ(error, "GroupRamp Setup String - Number of steps must be >0");
  // Non-numeric text is 0: no steps.
  EXPECT_FALSE(ParseRampSetup("0 TO 10 OVER 5 IN many", false, &error));
  EXPECT_EQ(error, "Ramp Setup String - Number of steps must be >0");

  for (const char* bad :
       {"0 TO 10 IN 10", "0 OVER 5 IN 10", "0 TO 10 OVER 5", "10", "", "0 TO 1 OVER 5 IN 40000"}) {
    EXPECT_FALSE(ParseRampSetup(bad, false, &error)) << bad;
    EXPECT_EQ(error, "Cannot parse Ramp setup string") << bad;
    EXPECT_FALSE(ParseRampSetup(bad, true, &error)) << bad;
    EXPECT_EQ(error, "Cannot parse GroupRamp setup string") << bad;
  }

  // Load maintenance reads its channels behind the step count.
  std::string rest;
  ASSERT_TRUE(ParseRampSetup("0 to 10 over 5 in 10 AT Load USING Valve", false, &error, &rest));
  EXPECT_EQ(rest, " AT Load USING Valve");
}

TEST(Ramp, WritesEveryStepAtItsScheduledInstant) {
  OutputRun run;
  EXPECT_EQ(run.run({"RAMP OUT1, 0 TO 10 OVER 5 IN 10", "SEND DIG1, 1"}), "");
  std::vector<std::pair<double, std::string>> expected;
  for (int k = 0; k <= 10; ++k) expected.push_back({0.5 * k, numberText(k)});
  EXPECT_EQ(run.writes("OUT1"), Writes("OUT1", expected));
  EXPECT_EQ(run.writes("DIG1"), Writes("DIG1", {{5.0, "1"}}));
  EXPECT_DOUBLE_EQ(run.reading("OUT1"), 10);
  EXPECT_TRUE(run.instrument().lastOutputStatus());
}

TEST(Ramp, TheWaitIsRoundedDownToTenthsOfASecond) {
  // Steps 0.15 s apart: each wait is the time to the step rounded down to a
  // tenth, so the writes fall at 0.1, 0.3, 0.4, 0.6, ...
  OutputRun run;
  EXPECT_EQ(run.run({"RAMP OUT2, 0 TO 1.5 OVER 1.5 IN 10"}), "");
  std::vector<double> instants;
  for (const auto& w : run.writes("OUT2")) instants.push_back(w.t);
  EXPECT_EQ(instants, (std::vector<double>{0, 0.1, 0.3, 0.4, 0.6, 0.7, 0.9, 1.0, 1.2, 1.3, 1.5}));
  EXPECT_NEAR(run.reading("OUT2"), 1.5, 1e-12);
}

TEST(Ramp, KeepsItsSpacingAcrossMidnight) {
  OutputRun run("2024-03-01 23:59:58");
  EXPECT_EQ(run.run({"RAMP OUT1, 0 TO 4 OVER 4 IN 4"}), "");
  EXPECT_EQ(run.writes("OUT1"),
            Writes("OUT1", {{0, " 0"}, {1, " 1"}, {2, " 2"}, {3, " 3"}, {4, " 4"}}));
}

TEST(Ramp, AFailedWriteDoesNotStopTheRamp) {
  // The device disables the channel; the channel table still has it enabled,
  // so every write is sent and fails on the device's error report.
  OutputRun run;
  EXPECT_EQ(run.run({"IMLDEF OUT1, E=0", "RAMP OUT1, 10 TO 0 OVER 2 IN 4", "SEND DIG1, 1"}), "");
  EXPECT_EQ(run.writes("OUT1"),
            Writes("OUT1", {{0, " 10"}, {0.5, " 7.5"}, {1, " 5"}, {1.5, " 2.5"}, {2, " 0"}}));
  EXPECT_FALSE(run.instrument().lastOutputStatus());
  EXPECT_EQ(run.writes("DIG1").size(), 1u);
  EXPECT_EQ(run.seq().endReason(), EndReason::kEndOfFile);

  // A channel that is not in the table fails every write the same way: the
  // ramp still takes its full time, and so does a group.
  OutputRun missing;
  EXPECT_EQ(
      missing.run({"RAMP NOPE, 0 TO 1 OVER 1 IN 2", "SEND DIG1, 1", "[GROUPRAMPS]",
                   "RAMP OUT2, 0 TO 2 OVER 1 IN 2", "RAMP NOPE, 0 TO 1 OVER 2 IN 2", "[END]"}),
      "");
  EXPECT_FALSE(missing.instrument().lastOutputStatus());
  EXPECT_EQ(missing.writes("DIG1"), Writes("DIG1", {{1, "1"}}));
  EXPECT_EQ(missing.writes("OUT2"), Writes("OUT2", {{1, " 0"}, {1.5, " 1"}, {2, " 2"}}));
  EXPECT_DOUBLE_EQ(missing.seconds(), 3.0);
  EXPECT_EQ(missing.seq().endReason(), EndReason::kEndOfFile);
}

TEST(Ramp, BadInputIsReportedAndWritesNothing) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"RAMP OUT1, 0 TO 10 OVER 0.5 IN 10",
       "Ramp Setup String - Time between steps must be >= 0.1"},
      {"RAMP OUT1, 5 TO 0 OVER 10 IN 0", "Ramp Setup String - Number of steps must be >0"},
      {"RAMP OUT1, 0 UNTIL 10 OVER 5 IN 10", "Cannot parse Ramp setup string"},
      {"RAMP OUT1", "Cannot parse Ramp setup string"},
  };
  for (const auto& [line, text] : cases) {
    OutputRun run;
    EXPECT_EQ(run.run({line, "SEND DIG1, 1"}), text) << line;
    EXPECT_TRUE(run.writes().empty()) << line;
    EXPECT_EQ(run.seq().endReason(), EndReason::kError);
  }
}

TEST(Ramp, StopEndsTheRampAtItsNextWait) {
  OutputRun run;
  Timer stop(run.events(), 1'200'000, [&] { run.seq().stop(); });
  stop.setEnabled(true);
  run.run({"RAMP OUT1, 0 TO 10 OVER 5 IN 10", "SEND DIG1, 1"});
  EXPECT_EQ(run.writes("OUT1"), Writes("OUT1", {{0, " 0"}, {0.5, " 1"}, {1, " 2"}}));
  EXPECT_TRUE(run.writes("DIG1").empty());
  EXPECT_EQ(run.seq().endReason(), EndReason::kAbort);
}

TEST(GroupRamps, RampsRunOnOneClockEachWithItsOwnInterval) {
  OutputRun run;
  EXPECT_EQ(run.run({"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 OVER 2 IN 4",
                     "  ramp OUT2, 10 TO 7 OVER 3 IN 3", "[END]", "SEND DIG1, 1"}),
            "");
  // Due ramps write in the order of their lines.
  const std::vector<Write> expected = {{0, "OUT1", " 0"}, {0, "OUT2", " 10"}, {0.5, "OUT1", " 1"},
                                       {1, "OUT1", " 2"}, {1, "OUT2", " 9"},  {1.5, "OUT1", " 3"},
                                       {2, "OUT1", " 4"}, {2, "OUT2", " 8"},  {3, "OUT2", " 7"},
                                       {3, "DIG1", "1"}};
  EXPECT_EQ(run.writes(), expected);
}

TEST(GroupRamps, AWrongBlockEndsTheRunAndWritesNothing) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 OVER 2 IN 4", "WAITSECONDS 2", "[END]"},
       "\rGroup Ramps: a non-Ramp command has been found"},
      {{"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 OVER 2 IN 4", "", "[END]"},
       "\rGroup Ramps: a non-Ramp command has been found"},
      {{"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 OVER 2 IN 4", "RAMP OUT2, 5 TO 0 OVER 10 IN 0", "[END]"},
       "GroupRamp Setup String - Number of steps must be >0"},
      {{"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 OVER 0.2 IN 4", "[END]"},
       "GroupRamp Setup String - Time between steps must be >= 0.1"},
      {{"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 FOR 2 IN 4", "[END]"},
       "Cannot parse GroupRamp setup string"},
      {{"[GROUPRAMPS]", "RAMP OUT1, 0 TO 4 OVER 2 IN 4", "RAMP OUT2, 0 TO 4 OVER 2 IN 4"},
       "Group Ramps: the file ends before the [END] of the group"},
  };
  for (const auto& [lines, text] : cases) {
    OutputRun run;
    EXPECT_EQ(run.run(lines), text) << lines[2];
    EXPECT_TRUE(run.writes().empty()) << lines[2];
  }
}

}  // namespace
}  // namespace tavrix
