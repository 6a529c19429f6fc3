#include "station_time.h"

#include <chrono>

namespace tavrix {

namespace {
// How often a socket that waits for a person looks again, in real time.
constexpr auto kPersonPoll = std::chrono::milliseconds(5);

// The idle wait of a plain virtual clock on `time`.
template <class Advance>
bool PlainIdle(Micros due, std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               const std::function<bool()>& woken, bool outside, Advance advance) {
  if (woken()) return true;
  if (outside) {
    cv.wait(lock, woken);
    return true;
  }
  if (due == Clock::kNever) return false;
  advance(due);
  return true;
}
}  // namespace

class StationTime::SocketClock final : public Clock {
 public:
  SocketClock(StationTime& time, size_t socket) : time_(time), socket_(socket) {}
  Micros now() const override { return time_.now(); }
  bool isVirtual() const override { return true; }
  bool idleUntil(Micros due, std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                 const std::function<bool()>& woken, bool outside) override {
    // A wait for something outside the program (a rig server's response)
    // keeps the turn, as a plain virtual clock keeps its time: so the order
    // of the sockets' exchanges does not hang on how fast it answers. Not so
    // where the sockets start on demand: there it steps out of the turns.
    if (time_.onThread(socket_) && (!outside || !time_.outsideKeepsTurn()))
      return time_.idle(socket_, due, lock, woken, outside);
    return PlainIdle(due, cv, lock, woken, outside, [this](Micros t) { time_.advanceTo(t); });
  }

 private:
  StationTime& time_;
  size_t socket_;
};

class StationTime::SharedClock final : public Clock {
 public:
  explicit SharedClock(StationTime& time) : time_(time) {}
  Micros now() const override { return time_.now(); }
  bool isVirtual() const override { return true; }
  bool idleUntil(Micros due, std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                 const std::function<bool()>& woken, bool outside) override {
    return PlainIdle(due, cv, lock, woken, outside, [this](Micros t) { time_.advanceTo(t); });
  }

 private:
  StationTime& time_;
};

StationTime::StationTime(Micros start, size_t sockets, Start how)
    : now_(start),
      slots_(sockets),
      threads_(std::make_unique<std::atomic<std::thread::id>[]>(sockets)) {
  if (how == Start::kOnDemand) {
    for (Slot& slot : slots_) slot.state = Slot::kDone;
    turn_ = kNobody;
    outsideKeepsTurn_ = false;
  }
}

std::unique_ptr<Clock> StationTime::clockFor(size_t socket) {
  return std::make_unique<SocketClock>(*this, socket);
}

std::unique_ptr<Clock> StationTime::sharedClock() { return std::make_unique<SharedClock>(*this); }

void StationTime::advanceTo(Micros t) {
  Micros current = now_.load();
  while (t > current && !now_.compare_exchange_weak(current, t)) {
  }
}

bool StationTime::onThread(size_t socket) const {
  return threads_[socket].load() == std::this_thread::get_id();
}

void StationTime::enter(size_t socket) {
  std::unique_lock lock(mutex_);
  threads_[socket].store(std::this_thread::get_id());
  Slot& slot = slots_[socket];
  if (slot.state == Slot::kDone) {
    // Back for another run: it takes its turn after those who wait for one.
    slot.state = Slot::kNew;
    if (turn_ == kNobody) handOn(socket);
  }
  slot.turn.wait(lock, [&] { return turn_ == socket; });
  slot.state = Slot::kRunning;
}

void StationTime::leave(size_t socket) {
  threads_[socket].store(std::thread::id());
  std::lock_guard guard(mutex_);
  slots_[socket].state = Slot::kDone;
  if (turn_ == socket) handOn(socket);
}

bool StationTime::ready(Slot& slot) const {
  if (slot.state == Slot::kNew) return true;
  if (slot.state != Slot::kIdle) return false;
  if (slot.due <= now_.load() && !slot.outside) return true;
  // Work posted from outside (a stop request, an answer) ends the wait.
  std::lock_guard guard(*slot.loopMutex);
  return (*slot.woken)();
}

void StationTime::handOn(size_t from) {
  const size_t n = slots_.size();
  for (;;) {
    for (size_t k = 1; k <= n; ++k) {
      const size_t j = (from + k) % n;
      if (ready(slots_[j])) {
        turn_ = j;
        slots_[j].turn.notify_one();
        return;
      }
    }
    Micros next = Clock::kNever;
    for (const Slot& slot : slots_) {
      if (slot.state == Slot::kIdle && !slot.outside && slot.due < next) next = slot.due;
    }
    if (next == Clock::kNever) {
      // Every socket is done or waits for a person: whoever waits looks
      // again now and then.
      turn_ = kNobody;
      for (Slot& slot : slots_) slot.turn.notify_one();
      return;
    }
    advanceTo(next);
  }
}

bool StationTime::idle(size_t socket, Micros due, std::unique_lock<std::mutex>& loopLock,
                       const std::function<bool()>& woken, bool outside) {
  if (woken()) return true;
  // Nothing can end this wait: as on a plain virtual clock, say so at once.
  if (due == Clock::kNever && !outside) return false;
  // A wait that is over already keeps the turn.
  if (due <= now_.load() && !outside) return true;
  std::mutex* loopMutex = loopLock.mutex();
  loopLock.unlock();
  {
    std::unique_lock lock(mutex_);
    Slot& slot = slots_[socket];
    slot.state = Slot::kIdle;
    slot.due = due;
    slot.outside = outside;
    slot.woken = &woken;
    slot.loopMutex = loopMutex;
    handOn(socket);
    while (turn_ != socket) {
      if (turn_ == kNobody) {
        slot.turn.wait_for(lock, kPersonPoll);
        if (turn_ == kNobody) handOn(socket);
      } else {
        slot.turn.wait(lock);
      }
    }
    slot.state = Slot::kRunning;
    slot.woken = nullptr;
  }
  loopLock.lock();
  return true;
}

}  // namespace tavrix
