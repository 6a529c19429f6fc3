#include "instrument/link/channels.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>

#include "common/civil_time.h"
#include "common/text_conventions.h"
#include "instrument/simrig/sim_link.h"
#include "testing/memory_file_system.h"
#include "testing/recording_link.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

// The rig files of the tests, held in memory.
MemoryFileSystem& Files() {
  static MemoryFileSystem files;
  return files;
}

std::string WriteFile(const std::string& name, std::string_view text) {
  const std::string path = "/data/" + name;
  Files().put(path, std::string(text));
  return path;
}

constexpr std::string_view kRig =
    "D 1 MONITORS=3\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10023 E=1 M=A N=TEMP1 U=degC V=2.5 O=0\n"
    "  10024 E=0 M=A N=SPARE\n"
    "  10030 E=1 M=A N=CALIBRATEDTEMP2 U=degC\n"
    "  10031 E=1 M=A N=SMC1\n"
    "D 3 SILENT=1\n"
    "  30001 E=1 N=QUIET\n";

struct ChannelsFixture : ::testing::Test {
  VirtualClock clock{*parseDateTime("2024-03-01 10:00:00")};
  EventLoop events{clock};
  SimLink sim{clock, "", Files()};
  RecordingLink recorder{sim};
  ImlLink link{recorder, events, nullptr};
  Channels channels{link};

  void SetUp() override {
    link.configure({.useReplyTimeout = true, .replyTimeoutSecs = 2});
    ASSERT_TRUE(link.OpenLink());
    ASSERT_TRUE(channels.LoadSetup(WriteFile("channels_rig.ims", kRig))) << link.lastErrorText();
    recorder.sent.clear();
  }
};

TEST(ChannelSummary, LinesBecomeChannelRecords) {
  VirtualClock clock{0};
  EventLoop events{clock};
  SimLink sim{clock, "", testFiles()};
  ImlLink link{sim, events, nullptr};
  Channels channels{link};
  channels.ReadSummary(
      "D 0\r\n"
      "  10023 E=1 M=A N=TEMP1 U=degC\r\n"
      "  10024 E=0 M=B\r\n"
      "F whatever\r\n"
      "  990001 E=1 N=ANAMEMUCHTOOLONGX\r\n");
  ASSERT_EQ(channels.records().size(), 3u);
  const ChannelRecord& temp = channels.records()[0];
  EXPECT_EQ(temp.device, 1);
  EXPECT_EQ(temp.channelNumber, 23);
  EXPECT_EQ(temp.name, "TEMP1");
  EXPECT_EQ(temp.units, "degC");
  EXPECT_EQ(temp.mode, 'A');
  EXPECT_TRUE(temp.enabled);
  EXPECT_EQ(channels.definitions()[0], "10023 E=1 M=A N=TEMP1 U=degC");
  // Without N= the hardware channel text is the name.
  EXPECT_EQ(channels.records()[1].name, "10024");
  EXPECT_FALSE(channels.records()[1].enabled);
  EXPECT_EQ(channels.records()[1].mode, 'B');
  // Six characters when position 8 is not a blank; names are cut to 13.
  EXPECT_EQ(channels.records()[2].device, 99);
  EXPECT_EQ(channels.records()[2].channelNumber, 1);
  EXPECT_EQ(channels.records()[2].name, "ANAMEMUCHTOOL");
  int16_t device = -1;
  EXPECT_FALSE(channels.FindChannel("ANAMEMUCHTOOLONGX", device));
  EXPECT_TRUE(channels.FindChannel("ANAMEMUCHTOOL", device));
  EXPECT_EQ(device, 99);
  EXPECT_TRUE(channels.devicePresent(1));
  EXPECT_TRUE(channels.devicePresent(99));
  EXPECT_FALSE(channels.devicePresent(0));
  EXPECT_EQ(channels.highestDevice(), 99);
  EXPECT_TRUE(channels.FindChannel("10024", device));
  EXPECT_FALSE(channels.FindEnabledChannel("10024", device));
  EXPECT_FALSE(channels.FindEnabledChannel("temp1", device));  // case as given
}

TEST_F(ChannelsFixture, ReadsAndWritesByName) {
  std::string value;
  ASSERT_TRUE(channels.ReadChannel("TEMP1", value));
  EXPECT_EQ(value, "2.5");
  EXPECT_EQ(channels.lastReading(), "2.5");
  ASSERT_TRUE(channels.WriteChannel("HEATER", "55"));
  EXPECT_TRUE(channels.ReadChannel("HEATER", value));
  EXPECT_EQ(value, "55");
  EXPECT_EQ(recorder.sent, (std::vector<std::string>{"1: REA TEMP1", "1: WRI HEATER 55", "1: REP",
                                                     "1: REA HEATER"}));

  // Unknown and disabled channels: nothing is sent.
  recorder.sent.clear();
  for (const char* name : {"NOSUCH", "SPARE"}) {
    EXPECT_FALSE(channels.ReadChannel(name, value));
    EXPECT_EQ(link.lastErrorNumber(), 1500);
    EXPECT_EQ(link.lastErrorText(), std::string("Channel name - ") + name +
                                        " - does not exist, or is not enabled in the hardware");
    EXPECT_FALSE(channels.WriteChannel(name, "1"));
    EXPECT_EQ(link.lastErrorNumber(), 1500);
  }
  EXPECT_TRUE(recorder.sent.empty());
  // A disabled channel may still be defined.
  EXPECT_TRUE(channels.DefineChannel("SPARE", "E=1"));
  EXPECT_FALSE(channels.DefineChannel("NOSUCH", "E=1"));

  // The device's error report decides a define.
  EXPECT_FALSE(channels.DefineChannel("HEATER", "Q=7"));
  EXPECT_EQ(link.lastErrorNumber(), 13);
  EXPECT_EQ(link.lastErrorText(), "IML error - 13 bad setting");
  EXPECT_TRUE(channels.EscapeChannel("HEATER", "RESET"));

  // A device that never takes a command cannot be talked to.
  EXPECT_FALSE(channels.ReadChannel("QUIET", value));
  EXPECT_EQ(link.lastErrorText(), "IMLsend error, ret = 17");
  EXPECT_FALSE(channels.WriteChannel("QUIET", "1"));
  EXPECT_EQ(link.lastErrorText(), "IML error - unable to talk to device: 3");

  // With no hardware every name reads "0"; no setup is loaded, so a write
  // finds no channel and nothing is sent.
  link.configure({.noHardware = true, .useReplyTimeout = true, .replyTimeoutSecs = 2});
  EXPECT_TRUE(channels.ReadChannel("NOSUCH", value));
  EXPECT_EQ(value, "0");
  Channels bare(link);
  EXPECT_TRUE(bare.LoadSetup("rig.ims"));
  recorder.sent.clear();
  EXPECT_TRUE(bare.ReadChannel("HEATER", value));
  EXPECT_EQ(value, "0");
  EXPECT_FALSE(bare.WriteChannel("HEATER", "1"));
  EXPECT_EQ(link.lastErrorText(),
            "Channel name - HEATER - does not exist, or is not enabled in the hardware");
  EXPECT_TRUE(recorder.sent.empty());
}

// A reference keeps a lookup from one read or write to the next, and looks
// again whenever the channel table changed: it always finds what a lookup of
// the name would find.
TEST_F(ChannelsFixture, AReferenceFollowsEveryChangeOfTheChannelTable) {
  ChannelRef heater;
  ChannelRef monitor;
  std::string value;
  EXPECT_TRUE(channels.WriteChannel("HEATER", "5", &heater));
  EXPECT_TRUE(channels.ReadChannel("HEATER", value, &heater));
  EXPECT_EQ(value, "5");
  EXPECT_FALSE(channels.ReadChannel("MON1", value, &monitor));  // not yet

  // A new table holds it; one without it: gone again.
  channels.ReadSummary("  10001 E=1 M=A N=HEATER\r\n  10002 E=1 M=A N=MON1\r\n");
  recorder.sent.clear();
  channels.ReadChannel("MON1", value, &monitor);
  ASSERT_FALSE(recorder.sent.empty());
  EXPECT_EQ(recorder.sent.front(), "1: REA MON1");
  EXPECT_TRUE(channels.WriteChannel("HEATER", "6", &heater));
  channels.ReadSummary("  10001 E=1 M=A N=HEATER\r\n");
  recorder.sent.clear();
  EXPECT_FALSE(channels.ReadChannel("MON1", value, &monitor));
  EXPECT_TRUE(recorder.sent.empty());

  // A new table puts HEATER on device 3 and disables it on device 1.
  channels.ReadSummary("  10001 E=0 M=A N=OLDHEATER\r\n  30001 E=1 M=A N=HEATER\r\n");
  recorder.sent.clear();
  EXPECT_FALSE(channels.WriteChannel("HEATER", "7", &heater));  // device 3 takes nothing
  ASSERT_FALSE(recorder.sent.empty());
  EXPECT_EQ(recorder.sent.front(), "3: WRI HEATER 7");

  // A reference filled by another table is not taken for this one's.
  Channels other(link);
  other.ReadSummary("  10001 E=1 M=A N=HEATER\r\n");
  recorder.sent.clear();
  EXPECT_TRUE(other.WriteChannel("HEATER", "8", &heater));
  EXPECT_EQ(recorder.sent.front(), "1: WRI HEATER 8");
  recorder.sent.clear();
  EXPECT_FALSE(channels.WriteChannel("HEATER", "9", &heater));
  EXPECT_EQ(recorder.sent.front(), "3: WRI HEATER 9");
}

TEST_F(ChannelsFixture, RezeroMakesTheChannelReadZero) {
  ASSERT_TRUE(channels.DefineChannel("TEMP1", "O=1"));
  recorder.sent.clear();
  // Reads 3.5 with the offset 1: the new offset is 1 - 3.5.
  ASSERT_TRUE(channels.RezeroChannel("TEMP1"));
  EXPECT_EQ(recorder.sent, (std::vector<std::string>{"1: REA TEMP1", "1: SHO TEMP1",
                                                     "1: DEF TEMP1 O=-2.5", "1: REP"}));
  std::string value;
  ASSERT_TRUE(channels.ReadChannel("TEMP1", value));
  EXPECT_EQ(value, "0");
  EXPECT_FALSE(channels.RezeroChannel("SPARE"));
  EXPECT_EQ(link.lastErrorNumber(), 1500);
}

TEST_F(ChannelsFixture, MonitorChannelsAreCreatedAndCleared) {
  ASSERT_TRUE(channels.CreateMonitorChannel("1", "MON1", "FOLLOW=TEMP1"));
  EXPECT_EQ(recorder.sent,
            (std::vector<std::string>{"1: DEF 19000 E=0 ", "1: DEF 19000 M=Z",
                                      "1: DEF 19000 FOLLOW=TEMP1", "1: DEF 19000 N=MON1"}));
  ASSERT_TRUE(channels.CreateMonitorChannel("1", "MON2", ""));
  ASSERT_TRUE(channels.CreateMonitorChannel("1.2", "MON3", ""));
  const size_t count = channels.records().size();
  EXPECT_EQ(channels.records()[count - 3].channelNumber, 9000);
  EXPECT_EQ(channels.records()[count - 1].name, "MON3");
  EXPECT_EQ(channels.records()[count - 1].device, 1);

  // The device has run out: the table is left as it was.
  EXPECT_FALSE(channels.CreateMonitorChannel("1", "MON4", ""));
  EXPECT_EQ(link.lastErrorNumber(), 1505);
  EXPECT_EQ(link.lastErrorText(), "Cannot create monitor channel - MON4");
  EXPECT_EQ(channels.records().size(), count);
  recorder.monitorResult = 999;
  EXPECT_FALSE(channels.CreateMonitorChannel("1", "MON4", ""));
  EXPECT_EQ(link.lastErrorText(), "Cannot create monitor channel - MON4");
  recorder.monitorResult = -1;

  // Clearing the first of three leaves the other two in order.
  ASSERT_TRUE(channels.ClearMonitorChannel("MON1"));
  ASSERT_EQ(channels.records().size(), count - 1);
  EXPECT_EQ(channels.records()[count - 3].name, "MON2");
  EXPECT_EQ(channels.records()[count - 2].name, "MON3");
  EXPECT_EQ(channels.definitions().size(), channels.records().size());
  // Only monitor channels can be cleared; unknown names are not sent.
  EXPECT_FALSE(channels.ClearMonitorChannel("HEATER"));
  EXPECT_EQ(link.lastErrorText(), "IML error - 14 not a monitor channel");
  EXPECT_FALSE(channels.ClearMonitorChannel("MON1"));
  EXPECT_EQ(link.lastErrorNumber(), 1500);
}

TEST_F(ChannelsFixture, SetupFilesThatCannotBeLoaded) {
  EXPECT_FALSE(channels.LoadSetup(WriteFile("bad.ims", "  10001 E=1 N=A\nrubbish\n")));
  EXPECT_EQ(link.lastErrorNumber(), link_result::kSetupFileBadLine);
  EXPECT_EQ(link.lastErrorText().substr(0, 17), "IML error:  81 - ");
  EXPECT_NE(link.lastErrorText().find("bad.ims line 2: "), std::string::npos);
  EXPECT_FALSE(channels.LoadSetup("/nonexistent/x.ims"));
  EXPECT_EQ(link.lastErrorNumber(), link_result::kSetupFileUnreadable);
  // The table from the last good load stays.
  int16_t device = 0;
  EXPECT_TRUE(channels.FindChannel("HEATER", device));
}

TEST(SmcCommands, AreWrittenAsHexadecimalCharacterCodes) {
  std::string hex;
  EXPECT_TRUE(EncodeSmcCommand("P123", hex));
  EXPECT_EQ(hex, "503132330D");
  EXPECT_TRUE(EncodeSmcCommand("  p12  ", hex));
  EXPECT_EQ(hex, "5031320D");
  EXPECT_TRUE(EncodeSmcCommand("Q1234567890", hex));
  EXPECT_EQ(hex, "510D");
  EXPECT_TRUE(EncodeSmcCommand("X123456", hex));
  EXPECT_EQ(hex, "583132333435360D");
  EXPECT_FALSE(EncodeSmcCommand("X1234567", hex));
}

}  // namespace
}  // namespace tavrix

namespace tavrix {
namespace {

// The in-process rig answers reads and writes at once, without the texts in
// between; whatever it gives must be what the exchanges through the buffers
// give: the same numbers to the last bit, the same last reading, the same
// failures, and the rig left in the same state.
TEST(DirectExchanges, GiveWhatTheExchangesThroughTheBuffersGive) {
  constexpr std::string_view kMixed =
      "D 2 NOTREADY=2\n"
      "  10001 E=1 M=A N=NOISY V=12 JITTER=3\n"
      "  10002 E=1 M=A N=NEG V=-0.5 JITTER=0.25\n"
      "  10003 E=1 M=A N=SMALL V=0.000123456789\n"
      "  10004 E=1 M=A N=ZERO V=0\n"
      "  10005 E=1 M=A N=BIG V=123456789012\n"
      "  10006 E=1 M=A N=TINY V=0.00000123\n"
      "  10007 E=0 M=A N=OFF V=1\n"
      "  10008 E=1 M=A N=HUGE V=9999999999.6\n"
      "  20001 E=1 M=A N=SLOW V=4\n";
  const std::string file = WriteFile("direct_rig.ims", kMixed);
  VirtualClock clock{*parseDateTime("2024-03-01 10:00:00")};
  EventLoop events{clock};
  SimLink direct{clock, "", Files()};
  SimLink usual{clock, "", Files()};
  // A recording link passes on no direct exchanges: everything goes through
  // the buffers.
  RecordingLink recorder{usual};
  ImlLink directLink{direct, events, nullptr};
  ImlLink usualLink{recorder, events, nullptr};
  Channels a{directLink};
  Channels b{usualLink};
  ASSERT_TRUE(directLink.OpenLink() && usualLink.OpenLink());
  ASSERT_TRUE(a.LoadSetup(file) && b.LoadSetup(file));

  const std::vector<std::string> names = {"NOISY", "NEG", "SMALL", "ZERO",    "BIG",
                                          "TINY",  "OFF", "HUGE",  "MISSING", "SLOW"};
  std::vector<ChannelRef> refs(names.size());
  auto same = [](double x, double y) { return std::memcmp(&x, &y, sizeof x) == 0; };
  int atOnce = 0;
  for (int step = 0; step < 300; ++step) {
    clock.advanceBy(37'000);
    for (size_t i = 0; i < names.size(); ++i) {
      ChannelReading reading;
      std::string text;
      const bool readA = a.ReadChannel(names[i], reading, &refs[i]);
      const bool readB = b.ReadChannel(names[i], text);
      ASSERT_EQ(readA, readB) << names[i];
      if (!readA) {
        EXPECT_EQ(directLink.lastErrorText(), usualLink.lastErrorText());
        continue;
      }
      atOnce += reading.isNumber ? 1 : 0;
      EXPECT_TRUE(same(reading.value(), leadingNumber(text)))
          << names[i] << ": " << reading.value() << " for " << text;
      EXPECT_EQ(a.lastReading(), text) << names[i];
    }
  }
  // NOISY, NEG, SMALL and ZERO at once; BIG, TINY and HUGE write an exponent
  // and SLOW's device is not ready at once: those went the usual way.
  EXPECT_EQ(atOnce, 4 * 300);

  for (const std::string value : {"12.5", " 7 ", "1e3", "abc", "-0", "", "&H10", "3.1 4"}) {
    for (const std::string name : {"NOISY", "OFF", "SLOW", "MISSING"}) {
      const bool wroteA = a.WriteChannel(name, value);
      const bool wroteB = b.WriteChannel(name, value);
      ASSERT_EQ(wroteA, wroteB) << name << " " << value;
      if (!wroteA) {
        EXPECT_EQ(directLink.lastErrorText(), usualLink.lastErrorText());
      }
      const Micros now = clock.now();
      if (SimChannel* c = direct.model().find(name == "SLOW" ? 2 : 1, name)) {
        EXPECT_TRUE(same(c->value, usual.model().find(name == "SLOW" ? 2 : 1, name)->value));
      }
      for (int device : {1, 2}) {
        EXPECT_EQ(direct.model().execute(device, "REP", now),
                  usual.model().execute(device, "REP", now));
      }
      ASSERT_EQ(a.written().count(name), b.written().count(name));
      if (a.written().count(name) != 0) {
        EXPECT_EQ(a.written().at(name), b.written().at(name));
      }
    }
  }

  // Something waiting on the event loop runs before the read, as it does
  // in the usual exchange.
  bool ran = false;
  events.post([&] { ran = true; });
  ChannelReading reading;
  ASSERT_TRUE(a.ReadChannel("NOISY", reading, &refs[0]));
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace tavrix
