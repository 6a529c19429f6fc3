#include "platform/timer_resolution.h"

#include <windows.h>
// After windows.h, which it needs.
#include <mmsystem.h>

#include <thread>

// Newer headers name it; the flag is the same on every Windows that has it.
#ifndef CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
#define CREATE_WAITABLE_TIMER_HIGH_RESOLUTION 0x00000002
#endif

namespace tavrix::platform {

std::chrono::microseconds coarseWaitMargin() { return std::chrono::microseconds(3000); }

void sleepPrecisely(std::chrono::microseconds duration) {
  if (duration.count() <= 0) return;
  // A high-resolution timer where the system has one (Windows 10 1803 on),
  // else an ordinary one, which the run's 1 ms timer resolution sharpens.
  HANDLE timer = CreateWaitableTimerExW(nullptr, nullptr, CREATE_WAITABLE_TIMER_HIGH_RESOLUTION,
                                        TIMER_ALL_ACCESS);
  if (timer == nullptr) timer = CreateWaitableTimerExW(nullptr, nullptr, 0, TIMER_ALL_ACCESS);
  LARGE_INTEGER due;
  due.QuadPart = -static_cast<LONGLONG>(duration.count()) * 10;  // relative, 100 ns units
  if (timer != nullptr && SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE)) {
    WaitForSingleObject(timer, INFINITE);
  } else {
    std::this_thread::sleep_for(duration);
  }
  if (timer != nullptr) CloseHandle(timer);
}

FineTimerResolution::FineTimerResolution() : raised_(timeBeginPeriod(1) == TIMERR_NOERROR) {}

FineTimerResolution::~FineTimerResolution() {
  if (raised_) timeEndPeriod(1);
}

}  // namespace tavrix::platform
