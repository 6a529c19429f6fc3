// The companion-program commands against the recording companion.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Call = RecordingCompanion::Call;

class CompanionCommandsTest : public CommandTest {};

TEST_F(CompanionCommandsTest, EffectsReachTheCompanionAsWritten) {
  EXPECT_EQ(Run({"LINKEXECUTE AB_Raw|System, Status, Stop", "LINKPOKE Excel|Sheet1, R1C1, 12, 5",
                 "SENDKEYS Logger - Run, %FS", "APPLOAD c:\\apps\\logger.exe, /min, fast",
                 "STARTSTREAMER c:\\data\\run1.dat", "ICONISE"}),
            "");
  EXPECT_EQ(
      companion_.calls(),
      (std::vector<Call>{{"execute", "AB_Raw|System", "Status", "Stop"},
                         {"poke", "Excel|Sheet1", "R1C1", "12, 5"},
                         {"keys", "Logger - Run", "", "%FS"},
                         {"start", "", "", "c:\\apps\\logger.exe /min, fast"},
                         {"execute", "Streamer|System", "Status", "COLLECT c:\\data\\run1.dat"},
                         {"execute", "Streamer|System", "Status", "START"}}));
  EXPECT_EQ(op_.minimised, 1);
}

TEST_F(CompanionCommandsTest, WhatCannotHappenIsReported) {
  companion_.refuse("execute", "AB_Raw|System", "no DDE server for AB_Raw|System");
  EXPECT_EQ(Run({"LINKEXECUTE AB_Raw|System, Status, Stop", "ICONISE"}),
            "LinkExecute - no DDE server for AB_Raw|System");
  EXPECT_EQ(op_.minimised, 0);
  companion_.refuse("keys", "", "no window of that title");
  EXPECT_EQ(Run({"SENDKEYS Logger, ~"}), "SendKeys - no window of that title");
  companion_.refuse("start", "", "not found");
  EXPECT_EQ(Run({"APPLOAD x.exe"}), "AppLoad - cannot start x.exe: not found");
  EXPECT_EQ(Run({"LINKPOKE , R1C1, 5"}), "LinkPoke - no DDE topic given");
  EXPECT_EQ(Run({"LINKEXECUTE AB_Raw|System, Status"}), "LinkExecute - no command given");
  EXPECT_EQ(Run({"SENDKEYS Logger"}), "SendKeys - no keys given");
  EXPECT_EQ(Run({"STARTSTREAMER"}), "StartStreamer - no data file given");
  // Nobody answers the streamer's status unless configured.
  EXPECT_EQ(
      Run({"WAITSTREAMER"}),
      "WaitStreamer - no program answers the DDE item Status of Streamer|System on this computer");
}

TEST_F(CompanionCommandsTest, WaitStreamerEndsWhenTheStreamerIsReadyOrOnStop) {
  companion_.setAnswer("Streamer|System", "Status", "BUSY");
  Timer ready(events_, 3 * kMicrosPerSecond,
              [&] { companion_.setAnswer("Streamer|System", "Status", " ready "); });
  ready.setEnabled(true);
  EXPECT_EQ(Run({"WAITSTREAMER"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 3.0);
  ready.setEnabled(false);

  companion_.setAnswer("Streamer|System", "Status", "BUSY");
  Timer stopper(events_, 10 * kMicrosPerSecond, [&] { seq_.stop(); });
  stopper.setEnabled(true);
  EXPECT_EQ(Run({"WAITSTREAMER", "WAITRANDOM 5, 5"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 13.0);
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
}

TEST_F(CompanionCommandsTest, AnswersAreConfiguredAsTopicItemValue) {
  std::string error;
  EXPECT_TRUE(companion_.setAnswerFromText("Streamer|System!Status=READY", &error));
  EXPECT_EQ(companion_.request("Streamer|System", "Status", &error), "READY");
  EXPECT_FALSE(companion_.setAnswerFromText("Streamer|System=READY", &error));
  EXPECT_EQ(error, "a companion answer is written TOPIC!ITEM=VALUE, not \"Streamer|System=READY\"");
}

TEST_F(CompanionCommandsTest, ConnectedProgramsGetEveryCallAndTheirFailuresAreReported) {
  RecordingCompanion programs;
  programs.refuse("execute", "LG_Raw|System", "no program answers the DDE topic LG_Raw|System");
  programs.refuse("keys", "", "no window is titled \"Logger\"");
  programs.setAnswer("Streamer|System", "Status", "READY");
  companion_.connect(&programs);
  EXPECT_EQ(Run({"LINKPOKE Excel|Sheet1, R1C1, 5", "STARTSTREAMER run.dat", "WAITSTREAMER",
                 "APPLOAD logger.exe"}),
            "");
  EXPECT_EQ(programs.calls(), companion_.calls());
  EXPECT_EQ(Run({"LINKEXECUTE LG_Raw|System, Status, Stop"}),
            "LinkExecute - no program answers the DDE topic LG_Raw|System");
  EXPECT_EQ(Run({"SENDKEYS Logger, ~"}), "SendKeys - no window is titled \"Logger\"");
  EXPECT_EQ(companion_.calls().size(), 7u) << "failed calls are recorded too";
  // Refusals here and configured answers still come first.
  companion_.refuse("start", "", "not here");
  companion_.setAnswer("Streamer|System", "Status", "BUSY");
  const size_t before = programs.calls().size();
  EXPECT_EQ(Run({"APPLOAD logger.exe"}), "AppLoad - cannot start logger.exe: not here");
  std::string error;
  EXPECT_EQ(companion_.request("Streamer|System", "Status", &error), "BUSY");
  EXPECT_EQ(programs.calls().size(), before);
  EXPECT_EQ(companion_.request("Other|System", "Status", &error), std::nullopt);
  EXPECT_EQ(error, "no program answers the DDE item Status of Other|System on this computer");
  companion_.connect(nullptr);
}

}  // namespace
}  // namespace tavrix
