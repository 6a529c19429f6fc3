#include "instrument/outputs/alarms.h"

#include <gtest/gtest.h>

#include <map>

#include "testing/output_test_rig.h"
#include "testing/stub_links.h"

namespace tavrix {
namespace {

// A link whose devices answer "ALA T" and "ALA N" from a script.
class AlarmScriptLink final : public StubLinkLibrary {
 public:
  std::map<int, std::pair<std::string, std::string>> answers;  // device -> (ALA T, ALA N)
  int failingDevice = -1;

  int32_t sendCommand(int16_t, int16_t device, std::string_view command, bool) override {
    if (device == failingDevice) return 5;
    const auto& a = answers[device];
    reply_ = BufferText(command) == "ALA T" ? a.first : a.second;
    return 0;
  }
  int32_t getReply(int16_t, int16_t, std::string& buffer, bool) override {
    WriteBuffer(buffer, reply_);
    return 0;
  }
  int32_t requestMonitorChannel(std::string_view, MonitorChannelRecord&) override { return 76; }

 private:
  std::string reply_;
};

struct ScriptedAlarms {
  VirtualClock clock{0};
  EventLoop events{clock};
  Trace trace{clock};
  AlarmScriptLink* script = nullptr;
  std::unique_ptr<Instrument> instrument;
  PathMap paths{"/data"};

  ScriptedAlarms() {
    auto link = std::make_unique<AlarmScriptLink>();
    script = link.get();
    instrument =
        std::make_unique<Instrument>(events, trace, InstrumentSettings{}, std::move(link), paths);
    EXPECT_TRUE(instrument->ensureOpen());
    // Devices 0 and 2 hold channels; device 1 is absent.
    instrument->channels().ReadSummary("  00001 E=1 N=A\r\n  20001 E=1 N=B\r\n");
  }
};

TEST(ActiveAlarms, EveryPresentDeviceAddsItsName) {
  ScriptedAlarms rig;
  rig.script->answers[0] = {"1", "HIGHTEMP"};
  rig.script->answers[1] = {"1", "ABSENT"};
  rig.script->answers[2] = {"0", "-"};
  // Device 2 has no active alarm and adds an empty name behind ", ".
  EXPECT_EQ(GetActiveAlarms(*rig.instrument), "HIGHTEMP, ");
  rig.script->answers[2] = {"2", "LOWPRESS, LEAK"};
  EXPECT_EQ(GetActiveAlarms(*rig.instrument), "HIGHTEMP, LOWPRESS, LEAK");
  // "-" counts as an empty name.
  rig.script->answers[2] = {"1", "-"};
  EXPECT_EQ(GetActiveAlarms(*rig.instrument), "HIGHTEMP, ");
  rig.script->answers[0] = {"0", ""};
  EXPECT_EQ(GetActiveAlarms(*rig.instrument), "");
  rig.script->answers[2] = {"1", "LOWPRESS"};
  EXPECT_EQ(GetActiveAlarms(*rig.instrument), "LOWPRESS");
  // A link failure ends the poll with an empty list.
  rig.script->answers[0] = {"1", "HIGHTEMP"};
  rig.script->failingDevice = 2;
  EXPECT_EQ(GetActiveAlarms(*rig.instrument), "");
}

TEST(ActiveAlarms, NamesMatchBySubstringCaseBlind) {
  EXPECT_TRUE(AlarmListContains("LOWPRESS, HIGHTEMP", "temp"));
  EXPECT_TRUE(AlarmListContains("LOWPRESS, HIGHTEMP", "Press"));
  EXPECT_FALSE(AlarmListContains("LOWPRESS, HIGHTEMP", "LEAK"));
  EXPECT_FALSE(AlarmListContains("", "TEMP"));
  // A match never spans two names.
  EXPECT_FALSE(AlarmListContains("LOWPRESS, HIGHTEMP", "S, H"));

  const std::vector<AlarmDefinition> definitions = {{"temp", "goto hot  "}, {"press", "GOTO LOW"}};
  // The first active name with a definition decides, then the first definition.
  EXPECT_EQ(MatchAlarmDefinitions("LOWPRESS, HIGHTEMP", definitions), "GOTO LOW");
  EXPECT_EQ(MatchAlarmDefinitions("HIGHTEMP, LOWPRESS", definitions), "GOTO HOT");
  EXPECT_EQ(MatchAlarmDefinitions("LEAK, ", definitions), std::nullopt);
  EXPECT_EQ(MatchAlarmDefinitions("", definitions), std::nullopt);
}

TEST(WaitAlarm, HoldsUntilTheAlarmThenUntilNoAlarm) {
  // TEMP follows HEAT with a 10 s lag and alarms above 50: after HEAT goes to
  // 100 it passes 50 at 6.93 s; the wait polls every 0.1 s.
  OutputRun run;
  EXPECT_EQ(run.run({"SEND HEAT, 100", "WAITALARM temp", "SEND OUT1, 1", "SEND HEAT, 0",
                     "SEND PRESS, 5", "WAITNOALARM", "SEND OUT2, 2"}),
            "");
  EXPECT_EQ(run.writes("OUT1"), Writes("OUT1", {{7.0, "1"}}));
  // TEMP falls back below 50 within the next poll.
  EXPECT_EQ(run.writes("OUT2"), Writes("OUT2", {{7.1, "2"}}));
}

TEST(WaitAlarm, EndsOnStopAndOnTheSequenceTimeOut) {
  {
    OutputRun run;
    Timer stop(run.events(), 3'000'000, [&] { run.seq().stop(); });
    stop.setEnabled(true);
    run.run({"WAITALARM LEAK", "SEND OUT1, 1"});
    EXPECT_TRUE(run.writes().empty());
    EXPECT_EQ(run.seq().endReason(), EndReason::kAbort);
    EXPECT_NEAR(run.seconds(), 3.0, 1e-9);
  }
  {
    // The time-out's action: the line after its label runs next, and the
    // time-out is spent, so the wait behind the label is not cut short.
    OutputRun run;
    EXPECT_EQ(run.run({"ONTIMEOUT 5, LATE", "WAITALARM LEAK", "SEND OUT1, 1", "STOP",
                       "LATE:", "SEND OUT2, 2", "WAITNOALARM", "SEND OUT1, 3"}),
              "");
    EXPECT_EQ(run.writes("OUT1"), Writes("OUT1", {{6.0, "3"}}));
    EXPECT_EQ(run.writes("OUT2"), Writes("OUT2", {{6.0, "2"}}));
  }
  {
    OutputRun run;
    EXPECT_EQ(run.run({"WAITALARM", "SEND OUT1, 1"}), "WaitAlarm - an alarm name is needed");
  }
  {
    // A device that takes the poll but never answers is asked again and
    // again: it never reads as "no alarm", so only Stop ends WAITNOALARM.
    std::string rig(kOutputRig);
    rig += "D 3 NOTREADY=30000\n  30001 E=1 M=A N=DEAD\n";
    OutputRun run;
    Timer stop(run.events(), 200 * kMicrosPerSecond, [&] { run.seq().stop(); });
    stop.setEnabled(true);
    EXPECT_EQ(run.run({"WAITNOALARM", "SEND OUT1, 1"}, rig), "");
    EXPECT_TRUE(run.writes("OUT1").empty());
    EXPECT_EQ(run.seq().endReason(), EndReason::kAbort);
    EXPECT_NEAR(run.seconds(), 200.0, 0.1);
  }
}

TEST(AlarmDefinitions, ActiveAlarmRunsItsCommandBetweenLines) {
  OutputRun run;
  EXPECT_EQ(run.run({"ALARMDEFINE leak, GOTO NOWHERE", "ALARMDEFINE hightemp, goto cool",
                     "ALARMDEFINE leak", "SEND HEAT, 100", "WAITSECONDS 20", "SEND OUT1, 1", "STOP",
                     "COOL:", "PAUSEALARM", "SEND HEAT, 0", "SEND OUT2, 2"}),
            "");
  // After the wait TEMP is in alarm: GOTO COOL runs instead of the next line.
  EXPECT_TRUE(run.writes("OUT1").empty());
  EXPECT_EQ(run.writes("OUT2"), Writes("OUT2", {{20, "2"}}));
  EXPECT_EQ(run.lineTimes("GOTO COOL"), std::vector<double>{20});
  EXPECT_EQ(run.op().alarmLabels, std::vector<std::string>{"hightemp"});
  EXPECT_EQ(run.op().alarmCommands, std::vector<std::string>{"goto cool"});
}

TEST(AlarmDefinitions, DefineReplaceRemoveAndPause) {
  OutputRun run;
  EXPECT_EQ(run.run({"ALARMDEFINE Temp, SEND OUT1, 5", "ALARMDEFINE PRESS, GOTO P",
                     "ALARMDEFINE temp, SEND OUT2, 7", "SEND HEAT, 100", "PAUSEALARM 10",
                     "WAITSECONDS 9", "SEND DIG1, 1", "WAITSECONDS 2", "SEND DIG1, 0"}),
            "");
  EXPECT_EQ(run.op().alarmLabels, (std::vector<std::string>{"Temp", "PRESS"}));
  EXPECT_EQ(run.op().alarmCommands, (std::vector<std::string>{"SEND OUT2, 7", "GOTO P"}));
  // Paused for 10 s: the alarm (from 6.93 s) acts only after the pause, once
  // before each following line.
  EXPECT_TRUE(run.writes("OUT1").empty());
  EXPECT_EQ(run.writes("OUT2"), Writes("OUT2", {{11, "7"}}));
  EXPECT_EQ(run.writes("DIG1"), Writes("DIG1", {{9, "1"}, {11, "0"}}));

  OutputRun cleared;
  EXPECT_EQ(cleared.run({"ALARMDEFINE A, GOTO X", "ALARMDEFINE B, GOTO Y", "ALARMDEFINE"}), "");
  EXPECT_TRUE(cleared.op().alarmLabels.empty());

  for (const char* bad : {"PAUSEALARM soon", "PAUSEALARM -5", "PAUSEALARM 0"}) {
    OutputRun run2;
    const std::string arg = std::string(bad).substr(11);
    EXPECT_EQ(run2.run({bad}), "Invalid parameter - " + arg + " - for a PauseAlarm statement");
  }
}

}  // namespace
}  // namespace tavrix
