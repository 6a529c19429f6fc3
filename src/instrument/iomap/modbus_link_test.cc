// The map link to Modbus devices: an oven server of the tests on loopback,
// sequences run in virtual time over it.
#include <gtest/gtest.h>

#include <cmath>

#include "instrument/outputs/alarms.h"
#include "instrument/simdevices/modbus_oven_server.h"
#include "testing/map_run.h"

namespace tavrix {
namespace {

using testing::kMapStart;
using testing::MapRun;

ScratchFolder& Scratch() {
  static ScratchFolder folder;
  return folder;
}

std::string OvenMap(uint16_t port, std::string_view extra = {}, int timeoutMs = 1000) {
  return "[device.io1]\nmodbus = \"tcp://127.0.0.1:" + std::to_string(port) +
         "\"\ntimeout_ms = " + std::to_string(timeoutMs) +
         "\n"
         "[channel.OVEN]\ndevice = \"io1\"\ninput_register = 3\ntype = \"int16\"\n"
         "scale = 0.1\nunits = \"degC\"\nhigh = 50\ntag = \"OVENHOT\"\n"
         "[channel.HEATER]\ndevice = \"io1\"\nholding_register = 10\ntype = \"float32\"\n"
         "word_order = \"little\"\nmin = 0\nmax = 100\nunits = \"%\"\n"
         "[channel.FAN]\ndevice = \"io1\"\ncoil = 0\n"
         "[channel.DOOR]\ndevice = \"io1\"\ndiscrete_input = 4\n"
         "[channel.CYCLES]\ndevice = \"io1\"\nholding_register = 20\ntype = \"int32\"\n" +
         std::string(extra);
}

struct Oven {
  explicit Oven(const Clock& clock) : server(clock) {
    std::string error;
    EXPECT_TRUE(server.start("127.0.0.1", 0, &error)) << error;
  }
  ModbusOvenServer server;
};

TEST(ModbusLink, AnOvenWarmsAndCoolsThroughTheMapOnTheRunsClock) {
  VirtualClock clock(kMapStart);
  Oven oven(clock);
  MapRun run(clock, Scratch(), OvenMap(oven.server.port()));
  // CHECK goes to its label when the condition does not hold.
  EXPECT_EQ(run.run({"SEND FAN, 1", "SEND CYCLES, -7", "CHECK DOOR > 0, WRONG", "SEND HEATER, 62.5",
                     "WAITALARM OVENHOT", "CHECK OVEN > 50, WRONG", "SEND HEATER, 0", "WAITNOALARM",
                     "CHECK OVEN < 50.1, WRONG", "STOP", "WRONG:", "SEND FAN, 0", "STOP"}),
            "");
  // 20 + 0.8 x 62.5 = 70 degC settled: 70 - 50 exp(-t / 30 s) passes 50
  // after 30 s x ln(50/20).
  const double warmed = static_cast<double>(clock.now() - kMapStart) / 1e6;
  // With the heater off it is under 50 again at once.
  EXPECT_GT(warmed, 30 * std::log(50.0 / 20.0) - 0.1);
  EXPECT_LT(warmed, 30 * std::log(50.0 / 20.0) + 1);
  EXPECT_EQ(oven.server.heater(), 0);
  EXPECT_TRUE(oven.server.fan());  // neither label was taken
  std::string cycles;
  ASSERT_TRUE(run.instrument().channels().ReadChannel("CYCLES", cycles));
  EXPECT_EQ(cycles, "-7");
  std::string door;
  oven.server.setDoorClosed(false);
  ASSERT_TRUE(run.instrument().channels().ReadChannel("DOOR", door));
  EXPECT_EQ(door, "0");
  // The alarm and its tag through the alarm commands' own reading.
  EXPECT_EQ(GetActiveAlarms(run.instrument()), "");
  // The channel table is the map's.
  const auto& records = run.instrument().channels().records();
  ASSERT_EQ(records.size(), 5u);
  EXPECT_EQ(records[0].name, "OVEN");
  EXPECT_EQ(records[0].units, "degC");
  EXPECT_EQ(records[2].mode, 'D');
  EXPECT_EQ(records[1].device, 1);
}

TEST(ModbusLink, BadWritesAreSequenceErrorsAndSendNothing) {
  VirtualClock clock(kMapStart);
  Oven oven(clock);
  MapRun run(
      clock, Scratch(),
      OvenMap(oven.server.port(), "[channel.BADREG]\ndevice = \"io1\"\nholding_register = 40\n"));
  const struct {
    std::string line;
    std::string error;
  } cases[] = {
      {"SEND HEATER, 150",
       "IML error - 21 HEATER: 150 is outside the map's range 0 to 100; nothing was written"},
      {"SEND HEATER, -0.5",
       "IML error - 21 HEATER: -0.5 is outside the map's range 0 to 100; nothing was written"},
      {"SEND HEATER, warm", "IML error - 22 HEATER: \"warm\" is not a number; nothing was written"},
      {"SEND OVEN, 20", "IML error - 20 OVEN is read-only; nothing was written"},
      {"SEND NOSUCH, 1",
       "Channel name - NOSUCH - does not exist, or is not enabled in the hardware"},
  };
  for (const auto& c : cases) {
    const int64_t writes = oven.server.writes();
    EXPECT_EQ(run.run({c.line}), c.error) << c.line;
    EXPECT_EQ(oven.server.writes(), writes) << c.line;
  }
  EXPECT_EQ(oven.server.heater(), 0);
  EXPECT_EQ(run.run({"SEND BADREG, 1"}),
            "IML error - 23 Modbus exception 2: illegal data address at register 40 of io1");
  // A read that the device refuses reads as its error, as a refused read of
  // the simulated rig does.
  std::string value;
  ASSERT_TRUE(run.instrument().channels().ReadChannel("BADREG", value));
  EXPECT_EQ(value, "ERR 23 Modbus exception 2: illegal data address at register 40 of io1");
}

TEST(ModbusLink, AResetConnectionGarbageAndASlowDeviceAreAskedAgain) {
  VirtualClock clock(kMapStart);
  Oven oven(clock);
  MapRun run(clock, Scratch(), OvenMap(oven.server.port(), {}, 300));
  Channels& channels = run.instrument().channels();
  ASSERT_TRUE(run.instrument().ensureOpen());
  std::string value;

  oven.server.resetNextRequest();
  EXPECT_TRUE(channels.WriteChannel("HEATER", "25")) << run.instrument().link().lastErrorText();
  EXPECT_EQ(oven.server.heater(), 25);

  oven.server.garbageNextReply();
  ASSERT_TRUE(channels.ReadChannel("OVEN", value));
  EXPECT_EQ(value, "20");

  // Slower than the link's wait for a reply, within the device's time-out.
  oven.server.setReplyDelayMs(150);
  EXPECT_TRUE(channels.WriteChannel("HEATER", "40"));
  ASSERT_TRUE(channels.ReadChannel("OVEN", value));
  EXPECT_EQ(value, "20");
  EXPECT_EQ(oven.server.heater(), 40);
  oven.server.setReplyDelayMs(0);

  // The device goes away and comes back on the same port.
  const uint16_t port = oven.server.port();
  oven.server.stop();
  ModbusOvenServer again(clock);
  std::string error;
  ASSERT_TRUE(again.start("127.0.0.1", port, &error)) << error;
  EXPECT_TRUE(channels.WriteChannel("HEATER", "12.5"));
  EXPECT_EQ(again.heater(), 12.5);
}

TEST(ModbusLink, ADeviceThatNeverAnswersNeverReadsAsNoAlarmAndStopEndsTheWait) {
  VirtualClock clock(kMapStart);
  Oven silent(clock);
  Oven other(clock);
  silent.server.setSilent(true);
  const std::string map =
      "[device.io1]\nmodbus = \"tcp://127.0.0.1:" + std::to_string(silent.server.port()) +
      "\"\ntimeout_ms = 100\n"
      "[device.io2]\nmodbus = \"tcp://127.0.0.1:" +
      std::to_string(other.server.port()) +
      "\"\n"
      "[channel.OVEN]\ndevice = \"io1\"\ninput_register = 3\nhigh = 50\n"
      "[channel.HEATER]\ndevice = \"io2\"\nholding_register = 10\ntype = \"float32\"\n"
      "word_order = \"little\"\n";
  MapRun run(clock, Scratch(), map, 5);
  // Opening reaches every device: the silent one answers nothing, so the
  // open waits for it in vain. It is made to answer for the open only.
  silent.server.setSilent(false);
  ASSERT_TRUE(run.instrument().ensureOpen()) << run.link().connectionProblem();
  silent.server.setSilent(true);
  EXPECT_EQ(run.run({"WAITNOALARM", "SEND HEATER, 99"}, run.stopAfter(3 * kMicrosPerSecond)), "");
  EXPECT_EQ(run.sequencer().endReason(), EndReason::kAbort);
  EXPECT_EQ(other.server.writes(), 0);
  EXPECT_GT(silent.server.requests(), 1);  // asked again
  EXPECT_NE(run.link().connectionProblem().find("io1 did not answer within 100 ms"),
            std::string::npos)
      << run.link().connectionProblem();

  // A write to it: the run stops at the Stop, nothing else happens.
  EXPECT_EQ(run.run({"SEND OVEN, 1"}, run.stopAfter(kMicrosPerSecond)),
            "IML error - 20 OVEN is read-only; nothing was written");
}

TEST(ModbusLink, ADeviceThatIsNotThereStopsTheOpenWithItsAddress) {
  VirtualClock clock(kMapStart);
  uint16_t port = 0;
  {
    Oven gone(clock);
    port = gone.server.port();
  }
  MapRun run(clock, Scratch(), OvenMap(port));
  EXPECT_FALSE(run.instrument().ensureOpen());
  EXPECT_EQ(run.link().connectionProblem(),
            "io1 (tcp://127.0.0.1:" + std::to_string(port) + "): connection refused");
}

}  // namespace
}  // namespace tavrix
