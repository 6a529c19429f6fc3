// WAITRANDOM, WAITTIMEOFDAY and WAITDATETIME in virtual time. The clock
// starts at 2026-01-01 00:00:00.

#include <cstdio>
#include <sstream>

#include "testing/test_run_engine.h"

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
  EXPECT_EQ(Run({"WAITDATETIME 29-02-2026"}),
            "Invalid parameter - 29-02-2026 - for a WaitDateTime statement");
  EXPECT_EQ(Run({"WAITDATETIME 2026-03-01"}),
            "Invalid parameter - 2026-03-01 - for a WaitDateTime statement");
  EXPECT_EQ(Run({"WAITDATETIME 01-03-2026, 25:00"}),
            "Invalid parameter - 01-03-2026, 25:00 - for a WaitDateTime statement");
  EXPECT_EQ(Run({"WAITDATETIME 29-02-2028, 00:00:01"}), "");  // a leap day
  EXPECT_EQ(toCivil(clock_.now()).month, 2);
  EXPECT_EQ(toCivil(clock_.now()).second, 1);
}

TEST_F(ClockWaitsTest, WaitRandomDrawsItsLengthEvenlyBetweenItsBounds) {
  // The draw maps onto the bounds: low + (high - low) x draw.
  draws_ = {0.0, 0.5, 0.25};
  double before = Elapsed();
  auto waited = [&] {
    const double length = Elapsed() - before;
    before = Elapsed();
    return length;
  };
  EXPECT_EQ(Run({"WAITRANDOM 2, 6"}), "");
  EXPECT_DOUBLE_EQ(waited(), 2.0);
  EXPECT_EQ(Run({"WAITRANDOM 2, 6"}), "");
  EXPECT_DOUBLE_EQ(waited(), 4.0);
  EXPECT_EQ(Run({"WAITRANDOM 8"}), "");  // one bound: from 0
  EXPECT_DOUBLE_EQ(waited(), 2.0);
  EXPECT_EQ(Run({"WAITRANDOM 5, 5"}), "");
  EXPECT_DOUBLE_EQ(waited(), 5.0);

  // From the seeded generator, 2000 waits between 10 and 20 s fall evenly
  // into ten one-second bins: a chi-square of 9 degrees of freedom well
  // below its 0.1 % point (27.9), and a mean near 15. The trace gives the
  // instant each line starts.
  constexpr int kWaits = 2000;
  struct Collect final : OutputFile {
    explicit Collect(std::string& text) : text_(text) {}
    bool write(std::string_view bytes, std::string*) override {
      text_ += bytes;
      return true;
    }
    std::string& text_;
  };
  std::string text;
  trace_.setOutput(std::make_unique<Collect>(text));
  EXPECT_EQ(Run(std::vector<std::string>(kWaits + 1, "WAITRANDOM 10, 20")), "");
  trace_.setOutput(nullptr);
  std::vector<double> starts;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("\"ev\":\"line\"") != std::string::npos)
      starts.push_back(std::stod(line.substr(line.find(':') + 1)));
  }
  ASSERT_EQ(starts.size(), kWaits + 1u);
  std::vector<int> bins(10, 0);
  for (size_t i = 1; i < starts.size(); ++i) {
    const double length = starts[i] - starts[i - 1];
    ASSERT_GE(length, 10.0);
    ASSERT_LE(length, 20.0);
    ++bins[std::min(9, static_cast<int>(length - 10))];
  }
  double chiSquare = 0;
  for (int count : bins)
    chiSquare += (count - kWaits / 10.0) * (count - kWaits / 10.0) / (kWaits / 10.0);
  EXPECT_LT(chiSquare, 27.9);
  EXPECT_NEAR((starts.back() - starts.front()) / kWaits, 15.0, 0.25);

  EXPECT_EQ(Run({"WAITRANDOM 0"}), "Invalid parameter - 0 - for a WaitRandom statement");
  EXPECT_EQ(Run({"WAITRANDOM 5, 2"}), "Invalid parameter - 5, 2 - for a WaitRandom statement");
  EXPECT_EQ(Run({"WAITRANDOM -1, 2"}), "Invalid parameter - -1, 2 - for a WaitRandom statement");
}

TEST_F(ClockWaitsTest, StopEndsTheClockWaitsAtOnce) {
  Timer stopper(events_, 5 * kMicrosPerSecond, [&] { seq_.stop(); });
  stopper.setEnabled(true);
  EXPECT_EQ(Run({"WAITDATETIME 01-02-2026", "WAITRANDOM 3, 3"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 5.0);
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  EXPECT_EQ(op_.statuses.back(), "Stopped");
}

}  // namespace
}  // namespace tavrix
