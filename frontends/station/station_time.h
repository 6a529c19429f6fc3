// One virtual clock for all the test sockets of a station. Each socket's
// engine runs on a stack of its own, but only one of them runs at a time:
// a socket runs until it idles (a wait, a poll of the link, an operator
// question), then the next socket in station order whose wait is over runs.
// When every socket idles, the clock jumps to the earliest instant one of
// them waits for. A wait for something outside the program (a rig server's
// response) keeps the turn. So a dry run of many sockets takes no real time and the
// order of their exchanges with the rig is the same on every run.
//
// run() takes the sockets' turns on the calling thread, each socket on a
// stack of its own that the thread switches to when the turn is the
// socket's: a turn costs a switch of stacks, not a hand-off between threads
// through the system. Where stacks cannot be switched (Windows, and builds
// whose sanitizers must see every stack), each socket runs on a thread of
// its own instead, in the same order.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/clock.h"

namespace tavrix {

class StationTime {
 public:
  // How the sockets start: all at once, taking their first turns in
  // station order (a run of the whole station), or each when it is told to
  // (a window where each socket is started on its own). In the second, a
  // socket that waits for something outside the program (a person's answer,
  // a line held for Step) steps out of the turns until it is answered, so
  // that the sockets the person is not looking at go on.
  enum class Start { kTogether, kOnDemand };
  StationTime(Micros start, size_t sockets, Start how = Start::kTogether);
  ~StationTime();
  StationTime(const StationTime&) = delete;
  StationTime& operator=(const StationTime&) = delete;

  Micros now() const { return now_.load(); }

  // The clock of socket `socket`'s engine. Idle waits on the socket's own
  // thread (the one that called enter()) take turns; on any other thread
  // they behave as a plain virtual clock's.
  std::unique_ptr<Clock> clockFor(size_t socket);
  // A clock that reads the station's time, for what the sockets share (the
  // simulated rig); its idle waits are those of a plain virtual clock.
  std::unique_ptr<Clock> sharedClock();

  // Runs body(socket) for every socket, taking turns, and returns when all
  // have ended.
  void run(const std::function<void(size_t)>& body);
  // Whether run() switches stacks on one thread in this build.
  static bool switchesStacks();

  // The calling thread becomes socket `socket`'s thread and waits for its
  // first turn. Sockets take their first turns in station order. A socket
  // that left comes back this way for its next run.
  void enter(size_t socket);
  // The socket's run is over: it takes no more turns until it enters again.
  void leave(size_t socket);

 private:
  class SocketClock;
  class SharedClock;
  struct Stacks;
  struct Slot {
    enum State { kNew, kRunning, kIdle, kDone } state = kNew;
    Micros due = Clock::kNever;
    bool outside = false;
    const std::function<bool()>* woken = nullptr;
    std::mutex* loopMutex = nullptr;
    // Woken when the turn is the slot's (one each, so that a turn wakes one
    // thread, not all).
    std::condition_variable turn;
  };
  static constexpr size_t kNobody = static_cast<size_t>(-1);

  bool idle(size_t socket, Micros due, std::unique_lock<std::mutex>& loopLock,
            const std::function<bool()>& woken, bool outside);
  // Under mutex_ (held by `lock`): waits until the turn is `socket`'s.
  void awaitTurn(size_t socket, std::unique_lock<std::mutex>& lock);
  // Under mutex_: the turn is now `socket`'s (or nobody's).
  void wake(size_t socket);
  bool onThread(size_t socket) const;
  bool outsideKeepsTurn() const { return outsideKeepsTurn_; }
  // Under mutex_: gives the turn to the next socket that may run, moving
  // the clock on when none may; kNobody when all are done or wait for a
  // person.
  void handOn(size_t from);
  bool ready(Slot& slot) const;
  void advanceTo(Micros t);

  std::atomic<Micros> now_;
  mutable std::mutex mutex_;
  std::vector<Slot> slots_;
  // Each socket's thread while it takes turns.
  std::unique_ptr<std::atomic<std::thread::id>[]> threads_;
  size_t turn_ = 0;
  // With run() on one thread: the sockets' stacks, and the socket whose
  // stack runs now (kNobody: the thread's own).
  std::unique_ptr<Stacks> stacks_;
  std::atomic<size_t> running_{kNobody};
  bool outsideKeepsTurn_ = true;
};

}  // namespace tavrix
