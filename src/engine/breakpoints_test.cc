// Breakpoints hold a run as a pause does, in virtual time: on a line, on a
// label (fallen through or jumped to), on a channel condition turning true,
// each with a hit count; the hold says which breakpoint held it, the trace
// records hold and resume, and the clock stands still while held. Bad
// breakpoints are refused with the reason.
#include "engine/breakpoints.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "testing/memory_engine.h"

namespace tavrix {
namespace {

// An engine on the simulated rig, with `text` prepared as /data/main.wts.
class Rig : public MemoryEngine {
 public:
  explicit Rig(const std::string& text)
      : MemoryEngine([](EngineConfig& config) { config.link = "sim"; }) {
    files().put("/data/c/rig.ims", "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
    files().put("/data/main.wts", text);
    std::string error;
    EXPECT_TRUE(engine().sequencer().prepareFile("/data/main.wts", &error)) << error;
  }
};

// A loop run three times: line 2 is the label TOP, line 3 the first line
// after it; line 8 follows DONE.
const char* const kLoop =
    "RESETLOOPCOUNT\r\n"     // 1
    "TOP:\r\n"               // 2
    "LOOPCHECK 3, DONE\r\n"  // 3
    "WAITSECONDS 10\r\n"     // 4
    "SEND OUT, 15\r\n"       // 5
    "GOTO TOP\r\n"           // 6
    "DONE:\r\n"              // 7
    "WAITSECONDS 1\r\n";     // 8

TEST(Breakpoints, LineLabelAndConditionHoldTheRunWithTheirHitCountsAndTheClockStandsStill) {
  Rig rig(std::string("IMSFILESPEC c:\\rig.ims\r\nSEND OUT, 0\r\n") + kLoop);
  // The loop file moved down by two lines: TOP is line 4, line 5 follows it.
  Breakpoints breakpoints(rig.engine());
  std::string error;
  const auto label = breakpoints.add("TOP:2", false, &error);
  ASSERT_TRUE(label) << error;
  const auto line = breakpoints.add("10", false, &error);
  ASSERT_TRUE(line) << error;
  const auto condition = breakpoints.add("OUT > 10", true, &error);
  ASSERT_TRUE(condition) << error;
  auto trace = rig.engine().files().create("/data/trace.jsonl", nullptr);
  ASSERT_NE(trace, nullptr);
  rig.engine().trace().setOutput(std::move(trace));
  rig.engine().trace().setOrigin(kTestStart);

  // Another thread plays the person at the terminal: it waits for each hold,
  // then resumes; the engine thread meanwhile has nothing to do.
  std::mutex mutex;
  std::condition_variable changed;
  int holds = 0;
  std::vector<std::string> seen;
  std::vector<Micros> heldAt, releasedAt;
  auto listener = rig.engine().subscribe([&](const RunEvent& e) {
    std::lock_guard guard(mutex);
    if (e.kind == RunEventKind::kHold) {
      seen.push_back(std::to_string(e.line) + " " + e.title + " " + std::to_string(e.number));
      heldAt.push_back(e.time);
      ++holds;
      changed.notify_all();
    } else if (e.kind == RunEventKind::kRelease) {
      releasedAt.push_back(e.time);
    } else if (e.kind == RunEventKind::kEnd) {
      holds = -1000;
      changed.notify_all();
    }
  });
  std::thread person([&] {
    for (int answered = 0;; ++answered) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return holds < 0 || holds > answered; });
      if (holds < 0) return;
      lock.unlock();
      rig.engine().resume();
    }
  });
  EXPECT_EQ(rig.engine().run(), EndReason::kEndOfFile);
  person.join();
  listener.reset();

  // OUT > 10 turns true once, before the first GOTO (it stays true after);
  // TOP holds from its second hit on (each jump back); line 10 holds once.
  const std::string breakId = std::to_string(*label);
  const std::string conditionId = std::to_string(*condition);
  EXPECT_EQ(seen, (std::vector<std::string>{"8 break " + conditionId, "5 break " + breakId,
                                            "5 break " + breakId, "5 break " + breakId,
                                            "10 break " + std::to_string(*line)}));
  ASSERT_EQ(heldAt.size(), releasedAt.size());
  for (size_t i = 0; i < heldAt.size(); ++i) EXPECT_EQ(heldAt[i], releasedAt[i]) << "hold " << i;
  EXPECT_EQ(rig.engine().clock().now() - kTestStart, 31 * kMicrosPerSecond);
  const auto list = breakpoints.list();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].hits, 4);
  EXPECT_EQ(list[1].hits, 1);
  EXPECT_EQ(list[2].hits, 1);
  EXPECT_EQ(DescribeBreakpoint(list[0]), "label TOP (line 5), from hit 2, hit 4 times");

  std::string text;
  rig.files().readFile("/data/trace.jsonl", text, nullptr);
  EXPECT_NE(text.find(R"("ev":"hold","n":5,"reason":"break","id":)" + breakId), std::string::npos)
      << text;
  EXPECT_NE(text.find(R"("ev":"resume","by":"resume")"), std::string::npos) << text;
}

TEST(Breakpoints, PauseAndStepHoldsSayWhyAndABreakpointCanBeCleared) {
  Rig rig("WAITSECONDS 1\r\nWAITSECONDS 2\r\nWAITSECONDS 4\r\nWAITSECONDS 8\r\n");
  Breakpoints breakpoints(rig.engine());
  std::string error;
  const auto cleared = breakpoints.add("4", false, &error);
  ASSERT_TRUE(cleared) << error;
  std::vector<std::string> seen;
  auto listener = rig.engine().subscribe([&](const RunEvent& e) {
    if (e.kind != RunEventKind::kHold) return;
    seen.push_back(std::to_string(e.line) + " " + e.title);
    if (seen.size() == 1) {
      rig.engine().step();
    } else {
      // Cleared while the run holds: line 4 runs freely.
      EXPECT_TRUE(breakpoints.remove(*cleared));
      EXPECT_FALSE(breakpoints.remove(*cleared));
      rig.engine().resume();
    }
  });
  Timer pauser(rig.engine().events(), kMicrosPerSecond / 2, [&] {
    pauser.setEnabled(false);
    rig.engine().pause();
  });
  pauser.setEnabled(true);
  EXPECT_EQ(rig.engine().run(), EndReason::kEndOfFile);
  EXPECT_EQ(seen, (std::vector<std::string>{"2 pause", "3 step"}));
}

TEST(Breakpoints, ABadBreakpointIsRefusedWithTheReason) {
  Rig rig(kLoop);
  Breakpoints breakpoints(rig.engine());
  const auto refused = [&](const std::string& spec, bool condition) {
    std::string error;
    EXPECT_FALSE(breakpoints.add(spec, condition, &error)) << spec;
    return error;
  };
  EXPECT_EQ(refused("10", false), "breakpoint \"10\": /data/main.wts has lines 1 to 8, no line 10");
  EXPECT_EQ(refused("0", false), "breakpoint \"0\": /data/main.wts has lines 1 to 8, no line 0");
  EXPECT_EQ(refused("NOWHERE", false),
            "breakpoint \"NOWHERE\": label NOWHERE does not exist in /data/main.wts");
  EXPECT_EQ(refused("TOP:0", false),
            "breakpoint \"TOP:0\": the hit count after ':' must be a whole number from 1 on, not "
            "\"0\"");
  EXPECT_EQ(refused("3:x", false),
            "breakpoint \"3:x\": the hit count after ':' must be a whole number from 1 on, not "
            "\"x\"");
  EXPECT_EQ(refused("OUT >= 5", true),
            "breakpoint \"OUT >= 5\": unknown operator \">=\" (a condition takes =, >, < or <>)");
  EXPECT_NE(refused("OUT >", true).find("CHANNEL OPERATOR NUMBER"), std::string::npos);
  EXPECT_NE(refused("OUT > hot", true).find("CHANNEL OPERATOR NUMBER"), std::string::npos);
  EXPECT_TRUE(breakpoints.list().empty());
  std::string error;
  EXPECT_TRUE(breakpoints.add("DONE", false, &error)) << error;
  EXPECT_EQ(breakpoints.list().at(0).line, 8);
}

}  // namespace
}  // namespace tavrix
