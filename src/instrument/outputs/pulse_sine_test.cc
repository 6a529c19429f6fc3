#include "instrument/outputs/pulse_sine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "instrument/outputs/output_timing.h"
#include "testing/output_test_rig.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

TEST(PulseOutput, BothLevelsAreWrittenTheLengthApartWithTheEngineHeld) {
  OutputRun run;
  // A timer due in the middle of the pulse runs only after it.
  double timerRanAt = -1;
  Timer probe(run.events(), 50'000, [&] {
    if (timerRanAt < 0) timerRanAt = run.seconds();
  });
  probe.setEnabled(true);
  EXPECT_EQ(run.run({"PULSEOUTPUT DIG1, HI, 100", "PULSEOUTPUT DIG1, lo, 32000",
                     "PULSEOUTPUT DIG1, HI, 0"}),
            "");
  EXPECT_EQ(
      run.writes("DIG1"),
      Writes("DIG1", {{0, "1"}, {0.1, "0"}, {0.1, "0"}, {32.1, "1"}, {32.1, "1"}, {32.1, "0"}}));
  EXPECT_GE(timerRanAt, 0.1);
  // "Pulse Timing" in orange for each pulse, then the run status in grey.
  const std::pair<std::string, int32_t> timing{"Pulse Timing", 33023};
  const std::pair<std::string, int32_t> back{"Running", 12632256};
  EXPECT_EQ(run.op().statusLabels, (std::vector<std::pair<std::string, int32_t>>{
                                       timing, back, timing, back, timing, back}));
}

TEST(PulseOutput, BadLengthOrDirectionIsReportedAndWritesNothing) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"PULSEOUTPUT DIG1, HI, 32001", "Invalid parameter - 32001 - for a PulseOutput command"},
      {"PULSEOUTPUT DIG1, HI, -1", "Invalid parameter - -1 - for a PulseOutput command"},
      {"PULSEOUTPUT DIG1, HI, long", "Invalid parameter - long - for a PulseOutput command"},
      {"PULSEOUTPUT DIG1, HI", "Invalid parameter -  - for a PulseOutput command"},
      {"PULSEOUTPUT DIG1, up, 100",
       "Unrecognised direction parameter - UP - in a PulseOutput command"},
  };
  for (const auto& [line, text] : cases) {
    OutputRun run;
    EXPECT_EQ(run.run({line}), text) << line;
    EXPECT_TRUE(run.writes().empty()) << line;
    EXPECT_TRUE(run.op().statusLabels.empty()) << line;
  }
}

TEST(PulseOutput, FailedWritesToAChannelNotInTheTableDoNotStopThePulse) {
  OutputRun run;
  EXPECT_EQ(run.run({"PULSEOUTPUT NOPE, HI, 100", "SEND DIG1, 1"}), "");
  EXPECT_FALSE(run.instrument().lastOutputStatus());
  EXPECT_EQ(run.writes("DIG1"), Writes("DIG1", {{0.1, "1"}}));
  EXPECT_EQ(run.op().statusLabels.size(), 2u);
  EXPECT_EQ(run.seq().endReason(), EndReason::kEndOfFile);
}

TEST(WaitMilliseconds, CountsOnTheLinkCounterAcrossItsWrap) {
  // The counter is 32 bits wide: start 50 ms before it wraps.
  VirtualClock clock((int64_t{1} << 31) * 1000 - 50'000);
  SimLink link(clock, "", testFiles());
  const int32_t start = link.millisecondCount();
  EXPECT_EQ(start, INT32_MAX - 49);
  WaitMilliseconds(link, clock, start, 120);
  EXPECT_EQ(static_cast<uint32_t>(link.millisecondCount()) - static_cast<uint32_t>(start), 120u);
  const Micros before = clock.now();
  WaitMilliseconds(link, clock, link.millisecondCount(), 0);
  EXPECT_EQ(clock.now(), before);
}

TEST(SineSetup, KeywordsPointsAndErrors) {
  auto setup = ParseSineSetup("amplitude 2 offset 5 frequency 1 cycles 2 monitor Mon peak to Pk");
  ASSERT_TRUE(setup);
  EXPECT_EQ(setup->amplitude, 2);
  EXPECT_EQ(setup->offset, 5);
  EXPECT_EQ(setup->pointsPerCycle(), 5);
  EXPECT_EQ(setup->monitor, "Mon");
  EXPECT_EQ(setup->peakTo, "Pk");
  std::string error;
  EXPECT_EQ(SinePointCount(*setup, &error), 10);

  EXPECT_FALSE(ParseSineSetup("AMPLITUDE 2 OFFSET 5 CYCLES 2"));
  EXPECT_FALSE(ParseSineSetup("AMPLITUDE 2 OFFSET 5 FREQUENCY 1 CYCLES 2 MONITOR"));

  const std::vector<std::pair<std::string, std::string>> counts = {
      {"FREQUENCY 10 CYCLES 1", "Sine Output Setup String - There are no points to output"},
      {"FREQUENCY -1 CYCLES 3", "Sine Output Setup String - There are no points to output"},
      {"FREQUENCY 0 CYCLES 0", "Sine Output Setup String - There are no points to output"},
      {"FREQUENCY 0 CYCLES 1",
       "Sine Output Setup String - There are too many points to output (at most 32767)"},
      {"FREQUENCY 0.001 CYCLES 10",
       "Sine Output Setup String - There are too many points to output (at most 32767)"},
  };
  for (const auto& [text, message] : counts) {
    setup = ParseSineSetup("AMPLITUDE 1 OFFSET 0 " + text);
    ASSERT_TRUE(setup) << text;
    EXPECT_FALSE(SinePointCount(*setup, &error)) << text;
    EXPECT_EQ(error, message) << text;
  }
}

std::vector<std::pair<double, std::string>> SinePoints(double amplitude, double offset, int count,
                                                       double n) {
  std::vector<std::pair<double, std::string>> points;
  for (int k = 1; k <= count; ++k) {
    points.push_back({(2 * (k - 1)) / 10.0,
                      numberText(amplitude * std::sin(2 * std::numbers::pi * k / n) + offset)});
  }
  return points;
}

TEST(SineOut, WritesOnePointEveryFifthOfASecondAndThePeak) {
  // Frequency 1: five points a cycle; two cycles.
  OutputRun run;
  EXPECT_EQ(run.run({"SINEOUT OUT1, AMPLITUDE 2 OFFSET 5 FREQUENCY 1 CYCLES 2 PEAK TO PEAK",
                     "SEND DIG1, 1"}),
            "");
  EXPECT_EQ(run.writes("OUT1"), Writes("OUT1", SinePoints(2, 5, 10, 5)));
  // Without MONITOR the written values give the peak.
  const double swing = 2 * std::sin(2 * std::numbers::pi / 5);
  const auto peak = run.writes("PEAK");
  ASSERT_EQ(peak.size(), 1u);
  EXPECT_EQ(peak[0].t, 2.0);
  EXPECT_NEAR(leadingNumber(peak[0].value), swing, 1e-9);
  EXPECT_EQ(run.writes("DIG1"), Writes("DIG1", {{2.0, "1"}}));
}

TEST(SineOut, TheMonitorChannelIsReadOnceAPointForThePeak) {
  // MON follows OUT1 at half its value.
  OutputRun run;
  EXPECT_EQ(run.run({"SINEOUT OUT1, AMPLITUDE 4 OFFSET -1 FREQUENCY 1.25 CYCLES 1 MONITOR MON "
                     "PEAK TO PEAK"}),
            "");
  EXPECT_EQ(run.writes("OUT1"), Writes("OUT1", SinePoints(4, -1, 4, 4)));
  const auto peak = run.writes("PEAK");
  ASSERT_EQ(peak.size(), 1u);
  EXPECT_NEAR(leadingNumber(peak[0].value), 2, 1e-9);
  int reads = 0;
  for (const auto& line : run.traceLines())
    reads += line.find("\"cmd\":\"REA MON\"") != std::string::npos;
  EXPECT_EQ(reads, 4);
}

TEST(SineOut, BadSetupsAreReportedAndWriteNothing) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"SINEOUT OUT1, AMPLITUDE 2 OFFSET 5 FREQUENCY 1", "Cannot parse SineOut setup string"},
      {"SINEOUT OUT1, AMPLITUDE 2 OFFSET 5 FREQUENCY 10 CYCLES 1",
       "Sine Output Setup String - There are no points to output"},
  };
  for (const auto& [line, text] : cases) {
    OutputRun run;
    EXPECT_EQ(run.run({line}), text) << line;
    EXPECT_TRUE(run.writes().empty()) << line;
  }
}

TEST(SineOut, WritesToChannelsNotInTheTableFailWithoutStoppingTheOutput) {
  // Every point to NOPE fails and the sine still takes its time; a peak
  // channel that is missing fails its one write, and the run goes on.
  OutputRun run;
  EXPECT_EQ(run.run({"SINEOUT NOPE, AMPLITUDE 2 OFFSET 5 FREQUENCY 1 CYCLES 1", "SEND DIG1, 1",
                     "SINEOUT OUT1, AMPLITUDE 2 OFFSET 5 FREQUENCY 1 CYCLES 1 PEAK TO GONE",
                     "SEND DIG1, 0"}),
            "");
  EXPECT_FALSE(run.instrument().lastOutputStatus());
  EXPECT_EQ(run.writes("DIG1"), Writes("DIG1", {{1.0, "1"}, {2.0, "0"}}));
  EXPECT_EQ(run.writes("OUT1").size(), 5u);
  EXPECT_EQ(run.seq().endReason(), EndReason::kEndOfFile);
}

}  // namespace
}  // namespace tavrix
