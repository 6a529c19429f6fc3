// Timing figures on the system clock: how close waits end to their due
// instant and what waiting costs in CPU. Each *_timing.cc file adds its
// measurements to the registry; this program runs them and prints a table.

#include <cstdio>
#include <cstring>

#include "timing.h"

int main(int argc, char** argv) {
  const char* only = argc > 1 ? argv[1] : nullptr;
  std::printf("%-48s %14s\n", "measure (system clock)", "figure");
  for (const auto& m : tavrix::bench::TimingRegistry()) {
    if (only && std::strstr(m.name, only) == nullptr) continue;
    for (const auto& row : m.run()) std::printf("%-48s %14s\n", row.first.c_str(), row.second.c_str());
    std::fflush(stdout);
  }
  return 0;
}
