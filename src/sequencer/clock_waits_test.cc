// WAITRANDOM, WAITTIMEOFDAY and WAITDATETIME in virtual time. The clock
// starts at 2026-01-01 00:00:00.

#include "sequencer/test_run_engine.h"

namespace tavrix {
namespace {

class ClockWaitsTest : public CommandTest {};

TEST_F(ClockWaitsTest, WaitTimeOfDayWaitsForTheNextTimeTheClockShowsIt) {
  EXPECT_EQ(Run({"WAITTIMEOFDAY 00:00"}), "");  // it is that time now
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
  EXPECT_EQ(Run({"WAITTIMEOFDAY 23:59:59"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 86399.0);
  // At 23:59:59 a time of day already passed lies beyond midnight.
  EXPECT_EQ(Run({"WAITTIMEOFDAY 0:00:30", "WAITTIMEOFDAY 00:00:30"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 86400.0 + 30.0);
  for (const char* bad : {"24:00", "7", "12:60", "ab:cd", "12:00:00:00", "", "1:2:61"}) {
    EXPECT_EQ(Run({std::string("WAITTIMEOFDAY ") + bad}),
              std::string("Invalid parameter - ") + bad + " - for a WaitTimeOfDay statement");
  }
}

TEST_F(ClockWaitsTest, WaitDateTimeWaitsUntilTheMomentAndNotForOneGoneBy) {
  EXPECT_EQ(Run({"WAITDATETIME 02-01-2026, 12:00"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 36 * 3600.0);
  EXPECT_EQ(Run({"WAITDATETIME 31-12-2025", "WAITDATETIME 02-01-2026 12:00:10"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 36 * 3600.0 + 10);
  EXPECT_EQ(Run({"WAITDATETIME 03-01-2026"}), "");  // midnight of that day
  EXPECT_DOUBLE_EQ(Elapsed(), 2 * 86400.0);
  EXPECT_EQ(Run({"WAITDATETIME 29-02-2026"}), "Invalid parameter - 29-02-2026 - for a WaitDateTime statement");
  EXPECT_EQ(Run({"WAITDATETIME 2026-03-01"}), "Invalid parameter - 2026-03-01 - for a WaitDateTime statement");
  EXPECT_EQ(Run({"WAITDATETIME 01-03-2026, 25:00"}),
            "Invalid parameter - 01-03-2026, 25:00 - for a WaitDateTime statement");
  EXPECT_EQ(Run({"WAITDATETIME 29-02-2028, 00:00:01"}), "");  // a leap day
  EXPECT_EQ(toCivil(clock_.now()).month, 2);
  EXPECT_EQ(toCivil(clock_.now()).second, 1);
}

TEST_F(ClockWaitsTest, WaitRandomStaysWithinItsBounds) {
  EXPECT_EQ(Run({"WAITRANDOM 5, 5"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 5.0);
  double before = Elapsed();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Run({"WAITRANDOM 2, 4"}), "");
    EXPECT_GE(Elapsed() - before, 2.0);
    EXPECT_LE(Elapsed() - before, 4.0);
    before = Elapsed();
    EXPECT_EQ(Run({"WAITRANDOM 0.5"}), "");
    EXPECT_LE(Elapsed() - before, 0.5);
    before = Elapsed();
  }
  EXPECT_EQ(Run({"WAITRANDOM 0"}), "Invalid parameter - 0 - for a WaitRandom statement");
  EXPECT_EQ(Run({"WAITRANDOM 5, 2"}), "Invalid parameter - 5, 2 - for a WaitRandom statement");
  EXPECT_EQ(Run({"WAITRANDOM -1, 2"}), "Invalid parameter - -1, 2 - for a WaitRandom statement");
}

}  // namespace
}  // namespace tavrix
