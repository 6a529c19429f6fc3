#include "platform/process.h"

#include <windows.h>
// after windows.h, which it needs
#include <psapi.h>

#include <cstdint>

#include "platform/windows/wide.h"

namespace tavrix::platform {

std::string hostName() {
  wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
  if (!GetComputerNameW(name, &size)) return {};
  return narrow(std::wstring(name, size));
}

void lowerThisThreadPriority() {
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
}

double cpuSeconds() {
  FILETIME created{}, ended{}, kernel{}, user{};
  if (!GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user)) return 0;
  auto seconds = [](const FILETIME& t) {
    return static_cast<double>((static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) /
           1e7;
  };
  return seconds(kernel) + seconds(user);
}

long long residentBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return -1;
  return static_cast<long long>(counters.WorkingSetSize);
}

}  // namespace tavrix::platform
