// The single door to the time of day. Abstract so that runs and tests can use
// a virtual clock that moves only when the engine waits. The real
// implementation is SystemClock.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "common/civil_time.h"

namespace tavrix {

class Clock {
 public:
  virtual ~Clock() = default;

  // Local date and time now, in microseconds (see civil_time.h). Never goes
  // backwards within a run.
  virtual Micros now() const = 0;

  // Millisecond counter for fine timing, following now().
  int64_t milliseconds() const { return now() / 1000; }

  virtual bool isVirtual() const = 0;

  // Idles the calling thread until `due`, or until `woken()` is true after a
  // notification of `cv`. The caller holds `lock`, which protects what
  // `woken` reads. `outsideMayWake` tells that another thread (a person at a
  // terminal, a window) is expected to post work. A virtual clock jumps
  // straight to `due` instead of sleeping, unless the outside may wake it.
  // Returns false only when there is nothing to wait for: `due` is kNever on
  // a virtual clock that nothing outside can wake.
  virtual bool idleUntil(Micros due, std::condition_variable& cv,
                         std::unique_lock<std::mutex>& lock, const std::function<bool()>& woken,
                         bool outsideMayWake) = 0;

  static constexpr Micros kNever = INT64_MAX;
};

// The machine's clock. Anchored to the wall clock once and then driven by the
// steady clock, so a change of the system time does not disturb timers.
class SystemClock final : public Clock {
 public:
  SystemClock();
  Micros now() const override;
  bool isVirtual() const override { return false; }
  bool idleUntil(Micros due, std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                 const std::function<bool()>& woken, bool outsideMayWake) override;

 private:
  Micros anchor_;
  std::chrono::steady_clock::time_point steadyAnchor_;
};

// A clock that moves only when the engine idles: an idle wait jumps to the
// next due timer. While a person is being asked something, an idle wait
// sleeps for real until it is woken, so time does not race ahead.
class VirtualClock final : public Clock {
 public:
  explicit VirtualClock(Micros start);
  Micros now() const override { return now_.load(); }
  bool isVirtual() const override { return true; }
  bool idleUntil(Micros due, std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                 const std::function<bool()>& woken, bool outsideMayWake) override;

  // Moves the clock forward (never back).
  void advanceTo(Micros t);
  void advanceBy(Micros d) { advanceTo(now() + d); }

 private:
  std::atomic<Micros> now_;
};

}  // namespace tavrix
