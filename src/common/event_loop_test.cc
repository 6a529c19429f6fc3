#include "common/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
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

}  // namespace
}  // namespace tavrix
