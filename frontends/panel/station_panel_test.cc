// The tiles of a station against real engines on virtual clocks, one engine
// per socket feeding one panel, as the window's sockets do.
#include "panel/station_panel.h"

#include <gtest/gtest.h>

#include "engine/engine.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"

namespace tavrix {
namespace {

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

struct Socket {
  Socket(StationPanel& panel, size_t index) {
    auto owned = std::make_unique<MemoryFileSystem>("/data");
    files = owned.get();
    // A unit record: its serial number comes from the data entry, its
    // verdict from one manual stage check.
    files->put("/data/details.txt",
               "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test\t\t1\t\t"
               "/data/fields.txt\t/data/stages.txt\t/data/results\r\n");
    files->put("/data/fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
    files->put("/data/stages.txt",
               "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
               "1\tMANUAL\t\t\t\t\tSeal\t\tIs the seal fitted?\r\n");
    EngineConfig config;
    config.clock = std::make_unique<VirtualClock>(kStart);
    config.files = std::move(owned);
    config.op = &op;
    engine = BuildEngine(std::move(config));
    events = engine->subscribe([this, &panel, index](const RunEvent& event) {
      const TestDatabase& db = engine->testDatabase();
      panel.apply(index, event, SocketUnit{db.uutOpen(), db.uut().serialNumber});
    });
  }
  void Prepare(const std::string& text) {
    files->put("/data/main.wts", text);
    engine->prepare("/data/main.wts");
    engine->events().processPendingEvents();
  }
  // Runs `tick` once the run has gone `seconds` on.
  void At(double seconds, std::function<void()> tick) {
    timer = std::make_unique<Timer>(engine->events(), kMicrosPerSecond, [this, tick] {
      timer->setEnabled(false);
      tick();
    });
    timer->setDue(engine->clock().now() + static_cast<Micros>(seconds * kMicrosPerSecond));
  }

  RecordingOperator op;
  MemoryFileSystem* files = nullptr;
  std::unique_ptr<Engine> engine;
  RunEventBus::Subscription events;
  std::unique_ptr<Timer> timer;
};

constexpr const char* kUnitTest =
    "DB_DATAENTRY /data/details.txt\r\nDB_STAGECHECK 1\r\nWAITSECONDS 5\r\nSTOP\r\n";

// A socket runs a unit: its tile follows the line, the wait's time left and
// the serial number, and ends PASS; a finished socket starts its next unit
// while the other socket's run goes on, and that one's failed check makes
// it FAIL.
TEST(StationPanelTest, TilesFollowEachSocketsUnitAndAFinishedSocketStartsItsNext) {
  StationPanel panel({"S1", "S2"});
  Socket s1(panel, 0);
  Socket s2(panel, 1);
  EXPECT_EQ(panel.tile(0).state, SocketState::kReady);
  EXPECT_FALSE(panel.tile(0).runEnabled);  // nothing prepared yet
  EXPECT_TRUE(panel.runnable().empty());
  s1.Prepare(kUnitTest);
  s2.Prepare(kUnitTest);
  SocketTile t = panel.tile(0);
  EXPECT_EQ(t.name, "S1");
  EXPECT_STREQ(SocketStateText(t.state), "READY");
  EXPECT_TRUE(t.runEnabled);
  EXPECT_TRUE(t.stepEnabled);
  EXPECT_FALSE(t.stopEnabled);
  EXPECT_EQ(panel.runnable(), (std::vector<size_t>{0, 1}));
  EXPECT_TRUE(panel.stoppable().empty());

  s1.op.answers = {"Accept|serial=SN1", "Pass"};
  SocketTile during;
  std::vector<size_t> runnableDuring, stoppableDuring;
  s1.At(2, [&] {
    during = panel.tile(0, s1.engine->clock().now());
    runnableDuring = panel.runnable();
    stoppableDuring = panel.stoppable();
  });
  s1.engine->run();
  EXPECT_EQ(during.state, SocketState::kRunning);
  EXPECT_EQ(during.line, "3: WAITSECONDS 5");
  EXPECT_EQ(during.waitLeft, "00:03");
  EXPECT_EQ(during.serial, "SN1");
  EXPECT_FALSE(during.runEnabled);
  EXPECT_FALSE(during.stepEnabled);
  EXPECT_TRUE(during.stopEnabled);
  EXPECT_EQ(runnableDuring, (std::vector<size_t>{1}));
  EXPECT_EQ(stoppableDuring, (std::vector<size_t>{0}));
  EXPECT_TRUE(during.endText.empty());

  t = panel.tile(0);
  EXPECT_EQ(t.state, SocketState::kPass);
  EXPECT_EQ(t.serial, "SN1");
  EXPECT_EQ(t.passed, 1);
  EXPECT_TRUE(t.waitLeft.empty());
  EXPECT_EQ(t.endText, "Ended: STOP in the sequence");
  EXPECT_FALSE(panel.anyRunning());

  // S2 tests a unit that fails; while it waits, S1 starts its next unit.
  s2.op.answers = {"Accept|serial=SN2", "Fail"};
  s1.op.answers = {"Accept|serial=SN3", "Pass"};
  bool s1RunWhileS2Ran = false;
  s2.At(1, [&] {
    EXPECT_EQ(panel.tile(1).state, SocketState::kRunning);
    EXPECT_TRUE(panel.anyRunning());
    s1RunWhileS2Ran = panel.tile(0).runEnabled;
    s1.engine->run();
    EXPECT_EQ(panel.tile(0).state, SocketState::kPass);
    EXPECT_EQ(panel.tile(0).serial, "SN3");
    EXPECT_EQ(panel.tile(1).state, SocketState::kRunning);
  });
  s2.engine->run();
  EXPECT_TRUE(s1RunWhileS2Ran);
  t = panel.tile(1);
  EXPECT_EQ(t.state, SocketState::kFail);
  EXPECT_EQ(t.serial, "SN2");
  EXPECT_EQ(t.failed, 1);
  EXPECT_EQ(t.passed, 0);
  EXPECT_EQ(panel.tile(0).passed, 2);

  // The next unit in S2 passes: the verdict is its own, not the one before.
  s2.op.answers = {"Accept|serial=SN4", "Pass"};
  s2.engine->run();
  EXPECT_EQ(panel.tile(1).state, SocketState::kPass);
  EXPECT_EQ(panel.tile(1).serial, "SN4");
}

// Stop gives STOPPED, a sequence error FAIL with its line; Step on a socket
// at rest starts a run held before its first line, which the tile shows.
TEST(StationPanelTest, StopErrorsAndSteppedRunsShowOnTheTile) {
  StationPanel panel({"A", "B"});
  Socket a(panel, 0);
  Socket b(panel, 1);
  a.Prepare("WAITSECONDS 60\r\nSTOP\r\n");
  b.Prepare("WAITSECONDS 1\r\nGOTO NOWHERE\r\n");

  a.At(10, [&] { a.engine->stop(); });
  a.engine->run();
  EXPECT_EQ(panel.tile(0).state, SocketState::kStopped);
  EXPECT_EQ(panel.tile(0).endText, "Ended: Stop");
  EXPECT_TRUE(panel.tile(0).runEnabled);
  EXPECT_FALSE(panel.tile(0).stopEnabled);

  b.engine->run();
  EXPECT_EQ(panel.tile(1).state, SocketState::kFail);
  EXPECT_EQ(panel.tile(1).endText, "Ended: sequence error at line 2");
  EXPECT_EQ(panel.tile(1).passed + panel.tile(1).failed, 0);

  EXPECT_EQ(panel.steppable(), (std::vector<size_t>{0, 1}));
  SocketTile held;
  std::vector<size_t> steppableHeld;
  a.At(1, [&] {
    held = panel.tile(0);
    steppableHeld = panel.steppable();
    a.engine->stop();
  });
  a.engine->startStepping();
  a.engine->events().waitUntil([&] { return !panel.tile(0).stopEnabled && held.held; });
  EXPECT_TRUE(held.held);
  EXPECT_EQ(held.state, SocketState::kRunning);
  EXPECT_EQ(held.line, "1: WAITSECONDS 60");
  EXPECT_TRUE(held.stepEnabled);
  EXPECT_TRUE(held.runEnabled);  // Run lets the held run go on freely
  EXPECT_TRUE(held.stopEnabled);
  EXPECT_EQ(steppableHeld, (std::vector<size_t>{0, 1}));
  EXPECT_EQ(panel.tile(0).state, SocketState::kStopped);
  EXPECT_FALSE(panel.tile(0).held);
}

}  // namespace
}  // namespace tavrix
