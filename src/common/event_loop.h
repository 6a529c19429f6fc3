// The engine's event loop: the one place where "pending events are
// processed". Tasks posted from any thread (run commands, answers, a stop
// signal) and timers run here, on the engine thread, whenever a command lets
// events run. Waiting sleeps until the next timer is due or a task arrives;
// with a virtual clock an idle wait jumps straight to the next due timer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "common/clock.h"

namespace tavrix {

class EventLoop {
 public:
  using Task = std::function<void()>;

  explicit EventLoop(Clock& clock);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  Clock& clock() const { return clock_; }
  Micros now() const { return clock_.now(); }

  // Queues a task to run on the engine thread at the next event processing.
  // Safe from any thread.
  void post(Task task);

  // Runs the tasks posted so far and every timer that is due, each once.
  // A timer never ticks inside its own tick. (The usual turn, with nothing
  // to do, is decided here without a call.)
  void processPendingEvents() {
    if (!idleNow()) processEvents();
  }

  // Whether a turn of processing now would do nothing: no task posted and no
  // timer due.
  bool idleNow() const {
    if (tasksWaiting_.load(std::memory_order_acquire) || !taken_.empty()) return false;
    if (!dueBoundExact_) refreshDueBound();
    return dueBound_ == Clock::kNever || clock_.now() < dueBound_;
  }

  // Processes events until `done()` is true: after each turn of processing
  // it calls `eachTurn` (if any), and then sleeps until the next timer is
  // due or a task is posted. Returns false when the wait can never end (a
  // virtual clock with no timer and nothing outside that could post).
  bool waitUntil(const std::function<bool()>& done, const std::function<void()>& eachTurn = {});

  // While a guard lives, something outside the engine (a person) is expected
  // to post the next task, so a virtual clock does not race ahead.
  class OutsideWait {
   public:
    explicit OutsideWait(EventLoop& loop);
    ~OutsideWait();
    OutsideWait(const OutsideWait&) = delete;
    OutsideWait& operator=(const OutsideWait&) = delete;

   private:
    EventLoop& loop_;
  };

  // Timers. A timer's first tick is one interval after it is enabled; it
  // then ticks every interval. Ticks that fall due while the engine is busy
  // are not piled up: a late timer ticks once and keeps its cadence.
  using TimerId = uint64_t;
  TimerId addTimer(Task tick);
  void removeTimer(TimerId id);
  void setTimerInterval(TimerId id, Micros interval);
  // Enabling (again) restarts the interval from now.
  void setTimerEnabled(TimerId id, bool enabled);
  bool timerEnabled(TimerId id) const;
  // Makes the next tick fall due at `due` (the timer is enabled); later ticks
  // follow every interval from there.
  void setTimerDue(TimerId id, Micros due);

  // Time of the next due timer, or Clock::kNever.
  Micros nextDue() const;

 private:
  struct TimerState {
    Task tick;
    Micros interval = 1000 * 1000;
    Micros due = 0;
    bool enabled = false;
    bool ticking = false;
  };

  void processEvents();
  // Moves the posted tasks to taken_ (which is empty).
  void takeTasks();
  void fireDueTimers();
  // A timer's due instant or its enabled or ticking state is about to change
  // from `before` (kNever: it did not count) to `after`.
  void dueChanging(Micros before, Micros after);
  // Applies `change` to a timer's state and keeps the bound below right.
  template <class Change>
  void changeTimer(TimerId id, Change change);
  // Makes dueBound_ the exact next due instant.
  void refreshDueBound() const;

  Clock& clock_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;
  // Whether tasks_ may hold something: read without the lock, so that a turn
  // with nothing posted takes no lock.
  std::atomic<bool> tasksWaiting_{false};
  // Tasks taken from tasks_ and not run yet (engine thread only). A task
  // that runs a loop of its own (a run started by a task) runs the ones
  // taken with it from there, instead of leaving them until it returns.
  std::deque<Task> taken_;
  int outsideWaits_ = 0;
  std::map<TimerId, std::shared_ptr<TimerState>> timers_;
  TimerId nextTimerId_ = 1;
  // No enabled timer that is not ticking falls due before dueBound_; when
  // dueBoundExact_ one falls due exactly then (kNever: none). A turn with
  // nothing due compares the clock with it instead of looking at every timer,
  // and a virtual wait finds the instant to jump to the same way.
  mutable Micros dueBound_ = Clock::kNever;
  mutable bool dueBoundExact_ = true;
};

// A timer owned by a component, in the manner of a window's timer control:
// an interval, an enabled switch and a tick handler. Removed on destruction.
class Timer {
 public:
  Timer(EventLoop& loop, Micros interval, EventLoop::Task tick);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  void setEnabled(bool enabled) { loop_.setTimerEnabled(id_, enabled); }
  bool enabled() const { return loop_.timerEnabled(id_); }
  void setInterval(Micros interval) { loop_.setTimerInterval(id_, interval); }
  void setDue(Micros due) { loop_.setTimerDue(id_, due); }
  EventLoop& loop() const { return loop_; }

 private:
  EventLoop& loop_;
  EventLoop::TimerId id_;
};

}  // namespace tavrix
