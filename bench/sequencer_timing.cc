// WAITSECONDS on the system clock: the error of a half-second wait (median
// and worst of 20) and the CPU share of a ten-second wait.

#include "bench_support.h"
#include "engine/engine.h"
#include "platform/timer_resolution.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

// Seconds from Run to the end of a one-line sequence.
double TimeRun(const std::string& line) {
  const std::string path = WriteSequence({line});
  QuietOperator op;
  // As a run of tavrix-cli does: fine timers for the run's lifetime.
  const platform::FineTimerResolution timers;
  const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
  Engine& engine = *built;
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  const double start = WallSeconds();
  engine.sequencer().start();
  const double took = WallSeconds() - start;
  std::remove(path.c_str());
  return took;
}

const RegisterTiming kWaitError("waitseconds", [] {
  std::vector<double> errors;
  for (int i = 0; i < 20; ++i) errors.push_back(TimeRun("WAITSECONDS 0.5") - 0.5);
  const auto [median, worst] = MedianAndWorst(errors);
  const double cpu0 = CpuSeconds();
  const double wall = TimeRun("WAITSECONDS 10");
  const double cpu = CpuSeconds() - cpu0;
  return Rows{{"WAITSECONDS 0.5 error, median of 20", Fixed(median * 1000, "ms")},
              {"WAITSECONDS 0.5 error, worst of 20", Fixed(worst * 1000, "ms")},
              {"WAITSECONDS 10 CPU share of one core", Fixed(100 * cpu / wall, "%", 3)}};
});

}  // namespace
}  // namespace tavrix::bench
