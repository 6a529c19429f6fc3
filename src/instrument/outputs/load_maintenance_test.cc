#include "instrument/outputs/load_maintenance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "testing/output_test_rig.h"

namespace tavrix {
namespace {

TEST(MaintainSetup, KeywordsInOrderAndTheirChecks) {
  std::string error;
  auto setup = ParseMaintainSetup("hold Load at 50 using Valve with rate 5 gain 2", &error);
  ASSERT_TRUE(setup) << error;
  EXPECT_EQ(setup->loadChannel, "Load");
  EXPECT_EQ(setup->target, 50);
  EXPECT_EQ(setup->outputChannel, "Valve");
  EXPECT_EQ(setup->rate, 5.0f);
  EXPECT_EQ(setup->gain, 2);
  EXPECT_EQ(setup->tolerance, 0.01);
  setup = ParseMaintainSetup("HOLD L AT 1 USING V WITH RATE 1 GAIN -4 TOLERANCE 0.5", &error);
  ASSERT_TRUE(setup) << error;
  EXPECT_EQ(setup->tolerance, 0.5);

  const std::vector<std::pair<std::string, std::string_view>> bad = {
      {"HOLD L AT 1 USING V WITH RATE 1", kTextCannotParseMaintain},
      {"L AT 1 USING V WITH RATE 1 GAIN 1", kTextCannotParseMaintain},
      {"HOLD L USING V AT 1 WITH RATE 1 GAIN 1", kTextCannotParseMaintain},
      {"HOLD L AT 1 USING V WITH RATE 0 GAIN 1", kTextMaintainRate},
      {"HOLD L AT 1 USING V WITH RATE 1 GAIN 0", kTextMaintainGain},
      {"HOLD L AT 1 USING V WITH RATE 1 GAIN 1 TOLERANCE -1", kTextMaintainTolerance},
      // Targets that no channel value can hold.
      {"HOLD OVEN AT 1e308 USING HEATER WITH RATE 5 GAIN 2", kTextCannotParseMaintain},
      {"HOLD OVEN AT -1e308 USING HEATER WITH RATE 5 GAIN 2", kTextCannotParseMaintain},
      {"HOLD OVEN AT 1e39 USING HEATER WITH RATE 5 GAIN 2", kTextCannotParseMaintain},
      {"HOLD OVEN AT 1 USING HEATER WITH RATE 1e308 GAIN 2", kTextMaintainRate},
  };
  for (const auto& [text, message] : bad) {
    EXPECT_FALSE(ParseMaintainSetup(text, &error)) << text;
    EXPECT_EQ(error, message) << text;
  }

  // At least one second, one more for each full rate step.
  EXPECT_EQ(CorrectionTimeMs(0.5, 1), 1000);
  EXPECT_EQ(CorrectionTimeMs(2.5, 1), 3000);
  EXPECT_EQ(CorrectionTimeMs(-2.5, 1), 3000);
  EXPECT_EQ(CorrectionTimeMs(10, 5), 3000);
  // Deviations without end are capped, never converted out of range.
  EXPECT_EQ(CorrectionTimeMs(1e308, 1e-30f), (1'000'000'000LL + 1) * 1000);
  EXPECT_EQ(CorrectionTimeMs(std::numeric_limits<double>::quiet_NaN(), 1), 1'000'000'001LL * 1000);
}

// LOAD follows VALVE at twice its value with a 0.5 s lag.
TEST(LoadMaintenance, HoldsALaggingLoadWithinTheTolerance) {
  OutputRun run;
  std::vector<std::pair<double, double>> samples;  // (seconds, load)
  Timer sampler(run.events(), 250'000, [&] {
    samples.push_back({run.seconds(), run.reading("LOAD")});
  });
  sampler.setEnabled(true);
  EXPECT_EQ(run.run({"MT_MAINTAIN HOLD LOAD AT 50 USING VALVE WITH RATE 5 GAIN 2", "SEND DIG1, 1",
                     "WAITSECONDS 60"}),
            "");
  const auto done = run.writes("DIG1");
  ASSERT_EQ(done.size(), 1u);
  // The first correction is the whole deviation: (50 - 0) / 2.
  const auto valve = run.writes("VALVE");
  ASSERT_FALSE(valve.empty());
  EXPECT_EQ(valve[0], (Write{0, "VALVE", "25.00"}));
  // It waits (25 / 5 + 1) s before it compares again.
  if (valve.size() > 1) {
    EXPECT_GE(valve[1].t, 6.0);
  }
  EXPECT_LT(done[0].t, 30);
  // From the end of maintenance on, the load stays held: |50 - load| / 2 <= 0.01.
  int after = 0;
  for (const auto& [t, load] : samples) {
    if (t < done[0].t) continue;
    ++after;
    EXPECT_LE(std::fabs(50 - load) / 2, 0.01) << "at " << t << " s the load is " << load;
  }
  EXPECT_GT(after, 200);
}

TEST(LoadMaintenance, RampMovesTheTargetStepByStep) {
  OutputRun run;
  EXPECT_EQ(run.run({"MT_RAMP 0 TO 20 OVER 40 IN 2 AT LOAD USING VALVE WITH RATE 5 GAIN 2",
                     "SEND DIG1, 1"}),
            "");
  // Targets 0, 10 and 20 at 0, 20 and 40 s; each is reached and held.
  const auto valve = run.writes("VALVE");
  ASSERT_GE(valve.size(), 2u);
  EXPECT_EQ(valve[0], (Write{20, "VALVE", "5.00"}));
  EXPECT_GE(valve.back().t, 40);
  EXPECT_NEAR(run.reading("LOAD"), 20, 0.02);
}

TEST(LoadMaintenance, ARampStepThatItsMaintenanceOverranIsRejected) {
  // One-second steps; holding the first target takes a six-second correction.
  OutputRun run;
  const std::string error = run.run(
      {"MT_RAMP 50 TO 60 OVER 1 IN 1 AT LOAD USING VALVE WITH RATE 5 GAIN 2", "SEND DIG1, 1"});
  EXPECT_EQ(error.rfind("Invalid parameter - -", 0), 0u) << error;
  EXPECT_NE(error.find(" - for a WaitSeconds statement"), std::string::npos) << error;
  EXPECT_NEAR(-leadingNumber(error.substr(20)), run.seconds() - 1, 0.001) << error;
  EXPECT_GE(run.seconds(), 6.0);
  EXPECT_LT(run.seconds(), 7.0);
  EXPECT_TRUE(run.writes("DIG1").empty());
  EXPECT_EQ(MaintainWaitError(-5.5), "Invalid parameter - -5.5 - for a WaitSeconds statement");
}

TEST(LoadMaintenance, BadSetupsAndFailedReadsEndTheRun) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"MT_MAINTAIN HOLD LOAD AT 50 USING VALVE", "Cannot parse MT_Maintain setup string"},
      {"MT_RAMP 0 TO 20 IN 2 AT LOAD USING VALVE", "Cannot parse Ramp setup string"},
      {"MT_RAMP 0 TO 20 OVER 40 IN 2 USING VALVE", "Cannot parse Ramp setup string"},
      {"MT_RAMP 0 TO 20 OVER 0.1 IN 2 AT LOAD USING VALVE",
       "Ramp Setup String - Time between steps must be >= 0.1"},
      {"MT_MAINTAIN HOLD NOPE AT 50 USING VALVE WITH RATE 5 GAIN 2",
       "Aborting MT_maintainLoad - Unable to read from channel: NOPE"},
      {"MT_RAMP 0 TO 20 OVER 40 IN 2 AT NOPE USING VALVE",
       "Aborting MT_maintainLoad - Unable to read from channel: NOPE"},
      {"MT_MAINTAIN HOLD QUIETLOAD AT 50 USING VALVE WITH RATE 5 GAIN 2",
       "Aborting MT_maintainLoad - Unable to read from channel: QUIETLOAD"},
  };
  std::string rig(kOutputRig);
  rig += "D 3 SILENT=1\n  30001 E=1 M=A N=QUIETLOAD\n";
  for (const auto& [line, text] : cases) {
    OutputRun run;
    EXPECT_EQ(run.run({line, "SEND DIG1, 1"}, rig), text) << line;
    EXPECT_TRUE(run.writes().empty()) << line;
  }
}

}  // namespace
}  // namespace tavrix
