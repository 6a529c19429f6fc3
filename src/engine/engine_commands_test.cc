// The engine as front ends hold it: built from a config, driven by its
// commands, heard through its run events. Two engines run at once in one
// process, each with its own rig, files and clock; two front ends listen to
// one engine; pause, step, skip and resume hold and release a run in
// virtual time.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "engine/engine.h"
#include "testing/memory_engine.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"

namespace tavrix {
namespace {

// One engine on its own virtual clock and in-memory files below `root`,
// with the simulated rig set up from `setup`.
class Rig : public MemoryEngine {
 public:
  Rig(const std::string& root, Micros start, const std::string& setup)
      : MemoryEngine([](EngineConfig& config) { config.link = "sim"; }, root, start) {
    files().put(root + "/c/rig.ims", setup);
  }

  void Prepare(const std::string& text) {
    files().put(files().dataRoot() + "/main.wts", text);
    std::string error;
    EXPECT_TRUE(engine().sequencer().prepareFile(files().dataRoot() + "/main.wts", &error))
        << error;
  }

  double Elapsed(Micros start) const {
    return static_cast<double>(clock().now() - start) / kMicrosPerSecond;
  }
};

TEST(Engines, TwoEnginesRunAtOnceEachWithItsOwnRigFilesAndClock) {
  Rig a("/station-a", kTestStart,
        "D 1 MONITORS=1\n  10001 E=1 M=A N=HEATER U=%\n  10002 E=1 M=A N=OUT\n");
  Rig b("/station-b", kTestStart + 3600 * kMicrosPerSecond,
        "D 1 MONITORS=1\n  10001 E=1 M=A N=PUMP\n");
  a.Prepare(
      "IMSFILESPEC c:\\rig.ims\r\nSEND OUT, 7\r\nLOGONCE c:\\log.txt, from a\r\nWAITSECONDS 5\r\n");
  b.Prepare(
      "IMSFILESPEC c:\\rig.ims\r\nSEND PUMP, 3\r\nLOGONCE c:\\log.txt, from b\r\n"
      "WAITSECONDS 50\r\n");
  std::vector<std::string> linesA, linesB;
  auto seenA = a.engine().subscribe([&](const RunEvent& e) {
    if (e.kind == RunEventKind::kLine) linesA.push_back(e.text);
  });
  auto seenB = b.engine().subscribe([&](const RunEvent& e) {
    if (e.kind == RunEventKind::kLine) linesB.push_back(e.text);
  });

  // Each engine runs on a thread of its own, both at once.
  EndReason endA = EndReason::kNone, endB = EndReason::kNone;
  std::thread runA([&] { endA = a.engine().run(); });
  std::thread runB([&] { endB = b.engine().run(); });
  runA.join();
  runB.join();

  EXPECT_EQ(endA, EndReason::kEndOfFile);
  EXPECT_EQ(endB, EndReason::kEndOfFile);
  EXPECT_TRUE(a.op().messages.empty()) << a.op().messages.front();
  EXPECT_TRUE(b.op().messages.empty()) << b.op().messages.front();
  EXPECT_DOUBLE_EQ(a.Elapsed(kTestStart), 5.0);
  EXPECT_DOUBLE_EQ(b.Elapsed(kTestStart + 3600 * kMicrosPerSecond), 50.0);
  EXPECT_EQ(linesA.at(1), "SEND OUT, 7");
  EXPECT_EQ(linesB.at(1), "SEND PUMP, 3");
  EXPECT_EQ(linesA.size(), 4u);
  EXPECT_EQ(linesB.size(), 4u);

  // Each wrote its own log, in its own files, and holds its own channels.
  EXPECT_NE(a.read("/station-a/c/log.txt").find("from a"), std::string::npos);
  EXPECT_NE(b.read("/station-b/c/log.txt").find("from b"), std::string::npos);
  EXPECT_FALSE(a.files().isFile("/station-b/c/log.txt"));
  EXPECT_FALSE(b.files().isFile("/station-a/c/log.txt"));
  std::string value;
  EXPECT_TRUE(a.engine().instrument()->channels().ReadChannel("OUT", value));
  EXPECT_EQ(value, "7");
  EXPECT_FALSE(b.engine().instrument()->channels().ReadChannel("OUT", value));
  EXPECT_TRUE(b.engine().instrument()->channels().ReadChannel("PUMP", value));
  EXPECT_EQ(value, "3");
}

TEST(Engines, TwoFrontEndsHearTheSameEventsAndOneMayLetGoMidRun) {
  Rig rig("/data", kTestStart, "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
  rig.Prepare("WAITSECONDS 1\r\nSEND OUT, 2\r\nWAITSECONDS 1\r\nGOTO NOWHERE\r\n");
  struct Seen {
    RunEventKind kind;
    int32_t line;
    std::string text;
    bool operator==(const Seen&) const = default;
  };
  std::vector<Seen> first, second, third;
  const auto record = [](std::vector<Seen>& into) {
    return [&into](const RunEvent& e) { into.push_back({e.kind, e.line, e.text}); };
  };
  auto one = rig.engine().subscribe(record(first));
  auto two = rig.engine().subscribe(record(second));
  RunEventBus::Subscription three;
  three = rig.engine().subscribe([&](const RunEvent& e) {
    third.push_back({e.kind, e.line, e.text});
    // The third lets go of its own subscription inside its handler.
    if (e.kind == RunEventKind::kLine && e.line == 2) three.reset();
  });
  // Meanwhile another thread subscribes and lets go over and over.
  std::atomic<bool> done{false};
  std::thread churn([&] {
    while (!done) {
      auto passing = rig.engine().subscribe([](const RunEvent&) {});
    }
  });
  EXPECT_EQ(rig.engine().run(), EndReason::kError);
  done = true;
  churn.join();

  EXPECT_EQ(first, second);
  const auto has = [&](RunEventKind kind) {
    return std::any_of(first.begin(), first.end(),
                       [kind](const Seen& s) { return s.kind == kind; });
  };
  EXPECT_TRUE(has(RunEventKind::kStarted));
  EXPECT_TRUE(has(RunEventKind::kStatus));
  EXPECT_TRUE(has(RunEventKind::kMessage));
  EXPECT_EQ(first.back().kind, RunEventKind::kEnd);
  EXPECT_EQ(first.back().text, "error");
  const auto output = std::find_if(first.begin(), first.end(),
                                   [](const Seen& s) { return s.kind == RunEventKind::kOutput; });
  EXPECT_EQ(output, first.end()) << "SEND is no output in progress";
  ASSERT_FALSE(third.empty());
  EXPECT_EQ(third.back().kind, RunEventKind::kLine);
  EXPECT_EQ(third.back().line, 2);
  EXPECT_LT(third.size(), first.size());
}

TEST(Engines, PauseStepSkipAndResumeHoldTheRunBetweenLinesInVirtualTime) {
  Rig rig("/data", kTestStart, "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
  rig.Prepare(
      "WAITSECONDS 1\r\nWAITSECONDS 2\r\nWAITSECONDS 4\r\nWAITSECONDS 8\r\n"
      "WAITSECONDS 16\r\n");
  std::vector<std::string> seen;
  std::vector<double> heldAt;
  auto control = rig.engine().subscribe([&](const RunEvent& e) {
    switch (e.kind) {
      case RunEventKind::kLine:
        seen.push_back("line " + std::to_string(e.line));
        break;
      case RunEventKind::kPaused:
        seen.push_back("paused");
        break;
      case RunEventKind::kHold:
        seen.push_back("hold " + std::to_string(e.line));
        heldAt.push_back(rig.Elapsed(kTestStart));
        if (heldAt.size() == 1) rig.engine().step();
        if (heldAt.size() == 2) rig.engine().skip();
        if (heldAt.size() == 3) rig.engine().resume();
        break;
      case RunEventKind::kRelease:
        seen.push_back("release " + e.text);
        break;
      case RunEventKind::kResumed:
        seen.push_back("resumed");
        break;
      default:
        break;
    }
  });
  // A front end pauses half-way through the first line's wait: the line
  // runs to its end and the run holds before the second.
  Timer pauser(rig.engine().events(), kMicrosPerSecond / 2, [&] {
    pauser.setEnabled(false);
    rig.engine().pause();
  });
  pauser.setEnabled(true);
  EXPECT_EQ(rig.engine().run(), EndReason::kEndOfFile);
  EXPECT_EQ(seen, (std::vector<std::string>{"line 1", "paused", "line 2", "hold 2", "release step",
                                            "line 3", "hold 3", "release skip", "line 4", "hold 4",
                                            "resumed", "release resume", "line 5"}));
  // Each hold came after the line before it had run in full; the holds
  // themselves took no time, and every line ran.
  EXPECT_EQ(heldAt, (std::vector<double>{1.0, 3.0, 7.0}));
  EXPECT_DOUBLE_EQ(rig.Elapsed(kTestStart), 31.0);
  EXPECT_FALSE(rig.engine().sequencer().flags().singleStepMode);
}

TEST(Engines, ABuildWithoutItsPartsOrWithAnUnknownLinkIsRefusedWithTheReason) {
  RecordingOperator op;
  EngineBuildError error;
  EXPECT_EQ(BuildEngine(EngineConfig{}, &error), nullptr);
  EXPECT_EQ(error.part, EnginePart::kConfig);

  EngineConfig config;
  config.clock = std::make_unique<VirtualClock>(kTestStart);
  config.files = std::make_unique<MemoryFileSystem>("/data");
  config.op = &op;
  config.link = "carrier-pigeon";
  EXPECT_EQ(BuildEngine(std::move(config), &error), nullptr);
  EXPECT_EQ(error.part, EnginePart::kLink);
  EXPECT_NE(error.text.find("carrier-pigeon"), std::string::npos) << error.text;

  EngineConfig answers;
  answers.clock = std::make_unique<VirtualClock>(kTestStart);
  answers.files = std::make_unique<MemoryFileSystem>("/data");
  answers.op = &op;
  answers.companionAnswers = {"no equals sign"};
  EXPECT_EQ(BuildEngine(std::move(answers), &error), nullptr);
  EXPECT_EQ(error.part, EnginePart::kCompanionAnswer);
}

}  // namespace
}  // namespace tavrix
