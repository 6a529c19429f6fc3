#include "platform/process.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

namespace tavrix::platform {

std::string hostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

void lowerThisThreadPriority() {
  // On Linux a thread's nice value is its own, set through its thread id.
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 10);
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec / 1e6;
}

long long residentBytes() {
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  long long size = 0, resident = -1;
  if (std::fscanf(statm, "%lld %lld", &size, &resident) != 2) resident = -1;
  std::fclose(statm);
  return resident < 0 ? -1 : resident * ::sysconf(_SC_PAGESIZE);
}

}  // namespace tavrix::platform
