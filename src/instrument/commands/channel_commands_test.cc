#include "instrument/commands/channel_commands.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "instrument/simrig/sim_link.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/memory_file_system.h"
#include "testing/recording_link.h"
#include "testing/recording_operator.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

constexpr std::string_view kRig =
    "D 1 MONITORS=1\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10023 E=1 M=A N=TEMP1 U=degC V=20 FOLLOW=HEATER LAG=10\n"
    "  10024 E=1 M=A N=TEMP2 V=10\n"
    "  10030 E=1 M=A N=COUNTER\n"
    "  10031 E=1 M=A N=SMC1\n"
    "D 2 NOTREADY=1500\n"
    "  20001 E=1 N=SLOW V=3\n"
    "D 3 SILENT=1\n"
    "  30001 E=1 N=QUIET\n"
    "D 4 NOTREADY=3000\n"
    "  40001 E=1 N=STUCK V=4\n";

// A run engine on a virtual clock with the core and instrument commands over
// the simulated rig; every sequence loads the rig first.
class ChannelCommandsTest : public ::testing::Test {
 protected:
  ChannelCommandsTest()
      : clock_(kStart),
        events_(clock_),
        trace_(clock_),
        seq_(events_, op_, trace_, files_, paths_),
        sim_(clock_, "", files_),
        recorder_(new RecordingLink(sim_)) {
    RegisterSequencerCommands(seq_, {}, &loopCount_);
    InstrumentSettings settings;
    settings.replyTimeoutSecs = 5;
    settings.checkChannel = "TEMP2";
    instrument_ = std::make_unique<Instrument>(events_, trace_, settings,
                                               std::unique_ptr<LinkLibrary>(recorder_), paths_);
    RegisterInstrumentCommands(seq_, *instrument_);
    loopCount_.attach(instrument_.get());
    files_.put(rig_, std::string(kRig));
  }

  // Runs the lines after loading the rig; the last sequence error or "".
  std::string Run(const std::vector<std::string>& lines) {
    std::string text = "IMSFILESPEC " + rig_ + "\r\n";
    for (const auto& line : lines) text += line + "\r\n";
    files_.put(path_, text);
    std::string error;
    EXPECT_TRUE(seq_.prepareFile(path_, &error)) << error;
    recorder_->sent.clear();
    runStart_ = clock_.now();
    seq_.start();
    return seq_.lastSequenceError();
  }
  double Elapsed() const { return static_cast<double>(clock_.now() - runStart_) / 1e6; }
  std::string Read(const std::string& channel) {
    std::string value;
    EXPECT_TRUE(instrument_->channels().ReadChannel(channel, value)) << channel;
    return value;
  }

  VirtualClock clock_;
  EventLoop events_;
  RecordingOperator op_;
  Trace trace_;
  MemoryFileSystem files_;
  PathMap paths_{files_.dataRoot()};
  Sequencer seq_;
  SimLink sim_;
  RecordingLink* recorder_;  // owned by the instrument
  std::unique_ptr<Instrument> instrument_;
  std::string rig_ = "/data/rig.ims";
  std::string path_ = "/data/seq.wts";
  InstrumentLoopCountOutput loopCount_;
  Micros runStart_ = 0;
};

TEST_F(ChannelCommandsTest, WaitEndsWhenTheHeatedPlantGetsThere) {
  EXPECT_EQ(Run({"SEND HEATER, 100", "WAIT TEMP1 > 50", "SEND TEMP2, 1", "STOP"}), "");
  // 20 + 80 (1 - exp(-t/10)) passes 50 at t = 4.70 s; readings come every 100 ms.
  EXPECT_NEAR(Elapsed(), 4.8, 1e-6);
  EXPECT_NEAR(instrument_->lastWaitDuration(), 4.8, 1e-4);
  EXPECT_GT(leadingNumber(Read("TEMP1")), 50);
  EXPECT_EQ(Read("TEMP2"), "1");
  EXPECT_EQ(recorder_->sent[0], "1: WRI HEATER 100");
  EXPECT_EQ(recorder_->sent[1], "1: REP");
  EXPECT_EQ(recorder_->sent[2], "1: REA TEMP1");

  // Each operator; "=" is exact.
  EXPECT_EQ(Run({"SEND TEMP2, 7", "WAIT TEMP2 = 7", "WAIT TEMP2 < 8", "WAIT TEMP2 <> 6"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
  EXPECT_EQ(Run({"WAIT TEMP2>7"}), "Cannot parse Wait condition - TEMP2>7");
  EXPECT_EQ(Run({"WAIT TEMP2 >= 7"}), "Operator - >= - is not supported");
  // A read that fails ends the wait without a message.
  EXPECT_EQ(Run({"WAIT NOSUCH > 1", "SEND TEMP2, 9"}), "");
  EXPECT_EQ(Read("TEMP2"), "9");
}

TEST_F(ChannelCommandsTest, WaitGoesOnThroughErrReadingsAndEndsOnStopOrTimeout) {
  // The device disables TEMP2 behind the table's back: its readings are
  // "ERR ..." until a timer enables it again at 3 s.
  Timer fix(events_, 3 * kMicrosPerSecond,
            [&] { instrument_->channels().DefineChannel("TEMP2", "E=1 V=60"); });
  fix.setEnabled(true);
  EXPECT_EQ(Run({"IMLDEF TEMP2, E=0", "WAIT TEMP2 > 50"}), "");
  EXPECT_NEAR(Elapsed(), 3.0, 0.1001);
  fix.setEnabled(false);

  // Stop ends the wait at the next turn.
  Timer stop(events_, 90 * kMicrosPerSecond, [&] { seq_.stop(); });
  stop.setEnabled(true);
  EXPECT_EQ(Run({"WAIT TEMP2 > 1000", "SEND TEMP2, 1"}), "");
  EXPECT_NEAR(Elapsed(), 90.0, 0.1001);
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  stop.setEnabled(false);

  // An expired timeout searches the stored label.
  EXPECT_EQ(Run({"ONTIMEOUT 10, LATE", "WAIT TEMP2 > 1000", "STOP", "LATE:", "SEND TEMP2, 2"}), "");
  EXPECT_EQ(Read("TEMP2"), "2");
  EXPECT_NEAR(Elapsed(), 11.0, 0.1001);
}

TEST_F(ChannelCommandsTest, ATimeoutThatFiredInsideAWaitIsSpentAndRunsItsDefine) {
  // A run that dispatches lines without end is stopped, so a fault shows as
  // a failure rather than a hang.
  int lines = 0;
  seq_.addBetweenLinesCheck([&](Sequencer& s) -> std::optional<std::string> {
    if (++lines > 1000) s.stop();
    return std::nullopt;
  });
  // The time-out fires inside the first WAIT; behind the label neither the
  // second WAIT nor the WAITSECONDS is cut short again.
  EXPECT_EQ(Run({"ONTIMEOUT 2, LATE", "WAIT TEMP2 > 5000", "NEVER", "LATE:", "WAIT TEMP2 = 10",
                 "WAITSECONDS 10", "SEND COUNTER, 5"}),
            "");
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);
  EXPECT_NEAR(Elapsed(), 13.0, 0.1001);
  EXPECT_EQ(Read("COUNTER"), "5");
  EXPECT_FALSE(seq_.flags().timeoutExpired);

  // A target that is a define runs the define, here inside the WAIT.
  lines = 0;
  EXPECT_EQ(Run({"EXECUTEDEFINE giveup, ABORTTEST The rig did not warm up", "ONTIMEOUT 3, GIVEUP",
                 "WAIT TEMP1 > 40", "SEND COUNTER, 9"}),
            "");
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  ASSERT_FALSE(op_.messages.empty());
  EXPECT_EQ(op_.messages.back(), "The rig did not warm up");
  EXPECT_NE(Read("COUNTER"), "9");
}

TEST_F(ChannelCommandsTest, CheckJumpsUnlessTheConditionHolds) {
  const std::vector<std::string> body = {"CHECK TEMP2 > 5, LOW", "SEND COUNTER, 1", "STOP",
                                         "LOW:", "SEND COUNTER, 2"};
  EXPECT_EQ(Run(body), "");
  EXPECT_EQ(Read("COUNTER"), "1");
  EXPECT_EQ(Run({"SEND TEMP2, 5", "CHECK TEMP2 > 5, LOW", "SEND COUNTER, 1", "STOP",
                 "LOW:", "SEND COUNTER, 2"}),
            "");
  EXPECT_EQ(Read("COUNTER"), "2");
  EXPECT_EQ(Run({"CHECK TEMP2 < 5, NOWHERE"}), "Label NOWHERE: does not exist");
  EXPECT_EQ(Run({"CHECK TEMP2>5, LOW"}), "Cannot parse Wait condition - TEMP2>5");
  EXPECT_EQ(Run({"CHECK TEMP2 <= 5, LOW"}), "Operator - <= - is not supported");
  // A failed read: no message, no jump.
  EXPECT_EQ(Run({"SEND COUNTER, 0", "CHECK NOSUCH = 0, LOW", "SEND COUNTER, 3", "STOP",
                 "LOW:", "SEND COUNTER, 4"}),
            "");
  EXPECT_EQ(Read("COUNTER"), "3");
}

TEST_F(ChannelCommandsTest, ChannelCommandsReachTheDevices) {
  seq_.setLoopCount(0);
  EXPECT_EQ(Run({"INCREMENTLOOPCOUNT", "INCREMENTLOOPCOUNT COUNTER", "IMLDEF TEMP2, O=1.5",
                 "IMLESC SMC1, RESET", "SENDSMC SMC1, P123", "SENDSMC SMC1, Q99",
                 "MONITOR 1, TMON, FOLLOW=TEMP2", "REZERO TEMP2", "KILLMONITOR TMON", "CHECKIMS"}),
            "");
  EXPECT_EQ(seq_.loopCount(), 2);
  EXPECT_EQ(recorder_->sent, (std::vector<std::string>{"1: WRI COUNTER 2",
                                                       "1: REP",
                                                       "1: DEF TEMP2 O=1.5",
                                                       "1: REP",
                                                       "1: ESC SMC1 RESET",
                                                       "1: REP",
                                                       "1: WRI SMC1 503132330D",
                                                       "1: REP",
                                                       "1: WRI SMC1 510D",
                                                       "1: REP",
                                                       "1: DEF 19000 E=0 ",
                                                       "1: DEF 19000 M=Z",
                                                       "1: DEF 19000 FOLLOW=TEMP2",
                                                       "1: DEF 19000 N=TMON",
                                                       "1: REA TEMP2",
                                                       "1: SHO TEMP2",
                                                       "1: DEF TEMP2 O=-10",
                                                       "1: REP",
                                                       "1: CLEAR TMON",
                                                       "1: REP",
                                                       "1: REA TEMP2"}));
  EXPECT_EQ(Read("TEMP2"), "0");

  EXPECT_EQ(Run({"SENDSMC SMC1, X1234567"}), "SMC command too long (>7 characters)");
  EXPECT_EQ(Run({"SENDSMC NOSUCH, Q"}), "Specified SMC channel name not found");
  EXPECT_EQ(Run({"MONITOR 1, M1", "MONITOR 1, M2"}), "Cannot create monitor channel - M2");
}

TEST_F(ChannelCommandsTest, FaultsBecomeSequenceErrorsOrEndTheWaitAsDocumented) {
  const std::string unknown =
      "Channel name - NOSUCH - does not exist, or is not enabled in the hardware";
  EXPECT_EQ(Run({"SEND NOSUCH, 1"}), unknown);
  EXPECT_EQ(Run({"REZERO NOSUCH"}), unknown);
  EXPECT_EQ(Run({"IMLDEF HEATER, Q=1"}), "IML error - 13 bad setting");
  EXPECT_EQ(Run({"KILLMONITOR HEATER"}), "IML error - 14 not a monitor channel");

  // A silent device takes no command: the write and then its REP are each
  // given up once more than the 5 s time-out has passed.
  EXPECT_EQ(Run({"SEND QUIET, 1"}), "IML error - unable to talk to device: 3");
  EXPECT_NEAR(Elapsed(), 12.0, 0.03);
  EXPECT_EQ(Run({"WAIT QUIET > 1", "SEND TEMP2, 5"}), "");
  EXPECT_EQ(Read("TEMP2"), "5");

  // 15 s not ready with a 5 s time-out, but fewer than 2000 polls: waited for.
  EXPECT_EQ(Run({"WAIT SLOW = 3"}), "");
  EXPECT_NEAR(Elapsed(), 15.0, 0.02);
  // Never ready within 2000 polls: the read fails and the wait ends quietly;
  // a write asks for its REP again and again until Stop ends the run.
  EXPECT_EQ(Run({"WAIT STUCK = 4", "SEND TEMP2, 6"}), "");
  EXPECT_EQ(Read("TEMP2"), "6");
  Timer stop(events_, 300 * kMicrosPerSecond, [&] { seq_.stop(); });
  stop.setEnabled(true);
  EXPECT_EQ(Run({"SEND STUCK, 1", "SEND TEMP2, 7"}), "");
  stop.setEnabled(false);
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  EXPECT_NEAR(Elapsed(), 300.0, 0.02);
  EXPECT_GT(std::count(recorder_->sent.begin(), recorder_->sent.end(), "4: REP"), 5);
  EXPECT_NE(Read("TEMP2"), "7");

  // An over-long value is cut with the command to 199 characters.
  const std::string value(250, '7');
  EXPECT_EQ(Run({"SEND TEMP2, " + value}), "");
  EXPECT_EQ(recorder_->sent[0], "1: " + ("WRI TEMP2 " + value).substr(0, 199));

  // A setup file with garbage names the line.
  const std::string bad = "/data/bad.ims";
  files_.put(bad, "  10001 E=1 N=A\n  10002 E=1 N=B TAU=3\n");
  const std::string error = Run({"IMSFILESPEC " + bad});
  EXPECT_EQ(error.substr(0, 17), "IML error:  81 - ");
  EXPECT_NE(error.find(bad + " line 2: unknown field \"TAU=\""), std::string::npos) << error;
}

TEST_F(ChannelCommandsTest, TheSetupFileMayBeChosenByTheOperator) {
  op_.files.push_back(rig_);
  op_.files.push_back(std::nullopt);
  files_.put(path_, "IMSFILESPEC\r\nIMSFILESPEC\r\nSEND TEMP2, 8\r\n");
  std::string error;
  ASSERT_TRUE(seq_.prepareFile(path_, &error));
  seq_.start();
  EXPECT_EQ(seq_.lastSequenceError(), "");
  EXPECT_EQ(Read("TEMP2"), "8");

  // Without hardware nothing is loaded or sent, and every channel reads "0".
  InstrumentSettings settings;
  settings.noHardware = true;
  Instrument none(events_, trace_, settings, std::make_unique<SimLink>(clock_, "", testFiles()),
                  paths_);
  std::string value;
  EXPECT_TRUE(none.selectSetupFile("/nonexistent.ims"));
  EXPECT_TRUE(none.channels().ReadChannel("ANY", value));
  EXPECT_EQ(value, "0");
}

}  // namespace
}  // namespace tavrix
