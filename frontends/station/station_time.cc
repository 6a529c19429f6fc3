#include "station_time.h"

#include <chrono>
#include <cstdint>

#include "common/file_system.h"

// Stacks are switched with the system's user contexts where there are
// some; sanitizers that track each stack see none of the switches, so
// their builds use threads.
#include "common/sanitizers.h"
#if defined(TAVRIX_ASAN) || defined(TAVRIX_TSAN) || defined(_WIN32)
#define TAVRIX_STATION_THREADS 1
#endif
#ifndef TAVRIX_STATION_THREADS
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdlib>
#endif

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

#ifndef TAVRIX_STATION_THREADS
struct StationTime::Stacks {
  // As much as a thread gets by default; only what is used is backed by
  // memory, and a guard page below each stack stops an overflow.
  static constexpr size_t kStackBytes = size_t{8} << 20;
  struct Stack {
    ucontext_t context;
    void* memory = nullptr;
    size_t bytes = 0;
  };
  ucontext_t home;
  std::vector<Stack> stacks;
  StationTime* time = nullptr;
  const std::function<void(size_t)>* body = nullptr;

  explicit Stacks(size_t count) : stacks(count) {}
  ~Stacks() {
    for (Stack& stack : stacks)
      if (stack.memory != nullptr) munmap(stack.memory, stack.bytes);
  }
  // The entry of socket `socket`'s stack (its number in two halves, as
  // makecontext passes ints).
  static void entry(unsigned self, unsigned selfHigh, unsigned socket) {
    Stacks& me = *reinterpret_cast<Stacks*>((static_cast<uintptr_t>(selfHigh) << 32) | self);
    me.time->enter(socket);
    (*me.body)(socket);
    me.time->leave(socket);
    // Returning goes back to the thread's own stack (uc_link).
  }
};
#else
struct StationTime::Stacks {};
#endif

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

StationTime::~StationTime() = default;

bool StationTime::switchesStacks() {
#ifndef TAVRIX_STATION_THREADS
  return true;
#else
  return false;
#endif
}

void StationTime::run(const std::function<void(size_t)>& body) {
  const size_t n = slots_.size();
  const auto onThreads = [&] {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < n; ++i) {
      threads.emplace_back([&, i] {
        enter(i);
        body(i);
        leave(i);
      });
    }
    for (auto& thread : threads) thread.join();
  };
#ifdef TAVRIX_STATION_THREADS
  onThreads();
#else
  auto stacks = std::make_unique<Stacks>(n);
  stacks->time = this;
  stacks->body = &body;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  for (size_t i = 0; i < n; ++i) {
    Stacks::Stack& stack = stacks->stacks[i];
    stack.bytes = Stacks::kStackBytes + page;
    void* memory = mmap(nullptr, stack.bytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED || getcontext(&stack.context) != 0) {
      // No memory for the stacks: threads do the same work.
      if (memory != MAP_FAILED) munmap(memory, stack.bytes);
      stacks.reset();
      onThreads();
      return;
    }
    stack.memory = memory;
    mprotect(memory, page, PROT_NONE);
    stack.context.uc_stack.ss_sp = static_cast<char*>(memory) + page;
    stack.context.uc_stack.ss_size = Stacks::kStackBytes;
    stack.context.uc_link = &stacks->home;
    const auto self = reinterpret_cast<uintptr_t>(stacks.get());
    makecontext(&stack.context, reinterpret_cast<void (*)()>(&Stacks::entry), 3,
                static_cast<unsigned>(self & 0xffffffffu), static_cast<unsigned>(self >> 32),
                static_cast<unsigned>(i));
  }
  stacks_ = std::move(stacks);
  size_t last = 0;
  std::unique_lock lock(mutex_);
  for (;;) {
    bool allDone = true;
    for (const Slot& slot : slots_) allDone = allDone && slot.state == Slot::kDone;
    if (allDone) break;
    if (turn_ == kNobody) {
      // Every socket is done or waits for a person: look again now and then.
      lock.unlock();
      std::this_thread::sleep_for(kPersonPoll);
      lock.lock();
      if (turn_ == kNobody) handOn(last);
      continue;
    }
    last = turn_;
    lock.unlock();
    running_ = last;
    SetFolderLockStack(&stacks_->stacks[last]);
    swapcontext(&stacks_->home, &stacks_->stacks[last].context);
    SetFolderLockStack(nullptr);
    running_ = kNobody;
    lock.lock();
  }
  lock.unlock();
  stacks_.reset();
#endif
}

void StationTime::awaitTurn(size_t socket, std::unique_lock<std::mutex>& lock) {
#ifndef TAVRIX_STATION_THREADS
  if (stacks_) {
    // Back to the thread's own stack, which runs whoever's turn it is.
    while (turn_ != socket) {
      lock.unlock();
      swapcontext(&stacks_->stacks[socket].context, &stacks_->home);
      lock.lock();
    }
    return;
  }
#endif
  Slot& slot = slots_[socket];
  while (turn_ != socket) {
    if (turn_ == kNobody) {
      slot.turn.wait_for(lock, kPersonPoll);
      if (turn_ == kNobody) handOn(socket);
    } else {
      slot.turn.wait(lock);
    }
  }
}

void StationTime::wake(size_t socket) {
  // Run on one thread, the thread's own stack looks at whose turn it is.
  if (stacks_) return;
  if (socket != kNobody) {
    slots_[socket].turn.notify_one();
    return;
  }
  for (Slot& slot : slots_) slot.turn.notify_one();
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
  return threads_[socket].load() == std::this_thread::get_id() &&
         (!stacks_ || running_.load() == socket);
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
  awaitTurn(socket, lock);
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
        wake(j);
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
      wake(kNobody);
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
    awaitTurn(socket, lock);
    slot.state = Slot::kRunning;
    slot.woken = nullptr;
  }
  loopLock.lock();
  return true;
}

}  // namespace tavrix
