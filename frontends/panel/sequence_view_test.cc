// The window's sequence view against a real engine on a virtual clock: the
// margin toggles a line's breakpoint, labels and conditions come from the
// form with a hit count, and the view marks the line the run is at, says
// what holds it, and follows breakpoints cleared while the run holds.
#include "panel/sequence_view.h"

#include <gtest/gtest.h>

#include "engine/engine.h"
#include "testing/memory_engine.h"

namespace tavrix {
namespace {

class SequenceViewTest : public ::testing::Test {
 protected:
  SequenceViewTest() {
    breakpoints_ = std::make_unique<Breakpoints>(engine());
    events_ = engine().subscribe([this](const RunEvent& e) {
      view_.apply(e);
      if (onEvent) onEvent(e);
    });
  }
  ~SequenceViewTest() override {
    events_.reset();
    breakpoints_.reset();
  }

  Engine& engine() { return rig_.engine(); }
  MemoryFileSystem& files() { return rig_.files(); }

  void Prepare(const std::string& path, const std::string& text) {
    files().put(path, text);
    engine().prepare(path);
    engine().events().processPendingEvents();
    std::vector<std::string> lines;
    std::string error;
    ASSERT_TRUE(SequenceView::ReadLines(files(), path, lines, &error)) << error;
    view_.load(path, std::move(lines));
  }

  // What the window does with a change: on the engine thread, then the
  // engine's list goes back to the view.
  std::string Carry(const SequenceView::Change& change) {
    for (const int64_t id : change.clear) EXPECT_TRUE(breakpoints_->remove(id));
    std::string error;
    if (!change.add.empty()) breakpoints_->add(change.add, change.condition, &error);
    view_.setBreakpoints(breakpoints_->list());
    return error;
  }

  MemoryEngine rig_;
  std::unique_ptr<Breakpoints> breakpoints_;
  SequenceView view_;
  std::function<void(const RunEvent&)> onEvent;
  RunEventBus::Subscription events_;
};

TEST_F(SequenceViewTest, TheMarginAndTheFormSetBreakpointsThatHoldTheRunAndSayWhy) {
  Prepare("/data/loop.wts",
          "RESETLOOPCOUNT\r\nTOP:\r\n  LOOPCHECK 3, DONE\r\nINCREMENTLOOPCOUNT\r\nGOTO TOP\r\n"
          "DONE:\r\nSTOP\r\n");
  ASSERT_EQ(view_.lineCount(), 7);
  EXPECT_EQ(view_.line(3).text, "LOOPCHECK 3, DONE");  // as the run reads it
  EXPECT_EQ(view_.line(7).number, 7);
  EXPECT_EQ(view_.currentLine(), 0);

  // The margin sets a line breakpoint, clears it, sets it again; past the
  // file's lines it asks for nothing.
  EXPECT_EQ(Carry(view_.toggle(4)), "");
  EXPECT_EQ(view_.line(4).breakpoints, std::vector<int64_t>{1});
  EXPECT_EQ(view_.toggle(4).clear, std::vector<int64_t>{1});
  EXPECT_TRUE(view_.toggle(4).add.empty());
  Carry(view_.toggle(4));
  EXPECT_TRUE(view_.breakpoints().empty());
  EXPECT_TRUE(view_.line(4).breakpoints.empty());
  Carry(view_.toggle(4));
  EXPECT_EQ(view_.line(4).breakpoints, std::vector<int64_t>{2});
  for (const int32_t outside : {0, 8}) {
    const auto none = view_.toggle(outside);
    EXPECT_TRUE(none.add.empty() && none.clear.empty()) << outside;
  }

  // The form: a label as the file writes it, with a hit count; it holds
  // before the line after the label and shows there.
  std::string error;
  const auto label = SequenceView::Addition(" TOP: ", false, 2, &error);
  ASSERT_TRUE(label) << error;
  EXPECT_EQ(label->add, "TOP:2");
  EXPECT_EQ(Carry(*label), "");
  EXPECT_EQ(view_.line(3).breakpoints, std::vector<int64_t>{3});
  EXPECT_EQ(SequenceView::Row(view_.breakpoints()[1]),
            "3: label TOP (line 3), from hit 2, hit 0 times");
  // A condition shows in the list only; a label the file lacks is the
  // engine's message.
  const auto condition = SequenceView::Addition("T1 > 80", true, 3, &error);
  ASSERT_TRUE(condition);
  EXPECT_EQ(condition->add, "T1 > 80:3");
  EXPECT_TRUE(condition->condition);
  EXPECT_EQ(Carry(*condition), "");
  for (int32_t n = 1; n <= 7; ++n)
    EXPECT_EQ(view_.line(n).breakpoints.size(), n == 3 || n == 4 ? 1u : 0u) << n;
  EXPECT_NE(Carry(*SequenceView::Addition("WARM", false, 1, &error)).find("does not exist"),
            std::string::npos);
  // What the form refuses before the engine sees it.
  struct Refused {
    const char* target;
    bool condition;
    int64_t hits;
  };
  for (const Refused& refused :
       {Refused{"", false, 1}, Refused{"  ", true, 1}, Refused{"TOP", false, 0},
        Refused{"T1 > 80:2", true, 1}, Refused{"TWO WORDS", false, 1}}) {
    error.clear();
    EXPECT_FALSE(SequenceView::Addition(refused.target, refused.condition, refused.hits, &error))
        << refused.target;
    EXPECT_FALSE(error.empty()) << refused.target;
  }
  ASSERT_EQ(view_.breakpoints().size(), 3u);

  // The run: held at line 4 by its breakpoint, which is cleared while the
  // run holds; Run goes on to the label's second hit; Step holds the next
  // line; everything cleared, Run goes to the end.
  std::vector<std::string> holds;
  std::string ended;
  onEvent = [&](const RunEvent& e) {
    if (e.kind == RunEventKind::kEnd) ended = e.text;
    if (e.kind != RunEventKind::kHold) return;
    view_.setBreakpoints(breakpoints_->list());
    holds.push_back(view_.holdText());
    EXPECT_TRUE(view_.held());
    EXPECT_EQ(view_.currentLine(), e.line);
    EXPECT_TRUE(view_.line(e.line).held);
    EXPECT_FALSE(view_.line(e.line == 3 ? 4 : 3).current);
    if (holds.size() == 1) {
      Carry(view_.toggle(4));
      engine().start();
    } else if (holds.size() == 2) {
      engine().step();
    } else {
      Carry(view_.clearAll());
      engine().start();
    }
  };
  engine().start();
  engine().events().processPendingEvents();
  ASSERT_EQ(holds.size(), 3u);
  EXPECT_EQ(holds[0], "Held before line 4 by breakpoint 2 (line 4, hit 1 time)");
  EXPECT_EQ(holds[1],
            "Held before line 3 by breakpoint 3 (label TOP (line 3), from hit 2, hit 2 times)");
  EXPECT_EQ(holds[2], "Held before line 4 (single step)");
  EXPECT_TRUE(breakpoints_->list().empty());
  EXPECT_FALSE(view_.held());
  EXPECT_EQ(view_.holdText(), "");
  EXPECT_EQ(view_.currentLine(), 0);
  EXPECT_EQ(ended, "stop");
}

TEST_F(SequenceViewTest, ALineOfAChainedFileIsNotMarkedInThePreparedOne) {
  files().put("/data/other.wts", "WAITSECONDS 1\r\nWAITSECONDS 1\r\n");
  Prepare("/data/main.wts", "CHAIN /data/other.wts\r\nSTOP\r\n");
  std::vector<std::string> holds;
  std::vector<int32_t> current;
  onEvent = [&](const RunEvent& e) {
    if (e.kind == RunEventKind::kLine) current.push_back(view_.currentLine());
    if (e.kind != RunEventKind::kHold) return;
    holds.push_back(view_.holdText());
    if (holds.size() < 3) {
      engine().step();
    } else {
      engine().stop();
    }
  };
  engine().startStepping();
  engine().events().processPendingEvents();
  ASSERT_EQ(holds.size(), 3u);
  EXPECT_EQ(holds[0], "Held before line 1 (single step)");
  EXPECT_EQ(holds[1], "Held before line 1 of /data/other.wts (single step)");
  EXPECT_EQ(current, (std::vector<int32_t>{1, 0, 0}));
  EXPECT_FALSE(view_.line(1).current);

  // Another file prepared: the lines go until the new ones are loaded, and
  // so do the breakpoints on lines of the file before (a condition stays);
  // a file that cannot be read says so.
  Carry(view_.toggle(2));
  std::string error;
  Carry(*SequenceView::Addition("T1 > 80", true, 1, &error));
  engine().prepare("/data/other.wts");
  engine().events().processPendingEvents();
  EXPECT_EQ(view_.lineCount(), 0);
  ASSERT_EQ(breakpoints_->list().size(), 1u);
  EXPECT_EQ(breakpoints_->list()[0].kind, Breakpoint::Kind::kCondition);
  EXPECT_EQ(view_.file(), "/data/other.wts");
  std::vector<std::string> lines{"old"};
  EXPECT_FALSE(SequenceView::ReadLines(files(), "/data/none.wts", lines, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_TRUE(lines.empty());
}

}  // namespace
}  // namespace tavrix
