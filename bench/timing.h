// A registry of system-clock measurements for tavrix_timing.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/process.h"

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

inline double CpuSeconds() { return platform::cpuSeconds(); }

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
