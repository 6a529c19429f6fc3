// The companion commands against real programs: the DDE test server beside
// this test program answers as the streamer and the logging programs do.

#include "testing/dde_test_server_process.h"
#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using platform::DdeTestServerProcess;

class SystemCompanionTest : public CommandTest {
 protected:
  void SetUp() override {
    programs_ = MakeSystemCompanion();
    ASSERT_NE(programs_, nullptr);
    companion_.connect(programs_.get());
    server_ = std::make_unique<DdeTestServerProcess>(
        dir_ + "\\server.log", "--service Streamer --service LG_Raw --status BUSY");
    ASSERT_TRUE(server_->started())
        << "the test server did not come up: " << DdeTestServerProcess::path();
  }

  void TearDown() override {
    server_.reset();
    companion_.connect(nullptr);
  }

  std::unique_ptr<Companion> programs_;
  std::unique_ptr<DdeTestServerProcess> server_;
};

TEST_F(SystemCompanionTest, StreamerAndLoggerCommandsReachThePrograms) {
  // The streamer is busy until its status is poked to READY, three seconds
  // into the wait.
  Timer ready(events_, 3 * kMicrosPerSecond, [&] {
    std::string error;
    EXPECT_TRUE(companion_.poke("Streamer|System", "Status", "READY", &error)) << error;
  });
  ready.setEnabled(true);
  EXPECT_EQ(
      Run({"STARTSTREAMER c:\\data\\run1.dat", "WAITSTREAMER",
           "LINKEXECUTE LG_Raw|System, Status, Stop", "LINKPOKE LG_Raw|System, R1C1, 12.5, -3",
           "LINKEXECUTE LG_Raw|System, Status, Start"}),
      "");
  ready.setEnabled(false);
  EXPECT_DOUBLE_EQ(Elapsed(), 3.0);
  std::vector<std::string> received = server_->received();
  // WAITSTREAMER asks once a second until the answer is READY.
  EXPECT_EQ(std::count(received.begin(), received.end(), "request Streamer|System Status"), 4);
  received.erase(std::remove(received.begin(), received.end(), "request Streamer|System Status"),
                 received.end());
  EXPECT_EQ(received, (std::vector<std::string>{
                          "execute Streamer|System COLLECT c:\\data\\run1.dat",
                          "execute Streamer|System START", "poke Streamer|System Status=READY",
                          "execute LG_Raw|System Stop", "poke LG_Raw|System R1C1=12.5, -3",
                          "execute LG_Raw|System Start"}));
}

TEST_F(SystemCompanionTest, WhatTheProgramsCannotDoIsReported) {
  EXPECT_EQ(Run({"LINKEXECUTE Nobody|System, Status, Stop"}),
            "LinkExecute - no program answers the DDE topic Nobody|System on this computer");
  EXPECT_EQ(Run({"LINKEXECUTE LG_Raw|System, Status, Refuse"}),
            "LinkExecute - LG_Raw|System did not carry out the DDE command \"Refuse\"");
  EXPECT_EQ(Run({"LINKPOKE Sheet1, R1C1, 1"}),
            "LinkPoke - a DDE topic is written Program|Topic, not \"Sheet1\"");
  EXPECT_EQ(Run({"STARTSTREAMER c:\\data\\run2.dat"}), "");
  server_.reset();  // the streamer ends
  EXPECT_EQ(Run({"WAITSTREAMER"}),
            "WaitStreamer - no program answers the DDE item Status of Streamer|System on this "
            "computer");
  EXPECT_EQ(Run({"SENDKEYS No such window, abc"}),
            "SendKeys - no window is titled \"No such window\"");
  const std::string missing = dir_ + "\\missing.exe";
  const std::string appLoad = Run({"APPLOAD " + missing});
  EXPECT_EQ(appLoad.rfind("AppLoad - cannot start " + missing + ": ", 0), 0u) << appLoad;
}

}  // namespace
}  // namespace tavrix
