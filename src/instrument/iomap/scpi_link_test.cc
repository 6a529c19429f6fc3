// The map link to SCPI instruments: the power supply simulator of the
// tests on loopback, sequences run in virtual time over it.
#include <gtest/gtest.h>

#include "instrument/simdevices/scpi_instrument_server.h"
#include "testing/map_run.h"

namespace tavrix {
namespace {

using testing::kMapStart;
using testing::MapRun;

ScratchFolder& Scratch() {
  static ScratchFolder folder;
  return folder;
}

std::string PsuMap(uint16_t port, int timeoutMs = 1000) {
  return "[device.psu]\nscpi = \"tcp://127.0.0.1:" + std::to_string(port) +
         "\"\ntimeout_ms = " + std::to_string(timeoutMs) +
         "\n"
         "[channel.PSU_V]\ndevice = \"psu\"\nwrite = \"VOLT {value}\"\nread = \"MEAS:VOLT?\"\n"
         "units = \"V\"\nhigh = 24\ntag = \"OVERVOLT\"\n"
         "[channel.PSU_OUT]\ndevice = \"psu\"\nwrite = \"OUTP {value}\"\nread = \"OUTP?\"\n"
         "[channel.PSU_I]\ndevice = \"psu\"\nread = \"MEAS:CURR?\"\nunits = \"A\"\n"
         "[channel.PSU_LIM]\ndevice = \"psu\"\nwrite = \"CURR {value}\"\nmax = 3\n";
}

struct Psu {
  Psu() {
    std::string error;
    EXPECT_TRUE(server.start("127.0.0.1", 0, &error)) << error;
  }
  ScpiInstrumentServer server;
};

TEST(ScpiLink, APowerSupplyIsSetAndMeasuredAndSaysWhatItIs) {
  VirtualClock clock(kMapStart);
  Psu psu;
  MapRun run(clock, Scratch(), PsuMap(psu.server.port()));
  EXPECT_EQ(run.run({"SEND PSU_V, 12.5", "SEND PSU_OUT, 1", "CHECK PSU_V > 12.4, WRONG",
                     "CHECK PSU_I > 0.99, WRONG", "SEND PSU_V, 30", "WAITALARM OVERVOLT",
                     "SEND PSU_V, 5", "WAITNOALARM", "STOP", "WRONG:", "SEND PSU_OUT, 0", "STOP"}),
            "");
  EXPECT_EQ(psu.server.voltage(), 5);
  EXPECT_TRUE(psu.server.outputOn());
  std::string current;
  ASSERT_TRUE(run.instrument().channels().ReadChannel("PSU_I", current));
  EXPECT_EQ(current, "0.5");
  // What the instrument said at open is in the trace.
  EXPECT_NE(
      run.trace().find(R"("ev":"device","name":"psu","dev":1,"address":"tcp://127.0.0.1:)" +
                       std::to_string(psu.server.port()) + R"(","idn":"TAVRIX,SIM-PSU,0,1.0")"),
      std::string::npos)
      << run.trace();
}

TEST(ScpiLink, AnErrorInTheInstrumentsQueueFailsTheWriteWithTheDevicesText) {
  VirtualClock clock(kMapStart);
  Psu psu;
  MapRun run(clock, Scratch(), PsuMap(psu.server.port()));
  EXPECT_EQ(run.run({"SEND PSU_V, 31"}),
            "IML error - 23 psu refused \"VOLT 31\": -222,\"Data out of range\"");
  // An error of the instrument's own, queued before the write, fails it;
  // the queue is emptied, so the next write goes through.
  psu.server.queueError("-310,\"System error\"");
  psu.server.queueError("-350,\"Queue overflow\"");
  EXPECT_EQ(run.run({"SEND PSU_V, 3"}),
            "IML error - 23 psu refused \"VOLT 3\": -310,\"System error\"");
  EXPECT_EQ(run.run({"SEND PSU_V, 4"}), "");
  EXPECT_EQ(psu.server.voltage(), 4);
  // The map's own limit: nothing reaches the instrument.
  const int64_t commands = psu.server.commands();
  EXPECT_EQ(run.run({"SEND PSU_LIM, 3.5"}),
            "IML error - 21 PSU_LIM: 3.5 is outside the map's range -inf to 3; nothing was "
            "written");
  EXPECT_EQ(run.run({"SEND PSU_I, 1"}), "IML error - 20 PSU_I is read-only; nothing was written");
  EXPECT_EQ(psu.server.commands(), commands);
}

TEST(ScpiLink, GarbageAResetAndASlowInstrumentAreAskedAgain) {
  VirtualClock clock(kMapStart);
  Psu psu;
  MapRun run(clock, Scratch(), PsuMap(psu.server.port(), 400), 5);
  Channels& channels = run.instrument().channels();
  ASSERT_TRUE(run.instrument().ensureOpen());
  ASSERT_TRUE(channels.WriteChannel("PSU_OUT", "1"));
  ASSERT_TRUE(channels.WriteChannel("PSU_V", "7"));
  std::string value;

  psu.server.garbageNextReply();
  ASSERT_TRUE(channels.ReadChannel("PSU_V", value));
  EXPECT_EQ(value, "7");

  psu.server.resetNextQuery();
  ASSERT_TRUE(channels.ReadChannel("PSU_V", value));
  EXPECT_EQ(value, "7");

  // The error queue's answer garbled: the write is confirmed again.
  psu.server.garbageNextReply();
  EXPECT_TRUE(channels.WriteChannel("PSU_V", "8")) << run.instrument().link().lastErrorText();
  EXPECT_EQ(psu.server.voltage(), 8);

  psu.server.setReplyDelayMs(150);
  ASSERT_TRUE(channels.ReadChannel("PSU_V", value));
  EXPECT_EQ(value, "8");
  psu.server.setReplyDelayMs(0);

  // Silent: the run waits, asks again, and Stop ends it.
  psu.server.setSilent(true);
  EXPECT_EQ(run.run({"WAITNOALARM", "SEND PSU_V, 2"}, run.stopAfter(kMicrosPerSecond)), "");
  EXPECT_EQ(run.sequencer().endReason(), EndReason::kAbort);
  psu.server.setSilent(false);
  EXPECT_EQ(psu.server.voltage(), 8);
}

}  // namespace
}  // namespace tavrix
