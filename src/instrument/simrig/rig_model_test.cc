#include "instrument/simrig/rig_model.h"

#include <gtest/gtest.h>

#include <cmath>

#include "common/civil_time.h"
#include "common/text_conventions.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

constexpr std::string_view kRig =
    "; a heater and the temperature it drives\r\n"
    "D 1 MONITORS=2\r\n"
    "  10001 E=1 M=A N=HEATER U=% V=0\r\n"
    "  10023 E=1 M=A N=TEMP1 U=degC V=20 FOLLOW=HEATER LAG=10 K=1 HIGH=80 TAG=HIGHTEMP\r\n"
    "  10024 E=0 M=A N=SPARE\r\n"
    "  10025 E=1 M=A N=PRESS O=1 V=2.5 JITTER=0.5\r\n"
    "D 2 NOTREADY=3 LATENCY=50\r\n"
    "  20001 E=1 M=A N=FLOW V=7 LOW=5\r\n"
    "  990001 E=1 N=FAR\r\n";

RigModel LoadedModel() {
  RigSetup setup;
  std::string error;
  EXPECT_TRUE(ParseRigSetup(kRig, "rig.ims", setup, &error)) << error;
  RigModel model;
  model.load(std::move(setup));
  return model;
}

TEST(RigSetupFile, ChannelAndDeviceLinesAndTheSummary) {
  RigSetup setup;
  std::string error;
  ASSERT_TRUE(ParseRigSetup(kRig, "c:\\corvane\\setups\\rig.ims", setup, &error)) << error;
  EXPECT_EQ(setup.name, "rig");
  ASSERT_EQ(setup.channels.size(), 6u);
  const SimChannel& temp = setup.channels[1];
  EXPECT_EQ(temp.device, 1);
  EXPECT_EQ(temp.number, 23);
  EXPECT_EQ(temp.hardwareText, "10023");
  EXPECT_EQ(temp.name, "TEMP1");
  EXPECT_EQ(temp.units, "degC");
  EXPECT_EQ(temp.follow, "HEATER");
  EXPECT_EQ(temp.lag, 10);
  EXPECT_EQ(temp.high, 80);
  EXPECT_EQ(temp.tag, "HIGHTEMP");
  EXPECT_EQ(setup.channels[5].device, 99);
  EXPECT_EQ(setup.channels[5].number, 1);
  EXPECT_TRUE(setup.devices[1].present);
  EXPECT_EQ(setup.devices[1].monitors, 2);
  EXPECT_EQ(setup.devices[2].notReadyPolls, 3);
  EXPECT_EQ(setup.devices[2].latencyMs, 50);
  EXPECT_TRUE(setup.devices[99].present);
  EXPECT_FALSE(setup.devices[3].present);
  // The summary keeps the channel and device lines, not the comments.
  EXPECT_EQ(setup.summary.substr(0, 16), "D 1 MONITORS=2\r\n");
  EXPECT_EQ(setup.summary.find(';'), std::string::npos);
}

TEST(RigSetupFile, GarbageLinesAreNamedWithTheirNumber) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"  10001 E=1\nhello world\n", "rig.ims line 2: a channel line starts with two characters"},
      {"  10001 E=1 TAU=3\n", "rig.ims line 1: unknown field \"TAU=\""},
      {"  10001 E=1 LAG=fast\n", "rig.ims line 1: the value of LAG= is not a number"},
      {"  10001 E=1 junk\n", "rig.ims line 1: \"junk\" is not a KEY=VALUE field"},
      {"\n\nD 100\n", "rig.ims line 3: a device line needs a device number 0-99"},
      {"D 1 SLOW=1\n", "rig.ims line 1: unknown device field \"SLOW=\""},
      {"  1x001 E=1\n", "rig.ims line 1: a channel line starts"},
      {"  10001\n", "rig.ims line 1: not a channel line"},
      {"  10001 N=A\n  10001 N=B\n", "rig.ims line 2: channel 10001 is defined twice"},
      {"  10001 N=A FOLLOW=NONE\n", "rig.ims: channel 10001 follows \"NONE\""},
  };
  for (const auto& [text, message] : cases) {
    RigSetup setup;
    std::string error;
    EXPECT_FALSE(ParseRigSetup(text, "rig.ims", setup, &error)) << text;
    EXPECT_EQ(error.substr(0, message.size()), message) << text;
  }
  std::string error;
  RigSetup setup;
  EXPECT_FALSE(LoadRigSetupFile(testFiles(), "/nonexistent/rig.ims", setup, &error));
  EXPECT_EQ(error, "cannot read the setup file /nonexistent/rig.ims: No such file or directory");
}

TEST(RigModel, DevicesAnswerCommandsAndReportErrors) {
  RigModel model = LoadedModel();
  const Micros t = 1'000'000;
  EXPECT_EQ(model.execute(1, "REA HEATER", t), "0");
  EXPECT_EQ(model.execute(1, "WRI HEATER 42.5", t), "0");
  EXPECT_EQ(model.execute(1, "REP", t), "0");
  EXPECT_EQ(model.execute(1, "REA HEATER", t), "42.5");
  EXPECT_EQ(model.execute(1, "REA 10001", t), "42.5");  // by hardware channel text
  // A reading is the raw value plus the offset.
  EXPECT_EQ(model.execute(1, "SHO PRESS", t), "E=1 M=A N=PRESS O=1");
  EXPECT_EQ(model.execute(1, "DEF PRESS O=-1.5 JITTER=0", t), "0");
  EXPECT_EQ(model.execute(1, "REA PRESS", t), "1");
  EXPECT_EQ(model.execute(1, "SHO PRESS", t), "E=1 M=A N=PRESS O=-1.5");
  EXPECT_EQ(model.execute(1, "SHO TEMP1", t), "E=1 M=A N=TEMP1 U=degC O=0");

  // Bad commands leave an error report until the next good command.
  EXPECT_EQ(model.execute(1, "WRI NOSUCH 1", t), "ERR 12 bad channel");
  EXPECT_EQ(model.execute(1, "REP", t), "12 bad channel");
  EXPECT_EQ(model.execute(1, "REP", t), "12 bad channel");
  EXPECT_EQ(model.execute(1, "REA FLOW", t), "ERR 12 bad channel");  // FLOW is on device 2
  EXPECT_EQ(model.execute(1, "FOO HEATER", t), "ERR 11 bad command");
  EXPECT_EQ(model.execute(1, "DEF HEATER Q=1", t), "ERR 13 bad setting");
  EXPECT_EQ(model.execute(1, "REA SPARE", t), "ERR 15 channel disabled");
  EXPECT_EQ(model.execute(1, "CLEAR HEATER", t), "ERR 14 not a monitor channel");
  EXPECT_EQ(model.execute(1, "ESC HEATER RESET", t), "0");
  EXPECT_EQ(model.execute(1, "REP", t), "0");

  // Alarms from the limits, named by TAG= or the channel name.
  EXPECT_EQ(model.execute(1, "ALA T", t), "0");
  EXPECT_EQ(model.execute(1, "ALA N", t), "-");
  EXPECT_EQ(model.execute(1, "DEF TEMP1 FOLLOW= V=85", t), "0");
  EXPECT_EQ(model.execute(1, "ALA T", t), "1");
  EXPECT_EQ(model.execute(1, "ALA N", t), "HIGHTEMP");
  EXPECT_EQ(model.execute(2, "WRI FLOW 4", t), "0");
  EXPECT_EQ(model.execute(2, "ALA N", t), "FLOW");
}

TEST(RigModel, ATemperatureFollowsItsHeaterWithAFirstOrderLag) {
  RigModel model = LoadedModel();
  const Micros t0 = 1'000'000'000;
  model.execute(1, "WRI HEATER 100", t0);
  // After one time constant the step response is 63 % of the way.
  const double at10 = leadingNumber(model.execute(1, "REA TEMP1", t0 + 10 * kMicrosPerSecond));
  EXPECT_NEAR(at10, 20 + 80 * (1 - std::exp(-1.0)), 1e-6);
  const double at60 = leadingNumber(model.execute(1, "REA TEMP1", t0 + 60 * kMicrosPerSecond));
  EXPECT_NEAR(at60, 20 + 80 * (1 - std::exp(-6.0)), 1e-6);
  // A later heater setting takes over from where the temperature stands.
  model.execute(1, "WRI HEATER 0", t0 + 60 * kMicrosPerSecond);
  const double cooled = leadingNumber(model.execute(1, "REA TEMP1", t0 + 70 * kMicrosPerSecond));
  EXPECT_NEAR(cooled, at60 * std::exp(-1.0), 1e-6);

  // BIAS= shifts the followed value.
  EXPECT_EQ(model.execute(1, "DEF TEMP1 LAG=0 K=0.5 BIAS=20", t0), "0");
  EXPECT_EQ(model.execute(1, "REA TEMP1", t0 + 70 * kMicrosPerSecond), "20");
  EXPECT_EQ(model.execute(1, "WRI HEATER 10", t0 + 70 * kMicrosPerSecond), "0");
  EXPECT_EQ(model.execute(1, "REA TEMP1", t0 + 70 * kMicrosPerSecond), "25");

  // Jitter is deterministic, bounded, and changes with time.
  RigModel again = LoadedModel();
  double low = 1e9, high = -1e9;
  for (int i = 0; i < 200; ++i) {
    const Micros t = t0 + i * 100'000;
    const double a = leadingNumber(model.execute(1, "REA PRESS", t));
    EXPECT_EQ(a, leadingNumber(again.execute(1, "REA PRESS", t)));
    low = std::min(low, a);
    high = std::max(high, a);
  }
  EXPECT_GE(low, 3.0);
  EXPECT_LE(high, 4.0);
  EXPECT_GT(high - low, 0.5);
}

TEST(RigModel, SlowSilentDevicesAndMonitorChannels) {
  RigModel model = LoadedModel();
  std::string reply;
  const Micros t = 5'000'000;
  // Device 2: not ready for three polls and until 50 ms after the command.
  ASSERT_EQ(model.send(2, "REA FLOW", t), 0);
  EXPECT_FALSE(model.replyReadyNow(2, t));
  EXPECT_EQ(model.reply(2, t, reply), 17);
  EXPECT_EQ(model.reply(2, t, reply), 17);
  EXPECT_EQ(model.reply(2, t, reply), 17);
  EXPECT_EQ(model.reply(2, t + 49'999, reply), 17);
  EXPECT_EQ(model.reply(2, t + 50'000, reply), 0);
  EXPECT_EQ(reply, "7");
  EXPECT_EQ(model.reply(2, t, reply), kRigNothingToFetch);
  EXPECT_EQ(model.send(100, "REP", t), link_result::kBadDevice);

  RigSetup setup;
  std::string error;
  ASSERT_TRUE(ParseRigSetup("D 4 SILENT=1\n  40001 N=X\n", "quiet.ims", setup, &error));
  RigModel quiet;
  quiet.load(std::move(setup));
  EXPECT_EQ(quiet.send(4, "REA X", t), 17);

  // Device 1 has two monitor channels, then no more.
  int16_t number = 0;
  EXPECT_EQ(model.requestMonitor("OTHER", 1, number), link_result::kSetupNotLoaded);
  ASSERT_EQ(model.requestMonitor("rig", 1, number), 0);
  EXPECT_EQ(number, 9000);
  EXPECT_EQ(model.execute(1, "DEF 19000 FOLLOW=TEMP1 N=TMON E=1", t), "0");
  EXPECT_EQ(model.execute(1, "REA TMON", t), "20");
  ASSERT_EQ(model.requestMonitor("rig", 1, number), 0);
  EXPECT_EQ(number, 9001);
  EXPECT_EQ(model.requestMonitor("rig", 1, number), link_result::kNoMonitorChannels);
  EXPECT_EQ(model.requestMonitor("rig", 3, number), link_result::kNoMonitorChannels);
  EXPECT_EQ(model.execute(1, "CLEAR TMON", t), "0");
  ASSERT_EQ(model.requestMonitor("rig", 1, number), 0);
  EXPECT_EQ(number, 9000);
}

}  // namespace
}  // namespace tavrix
