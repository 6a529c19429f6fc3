// WAITSECONDS, STARTTIMECOUNT and AFTERTIMECOUNT in virtual time.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class WaitsTest : public CommandTest {};

TEST_F(WaitsTest, StopDuringAWaitEndsItAtTheNextEventCheck) {
  Timer press(events_, 90 * kMicrosPerSecond, [&] { seq_.stop(); });
  press.setEnabled(true);
  EXPECT_EQ(Run({"WAITSECONDS 3600", "WAITSECONDS 3600"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 90.0);
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  EXPECT_EQ(op_.statuses.back(), "Stopped");
}

TEST_F(WaitsTest, AfterTimeCountJumpsOnceEnoughWholeUnitsHavePassed) {
  const std::vector<std::string> body = {"STARTTIMECOUNT",
                                         "WAITSECONDS 119",
                                         "AFTERTIMECOUNT 2, MINUTES, LATE",
                                         "WAITSECONDS 1",
                                         "AFTERTIMECOUNT 2, minutes, LATE",
                                         "STOP",
                                         "LATE:",
                                         "AFTERTIMECOUNT 1, SECONDS, LATE"};
  EXPECT_EQ(Run(body), "AfterTimeCount - a StartTimeCount command has not been executed");
  EXPECT_DOUBLE_EQ(Elapsed(), 120.0);
  EXPECT_EQ(Run({"STARTTIMECOUNT", "AFTERTIMECOUNT 2, WEEKS, X"}),
            "AfterTimeCount - unrecognised units: WEEKS");
  EXPECT_EQ(Run({"STARTTIMECOUNT", "AFTERTIMECOUNT 0, HOURS, X"}),
            "AfterTimeCount - invalid number of units: 0");
  // Preparing a file clears a running count.
  EXPECT_EQ(Run({"AFTERTIMECOUNT 1, DAYS, X"}),
            "AfterTimeCount - a StartTimeCount command has not been executed");
}

}  // namespace
}  // namespace tavrix
