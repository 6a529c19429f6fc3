#include "common/event_loop.h"

#include <algorithm>
#include <vector>

namespace tavrix {

EventLoop::EventLoop(Clock& clock) : clock_(clock) {}

void EventLoop::post(Task task) {
  // Notified under the lock: the task may be the loop's last (an answer
  // that ends the run), after which its owner may destroy the loop as soon
  // as it has the lock, so nothing here may touch the loop after letting go.
  std::lock_guard<std::mutex> lock(mutex_);
  tasks_.push_back(std::move(task));
  tasksWaiting_.store(true, std::memory_order_release);
  cv_.notify_all();
}

void EventLoop::takeTasks() {
  std::lock_guard<std::mutex> lock(mutex_);
  taken_.swap(tasks_);
  tasksWaiting_.store(false, std::memory_order_relaxed);
}

void EventLoop::processEvents() {
  // The tasks posted so far, one at a time; those posted meanwhile wait for
  // the next turn.
  if (taken_.empty() && tasksWaiting_.load(std::memory_order_acquire)) takeTasks();
  while (!taken_.empty()) {
    Task task = std::move(taken_.front());
    taken_.pop_front();
    task();
  }
  // Without a timer due there is no reason to read the clock. A timer that
  // moved away may have made the bound: it is found again once.
  if (!dueBoundExact_) refreshDueBound();
  if (dueBound_ != Clock::kNever && clock_.now() >= dueBound_) fireDueTimers();
}

namespace {

// A timer's due instant as far as the next due instant goes: kNever while it
// is disabled or ticking.
Micros counted(bool enabled, bool ticking, Micros due) {
  return enabled && !ticking ? due : Clock::kNever;
}

}  // namespace

void EventLoop::dueChanging(Micros before, Micros after) {
  if (after < dueBound_) {
    // Earlier than every other timer: exactly the next due instant.
    dueBound_ = after;
    dueBoundExact_ = true;
    return;
  }
  // The timer that made the bound may be the one that moves away.
  if (before != Clock::kNever && before <= dueBound_) dueBoundExact_ = false;
}

void EventLoop::refreshDueBound() const {
  Micros next = Clock::kNever;
  for (const auto& [id, timer] : timers_) {
    if (timer->enabled && !timer->ticking) next = std::min(next, timer->due);
  }
  dueBound_ = next;
  dueBoundExact_ = true;
}

void EventLoop::fireDueTimers() {
  const Micros now = clock_.now();
  // Collect first: a tick may add, remove or re-arm timers.
  std::vector<std::shared_ptr<TimerState>> due;
  for (auto& [id, timer] : timers_) {
    if (timer->enabled && !timer->ticking && timer->due <= now) due.push_back(timer);
  }
  if (due.empty()) {
    refreshDueBound();
    return;
  }
  // Timers due at the same instant tick in the order they were made, so
  // runs repeat exactly.
  std::stable_sort(due.begin(), due.end(),
                   [](const auto& a, const auto& b) { return a->due < b->due; });
  for (auto& timer : due) {
    if (!timer->enabled || timer->ticking || timer->due > now) continue;
    // Keep the cadence; skip whole intervals that were missed.
    const Micros interval = std::max<Micros>(timer->interval, 1);
    Micros next = timer->due + interval;
    if (next <= now) next += ((now - next) / interval + 1) * interval;
    // While it ticks the timer does not count for the next due instant.
    dueChanging(timer->due, Clock::kNever);
    timer->due = next;
    timer->ticking = true;
    timer->tick();
    timer->ticking = false;
    dueChanging(Clock::kNever, counted(timer->enabled, false, timer->due));
  }
  refreshDueBound();
}

Micros EventLoop::nextDue() const {
  if (!dueBoundExact_) refreshDueBound();
  return dueBound_;
}

bool EventLoop::waitUntil(const std::function<bool()>& done,
                          const std::function<void()>& eachTurn) {
  for (;;) {
    processPendingEvents();
    if (done()) return true;
    if (eachTurn) {
      eachTurn();
      if (done()) return true;
    }
    const Micros due = nextDue();
    std::unique_lock<std::mutex> lock(mutex_);
    if (!tasks_.empty() || !taken_.empty()) continue;
    const bool outside = outsideWaits_ > 0;
    // The end of the last outside wait also ends the idle wait, so that a
    // virtual clock can move on to the next timer.
    const auto woken = [this, outside] {
      return !tasks_.empty() || (outsideWaits_ > 0) != outside;
    };
    if (!clock_.idleUntil(due, cv_, lock, woken, outside)) return false;
  }
}

EventLoop::OutsideWait::OutsideWait(EventLoop& loop) : loop_(loop) {
  std::lock_guard<std::mutex> lock(loop_.mutex_);
  ++loop_.outsideWaits_;
}

EventLoop::OutsideWait::~OutsideWait() {
  {
    std::lock_guard<std::mutex> lock(loop_.mutex_);
    --loop_.outsideWaits_;
  }
  loop_.cv_.notify_all();
}

EventLoop::TimerId EventLoop::addTimer(Task tick) {
  auto state = std::make_shared<TimerState>();
  state->tick = std::move(tick);
  const TimerId id = nextTimerId_++;
  timers_.emplace(id, std::move(state));
  return id;
}

void EventLoop::removeTimer(TimerId id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  TimerState& timer = *it->second;
  dueChanging(counted(timer.enabled, timer.ticking, timer.due), Clock::kNever);
  // A tick in progress may still hold the state among the due timers; it
  // must not tick once its owner is gone.
  timer.enabled = false;
  timers_.erase(it);
}

template <class Change>
void EventLoop::changeTimer(TimerId id, Change change) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  TimerState& timer = *it->second;
  const Micros before = counted(timer.enabled, timer.ticking, timer.due);
  change(timer);
  dueChanging(before, counted(timer.enabled, timer.ticking, timer.due));
}

void EventLoop::setTimerInterval(TimerId id, Micros interval) {
  changeTimer(id, [&](TimerState& timer) {
    timer.interval = interval;
    if (timer.enabled) timer.due = clock_.now() + interval;
  });
}

void EventLoop::setTimerEnabled(TimerId id, bool enabled) {
  changeTimer(id, [&](TimerState& timer) {
    if (enabled && !timer.enabled) timer.due = clock_.now() + timer.interval;
    timer.enabled = enabled;
  });
}

bool EventLoop::timerEnabled(TimerId id) const {
  auto it = timers_.find(id);
  return it != timers_.end() && it->second->enabled;
}

void EventLoop::setTimerDue(TimerId id, Micros due) {
  changeTimer(id, [&](TimerState& timer) {
    timer.enabled = true;
    timer.due = due;
  });
}

Timer::Timer(EventLoop& loop, Micros interval, EventLoop::Task tick)
    : loop_(loop), id_(loop.addTimer(std::move(tick))) {
  loop_.setTimerInterval(id_, interval);
}

Timer::~Timer() { loop_.removeTimer(id_); }

}  // namespace tavrix
