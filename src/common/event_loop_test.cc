#include "common/event_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace tavrix {
namespace {

constexpr Micros kSecond = kMicrosPerSecond;
const Micros kStart = fromCivil(CivilTime{2024, 6, 3, 8, 0, 0, 0});

TEST(EventLoop, TimersTickAtTheirInstantsInVirtualTime) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  std::vector<Micros> ticks;
  Timer timer(loop, kSecond, [&] { ticks.push_back(clock.now() - kStart); });
  EXPECT_FALSE(timer.enabled());
  timer.setEnabled(true);
  ASSERT_TRUE(loop.waitUntil([&] { return ticks.size() == 3; }));
  EXPECT_EQ(ticks, (std::vector<Micros>{kSecond, 2 * kSecond, 3 * kSecond}));

  // Enabling again restarts the interval from now.
  clock.advanceBy(kSecond / 2);
  timer.setEnabled(false);
  timer.setEnabled(true);
  ASSERT_TRUE(loop.waitUntil([&] { return ticks.size() == 4; }));
  EXPECT_EQ(ticks.back(), 4 * kSecond + kSecond / 2);

  // A new interval also counts from now; setDue moves just the next tick.
  timer.setInterval(2 * kSecond);
  ASSERT_TRUE(loop.waitUntil([&] { return ticks.size() == 5; }));
  EXPECT_EQ(ticks.back(), 6 * kSecond + kSecond / 2);
  timer.setDue(kStart + 10 * kSecond);
  ASSERT_TRUE(loop.waitUntil([&] { return ticks.size() == 7; }));
  EXPECT_EQ(ticks[5], 10 * kSecond);
  EXPECT_EQ(ticks[6], 12 * kSecond);
}

TEST(EventLoop, ALateTimerTicksOnceAndKeepsItsCadence) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  std::vector<Micros> ticks;
  Timer timer(loop, kSecond, [&] { ticks.push_back(clock.now() - kStart); });
  timer.setEnabled(true);

  clock.advanceBy(3 * kSecond + kSecond / 2);  // the engine was busy
  loop.processPendingEvents();
  loop.processPendingEvents();
  EXPECT_EQ(ticks, (std::vector<Micros>{3 * kSecond + kSecond / 2}));
  EXPECT_EQ(loop.nextDue(), kStart + 4 * kSecond);

  // Late by exactly whole intervals: the next tick is still in the future.
  clock.advanceTo(kStart + 6 * kSecond);
  loop.processPendingEvents();
  EXPECT_EQ(ticks.size(), 2u);
  EXPECT_EQ(loop.nextDue(), kStart + 7 * kSecond);
}

TEST(EventLoop, AVirtualWaitJumpsToTheNextDueTimer) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  bool hourPassed = false;
  Timer hour(loop, 3600 * kSecond, [&] { hourPassed = true; });
  hour.setEnabled(true);
  int turns = 0;
  ASSERT_TRUE(loop.waitUntil([&] { return hourPassed; }, [&] { ++turns; }));
  EXPECT_EQ(clock.now(), kStart + 3600 * kSecond);
  EXPECT_EQ(turns, 1);

  // Posted tasks run before the clock moves on.
  bool ran = false;
  loop.post([&] { ran = true; });
  ASSERT_TRUE(loop.waitUntil([&] { return ran; }));
  EXPECT_EQ(clock.now(), kStart + 3600 * kSecond);
}

TEST(EventLoop, AVirtualWaitThatCanNeverEndReturnsFalse) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  EXPECT_FALSE(loop.waitUntil([] { return false; }));
  EXPECT_EQ(clock.now(), kStart);

  Timer disabled(loop, kSecond, [] {});
  EXPECT_FALSE(loop.waitUntil([] { return false; }));

  // A timer that switches itself off after two ticks: the wait ends when
  // nothing is left to happen, with the clock at the last tick.
  int ticks = 0;
  std::unique_ptr<Timer> twice;
  twice = std::make_unique<Timer>(loop, kSecond, [&] {
    if (++ticks == 2) twice->setEnabled(false);
  });
  twice->setEnabled(true);
  EXPECT_FALSE(loop.waitUntil([] { return false; }));
  EXPECT_EQ(ticks, 2);
  EXPECT_EQ(clock.now(), kStart + 2 * kSecond);
}

TEST(EventLoop, ATaskPostedFromAnotherThreadWakesARealWait) {
  SystemClock clock;
  EventLoop loop(clock);
  std::atomic<bool> answered = false;
  std::thread person;
  // No timer at all: only the posted task can end the wait.
  const bool ended = loop.waitUntil([&] { return answered.load(); },
                                    [&] {
                                      if (person.joinable()) return;
                                      person =
                                          std::thread([&] { loop.post([&] { answered = true; }); });
                                    });
  person.join();
  EXPECT_TRUE(ended);
  EXPECT_TRUE(answered);
}

// Tasks posted together run one at a time: when the first starts a loop of
// its own (the window's Run starts a run inside a task, and the run waits),
// the others run from that loop rather than after the whole run. Tasks
// posted meanwhile still wait for the next turn.
TEST(EventLoop, TasksPostedBehindATaskThatRunsALoopOfItsOwnRunFromThatLoop) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  std::vector<std::string> ran;
  bool sampled = false;
  bool runSawTheSample = false;
  loop.post([&] {
    ran.push_back("run");
    // A minute's wait of the run: the sample posted behind it is taken in it.
    bool due = false;
    Timer minute(loop, 60 * kSecond, [&] { due = true; });
    minute.setEnabled(true);
    loop.waitUntil([&] { return due; });
    runSawTheSample = sampled;
    ran.push_back("run ends");
  });
  loop.post([&] {
    ran.push_back("sample");
    sampled = true;
    loop.post([&] { ran.push_back("next turn"); });
  });
  loop.processPendingEvents();
  EXPECT_TRUE(runSawTheSample);
  EXPECT_EQ(ran, (std::vector<std::string>{"run", "sample", "next turn", "run ends"}));
  EXPECT_EQ(clock.now(), kStart + 60 * kSecond);
}

TEST(EventLoop, WhileSomeoneOutsideMayAnswerVirtualTimeStandsStill) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  int hourTicks = 0;
  Timer hour(loop, 3600 * kSecond, [&] { ++hourTicks; });
  hour.setEnabled(true);

  bool answered = false;
  std::thread person;
  {
    EventLoop::OutsideWait asking(loop);
    ASSERT_TRUE(loop.waitUntil([&] { return answered; },
                               [&] {
                                 if (!person.joinable())
                                   person =
                                       std::thread([&] { loop.post([&] { answered = true; }); });
                               }));
  }
  person.join();
  EXPECT_EQ(clock.now(), kStart);
  EXPECT_EQ(hourTicks, 0);

  // When the person goes away without answering, the wait goes on in
  // virtual time.
  auto asking = std::make_unique<EventLoop::OutsideWait>(loop);
  ASSERT_TRUE(loop.waitUntil([&] { return hourTicks == 1; },
                             [&] {
                               if (!person.joinable())
                                 person = std::thread([&] { asking.reset(); });
                             }));
  person.join();
  EXPECT_EQ(clock.now(), kStart + 3600 * kSecond);
}

TEST(EventLoop, ATimerNeverTicksInsideItsOwnTick) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  int depth = 0;
  int deepest = 0;
  int ticks = 0;
  int otherTicksInside = 0;
  Timer other(loop, kSecond / 2, [&] { otherTicksInside += depth; });
  Timer slow(loop, kSecond, [&] {
    ++ticks;
    deepest = std::max(deepest, ++depth);
    // The tick takes long and lets events run meanwhile.
    clock.advanceBy(5 * kSecond);
    loop.processPendingEvents();
    --depth;
  });
  slow.setEnabled(true);
  other.setEnabled(true);
  ASSERT_TRUE(loop.waitUntil([&] { return ticks == 3; }));
  EXPECT_EQ(deepest, 1);
  // The other timer, late too, ticked once inside each of the slow ticks.
  EXPECT_EQ(otherTicksInside, 3);

  // A tick that waits can be ended only by another timer: with none, the
  // nested wait cannot end.
  other.setEnabled(false);
  bool nestedEnded = true;
  Timer waiting(loop, kSecond, [&] { nestedEnded = loop.waitUntil([] { return false; }); });
  slow.setEnabled(false);
  waiting.setEnabled(true);
  loop.waitUntil([&] { return !nestedEnded; });
  EXPECT_FALSE(nestedEnded);
}

TEST(EventLoop, TimersDueTogetherTickInTheOrderTheyWereMade) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  std::vector<int> order;
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < 40; ++i) {
    timers.push_back(std::make_unique<Timer>(loop, kSecond, [&order, i] { order.push_back(i); }));
    timers.back()->setEnabled(true);
  }
  clock.advanceBy(kSecond);
  loop.processPendingEvents();
  std::vector<int> creation(40);
  for (int i = 0; i < 40; ++i) creation[i] = i;
  EXPECT_EQ(order, creation);
}

TEST(EventLoop, ATimerRemovedByAnotherTickDoesNotTick) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  int ticks = 0;
  std::unique_ptr<Timer> first;
  std::unique_ptr<Timer> second;
  first = std::make_unique<Timer>(loop, kSecond, [&] {
    ++ticks;
    second.reset();
  });
  second = std::make_unique<Timer>(loop, kSecond, [&] {
    ++ticks;
    first.reset();
  });
  first->setEnabled(true);
  second->setEnabled(true);
  clock.advanceBy(kSecond);
  loop.processPendingEvents();
  EXPECT_EQ(ticks, 1);
}

// A turn with nothing due only compares the clock with the next due instant,
// which every change of a timer must keep right: a random run of changes and
// turns against a plain model of the timers.
TEST(EventLoop, TheNextDueInstantFollowsEveryChangeOfTheTimers) {
  VirtualClock clock(kStart);
  EventLoop loop(clock);
  struct Model {
    bool enabled = false;
    Micros interval = kSecond;
    Micros due = 0;
    int made = 0;  // timers due together tick in the order they were made
  };
  constexpr int kTimers = 6;
  int madeSoFar = 0;
  std::vector<Model> model(kTimers);
  std::vector<std::unique_ptr<Timer>> timers(kTimers);
  std::vector<int> ticked;
  auto make = [&](int i) {
    timers[i] =
        std::make_unique<Timer>(loop, model[i].interval, [&ticked, i] { ticked.push_back(i); });
    model[i].enabled = false;
    model[i].made = ++madeSoFar;
  };
  for (int i = 0; i < kTimers; ++i) make(i);
  uint64_t state = 99;
  auto next = [&state](uint64_t n) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return (state >> 33) % n;
  };
  for (int step = 0; step < 20000; ++step) {
    const int i = static_cast<int>(next(kTimers));
    Model& m = model[i];
    const Micros now = clock.now();
    switch (next(7)) {
      case 0:
        timers[i]->setEnabled(true);
        if (!m.enabled) m.due = now + m.interval;
        m.enabled = true;
        break;
      case 1:
        timers[i]->setEnabled(false);
        m.enabled = false;
        break;
      case 2:
        m.interval = static_cast<Micros>(1 + next(3 * kSecond));
        timers[i]->setInterval(m.interval);
        if (m.enabled) m.due = now + m.interval;
        break;
      case 3:
        m.due = now + static_cast<Micros>(next(2 * kSecond)) - kSecond / 2;
        m.enabled = true;
        timers[i]->setDue(m.due);
        break;
      case 4:
        timers[i].reset();
        m = Model{};
        make(i);
        break;
      default: {
        clock.advanceBy(static_cast<Micros>(next(kSecond)));
        const Micros at = clock.now();
        std::vector<std::tuple<Micros, int, int>> due;
        for (int t = 0; t < kTimers; ++t) {
          if (model[t].enabled && model[t].due <= at)
            due.push_back({model[t].due, model[t].made, t});
        }
        std::sort(due.begin(), due.end());
        std::vector<int> expected;
        for (const auto& [when, made, t] : due) {
          expected.push_back(t);
          Micros n = model[t].due + model[t].interval;
          if (n <= at) n += ((at - n) / model[t].interval + 1) * model[t].interval;
          model[t].due = n;
        }
        ticked.clear();
        loop.processPendingEvents();
        ASSERT_EQ(ticked, expected) << "step " << step;
      }
    }
    Micros soonest = Clock::kNever;
    for (const Model& t : model) {
      if (t.enabled) soonest = std::min(soonest, t.due);
    }
    ASSERT_EQ(loop.nextDue(), soonest) << "step " << step;
  }

  // A tick that brings another timer forward: a turn inside the tick runs it.
  int laterTicks = 0;
  Timer brought(loop, 10 * kSecond, [&] { ++laterTicks; });
  brought.setEnabled(true);
  Timer bringer(loop, kSecond, [&] {
    brought.setDue(clock.now());
    loop.processPendingEvents();
  });
  for (auto& t : timers) t.reset();
  bringer.setEnabled(true);
  clock.advanceBy(kSecond);
  loop.processPendingEvents();
  EXPECT_EQ(laterTicks, 1);
}

}  // namespace
}  // namespace tavrix
