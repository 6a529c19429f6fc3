// The run panel against a real engine on a virtual clock: the controls of
// a free run, a stepped run and a NONSTOP run, seen by two panels subscribed
// to the same engine; and the start-up command line.
#include "panel/run_panel.h"

#include <gtest/gtest.h>

#include "engine/engine.h"
#include "testing/memory_engine.h"

namespace tavrix {
namespace {

class RunPanelTest : public ::testing::Test {
 protected:
  RunPanelTest() {
    first_ = engine().subscribe([this](const RunEvent& e) { Take(e); });
    second_ = engine().subscribe([this](const RunEvent& e) { other_.apply(e); });
  }

  Engine& engine() { return rig_.engine(); }
  MemoryFileSystem& files() { return rig_.files(); }

  void Take(const RunEvent& event) {
    panel_.apply(event);
    if (onEvent) onEvent(event);
  }

  void Prepare(const std::string& text) {
    files().put("/data/main.wts", text);
    engine().prepare("/data/main.wts");
    engine().events().processPendingEvents();
  }

  MemoryEngine rig_;
  RunPanel panel_;
  RunPanel other_;
  std::function<void(const RunEvent&)> onEvent;
  RunEventBus::Subscription first_;
  RunEventBus::Subscription second_;
};

TEST_F(RunPanelTest, AFreeRunLocksTheFileItemsAndFreesRunAtItsEnd) {
  Prepare("WAITSECONDS 2\r\nWAITSECONDS 3\r\n");
  EXPECT_TRUE(panel_.controls().runEnabled);
  EXPECT_FALSE(panel_.controls().stepEnabled);
  EXPECT_TRUE(panel_.controls().singleStepEnabled);
  EXPECT_FALSE(panel_.running());
  EXPECT_EQ(panel_.fileName(), "/data/main.wts");

  std::vector<RunControls> during;
  onEvent = [&](const RunEvent& e) {
    if (e.kind == RunEventKind::kLine) during.push_back(panel_.controls());
  };
  engine().start();
  engine().events().processPendingEvents();
  ASSERT_EQ(during.size(), 2u);
  for (const RunControls& c : during) {
    EXPECT_FALSE(c.runEnabled);
    EXPECT_TRUE(c.stopEnabled);
    EXPECT_FALSE(c.singleStepEnabled);
    EXPECT_FALSE(c.fileMenuEnabled);
  }
  EXPECT_TRUE(panel_.controls().runEnabled);
  EXPECT_FALSE(panel_.controls().stopEnabled);
  EXPECT_TRUE(panel_.controls().fileMenuEnabled);
  EXPECT_EQ(panel_.status(), "Stopped");
  EXPECT_EQ(panel_.lineNumber(), 2);
  // The second front end saw the very same run.
  EXPECT_EQ(other_.controls(), panel_.controls());
  EXPECT_EQ(other_.status(), panel_.status());
}

TEST_F(RunPanelTest, TheSingleStepBoxStepsUntilRunFreesTheRun) {
  Prepare("WAITSECONDS 1\r\nWAITSECONDS 2\r\nWAITSECONDS 4\r\n");
  // Ticking the box without a run asks the engine for a stepped run;
  // clearing it asks nothing.
  EXPECT_FALSE(panel_.tickSingleStep(false));
  EXPECT_FALSE(panel_.controls().singleStepTicked);
  ASSERT_TRUE(panel_.tickSingleStep(true));

  std::vector<RunControls> atHold;
  onEvent = [&](const RunEvent& e) {
    if (e.kind != RunEventKind::kHold) return;
    atHold.push_back(panel_.controls());
    EXPECT_TRUE(panel_.held());
    if (atHold.size() == 1) engine().step();
    if (atHold.size() == 2) engine().start();  // Run: on freely from here
  };
  engine().startStepping();
  engine().events().processPendingEvents();
  ASSERT_EQ(atHold.size(), 2u);
  for (const RunControls& c : atHold) {
    EXPECT_TRUE(c.runEnabled && c.stopEnabled && c.stepEnabled && c.skipEnabled);
    EXPECT_TRUE(c.singleStepTicked);
    EXPECT_FALSE(c.singleStepEnabled);
    EXPECT_FALSE(c.fileMenuEnabled);
  }
  EXPECT_FALSE(panel_.held());
  EXPECT_FALSE(panel_.controls().singleStepTicked);
  EXPECT_TRUE(panel_.controls().runEnabled);
  EXPECT_FALSE(panel_.controls().stopEnabled || panel_.controls().stepEnabled ||
               panel_.controls().skipEnabled);
  EXPECT_TRUE(panel_.controls().singleStepEnabled);
  EXPECT_EQ(other_.controls(), panel_.controls());
}

TEST_F(RunPanelTest, NonStopTakesStopAwayForTheRun) {
  Prepare("NONSTOP\r\nWAITSECONDS 1\r\n");
  bool stopDuringWait = true;
  onEvent = [&](const RunEvent& e) {
    if (e.kind == RunEventKind::kLine && e.line == 2)
      stopDuringWait = panel_.controls().stopEnabled;
  };
  engine().start();
  engine().events().processPendingEvents();
  EXPECT_FALSE(stopDuringWait);
  EXPECT_TRUE(panel_.controls().runEnabled);
}

// Beside the status the panel tells how the run ended; Stop pressed while
// a line is held ends the run without running that line.
TEST_F(RunPanelTest, TellsHowTheRunEndedAndStopLeavesTheHeldLineOut) {
  Prepare("WAITSECONDS 1\r\n");
  EXPECT_EQ(panel_.endText(), "");
  engine().start();
  engine().events().processPendingEvents();
  EXPECT_EQ(panel_.endText(), "Ended: end of file");
  EXPECT_FALSE(panel_.endedInError());

  Prepare("WAITSECONDS 1\r\nGOTO NOWHERE\r\nWAITSECONDS 1\r\n");
  std::vector<std::string> duringRun;
  onEvent = [&](const RunEvent& e) {
    if (e.kind == RunEventKind::kLine) duringRun.push_back(panel_.endText());
  };
  engine().start();
  engine().events().processPendingEvents();
  EXPECT_EQ(duringRun, (std::vector<std::string>{"", ""}));
  EXPECT_EQ(panel_.endText(), "Ended: sequence error at line 2");
  EXPECT_TRUE(panel_.endedInError());

  Prepare("WAITSECONDS 1\r\nSTOP\r\nWAITSECONDS 1\r\n");
  engine().start();
  engine().events().processPendingEvents();
  EXPECT_EQ(panel_.endText(), "Ended: STOP in the sequence");
  EXPECT_FALSE(panel_.endedInError());

  // Stepping: line 1 is stepped, line 2 is held when Stop is pressed and
  // never runs (run, its bad figure would end the run with an error).
  Prepare("WAITSECONDS 1\r\nWAITSECONDS abc\r\n");
  const Micros before = engine().clock().now();
  int holds = 0;
  onEvent = [&](const RunEvent& e) {
    if (e.kind != RunEventKind::kHold) return;
    if (++holds == 1) engine().step();
    if (holds == 2) engine().stop();
  };
  engine().startStepping();
  engine().events().processPendingEvents();
  EXPECT_EQ(holds, 2);
  EXPECT_EQ(engine().clock().now() - before, kMicrosPerSecond);
  EXPECT_EQ(panel_.endText(), "Ended: Stop");
  EXPECT_FALSE(panel_.held());
}

// A timed wait shows its time left as minutes and seconds, with its full
// length for a progress bar; other lines show none.
TEST_F(RunPanelTest, AWaitCountsDownInMinutesAndSeconds) {
  EXPECT_EQ(FormatCountDown(458.72), "07:39");
  EXPECT_EQ(FormatCountDown(60), "01:00");
  EXPECT_EQ(FormatCountDown(59.2), "01:00");
  EXPECT_EQ(FormatCountDown(0), "00:00");
  EXPECT_EQ(FormatCountDown(-3), "00:00");
  EXPECT_EQ(FormatCountDown(3723), "1:02:03");

  Prepare("WAITSECONDS 600\r\nRESETLOOPCOUNT\r\n");
  std::vector<WaitProgress> seen;
  bool waitOnSecondLine = false;
  onEvent = [&](const RunEvent& e) {
    if (e.kind == RunEventKind::kCommand && panel_.wait()) seen.push_back(*panel_.wait());
    if (e.kind == RunEventKind::kLine && e.line == 2) waitOnSecondLine = panel_.wait().has_value();
  };
  // Something else on the engine's loop (an alarm poll) wakes the wait
  // every 100 s, so that it shows its count-down on the way.
  Timer poll(engine().events(), 100 * kMicrosPerSecond, [] {});
  poll.setEnabled(true);
  engine().start();
  engine().events().processPendingEvents();
  poll.setEnabled(false);
  ASSERT_GE(seen.size(), 3u);
  for (size_t i = 0; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i].word, "waitseconds");
    EXPECT_DOUBLE_EQ(seen[i].length, 600);
    EXPECT_LE(seen[i].left, 600);
    if (i > 0) {
      EXPECT_LE(seen[i].left, seen[i - 1].left);
    }
  }
  EXPECT_LT(seen.back().left, 600);
  EXPECT_EQ(seen.front().display().substr(0, 14), "waitseconds 10");
  EXPECT_FALSE(waitOnSecondLine);
  EXPECT_FALSE(panel_.wait());
}

TEST(StartCommandLine, TakesTheFileQuotedOrNotAndTheAutomaticStart) {
  const StartCommandLine quoted = ParseStartCommandLine("\"/seq/a b.wts\" /a");
  EXPECT_EQ(quoted.file, "/seq/a b.wts");
  EXPECT_TRUE(quoted.autoStart);
  const StartCommandLine plain = ParseStartCommandLine("  /seq/a.wts /A  ");
  EXPECT_EQ(plain.file, "/seq/a.wts");
  EXPECT_TRUE(plain.autoStart);
  const StartCommandLine named = ParseStartCommandLine("/seq/b.wts");
  EXPECT_EQ(named.file, "/seq/b.wts");
  EXPECT_FALSE(named.autoStart);
  EXPECT_EQ(ParseStartCommandLine("").file, "");
}

}  // namespace
}  // namespace tavrix
