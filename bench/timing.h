// A registry of system-clock measurements for tavrix_timing.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <utility>
#include <vector>

namespace tavrix::bench {

using Rows = std::vector<std::pair<std::string, std::string>>;

struct Timing {
  const char* name;
  std::function<Rows()> run;
};

inline std::vector<Timing>& TimingRegistry() {
  static std::vector<Timing> registry;
  return registry;
}

struct RegisterTiming {
  RegisterTiming(const char* name, std::function<Rows()> run) {
    TimingRegistry().push_back({name, std::move(run)});
  }
};

inline double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec / 1e6;
}

inline double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline std::string Fixed(double value, const char* unit, int decimals = 3) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f %s", decimals, value, unit);
  return buf;
}

// Median and worst of absolute values.
inline std::pair<double, double> MedianAndWorst(std::vector<double> values) {
  for (auto& v : values) v = v < 0 ? -v : v;
  std::sort(values.begin(), values.end());
  return {values[values.size() / 2], values.back()};
}

}  // namespace tavrix::bench
