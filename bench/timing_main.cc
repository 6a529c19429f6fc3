// Timing figures on the system clock: how close waits end to their due
// instant and what waiting costs in CPU. Each *_timing.cc file adds its
// measurements to the registry; this program runs them and prints a table,
// or with --tsv one "measure TAB figure" line each (bench/run's input).
//   tavrix_timing [--tsv] [NAME-PART]

#include <cstdio>
#include <cstring>

#include "timing.h"

int main(int argc, char** argv) {
  bool tsv = false;
  const char* only = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--tsv") == 0) {
      tsv = true;
    } else {
      only = argv[i];
    }
  }
  if (!tsv) std::printf("%-48s %14s\n", "measure (system clock)", "figure");
  for (const auto& m : tavrix::bench::TimingRegistry()) {
    if (only && std::strstr(m.name, only) == nullptr) continue;
    for (const auto& row : m.run()) {
      if (tsv) {
        std::printf("%s\t%s\n", row.first.c_str(), row.second.c_str());
      } else {
        std::printf("%-48s %14s\n", row.first.c_str(), row.second.c_str());
      }
    }
    std::fflush(stdout);
  }
  return 0;
}
