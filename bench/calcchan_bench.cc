// The calculated channels' speed on the in-process simulated rig: one
// evaluation pass over a 1,000-row table (goal: at most 0.3 ms), and the real
// time of a whole simulated day (86,400 ticks) and a simulated week of a
// 50-row table on the virtual clock (goal for the week: under 10 s).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "bench_support.h"
#include "common/file_system.h"
#include "engine/engine.h"
#include "instrument/simrig/sim_link.h"

namespace tavrix::bench {
namespace {

// A rig with `rows` source channels on device 1 and `rows` result channels on
// device 2, and a setup whose rows cycle through the types that read and
// write on every pass.
struct CalcRig {
  std::string rigPath;
  std::string setupPath;

  explicit CalcRig(int rows) {
    char rigName[] = "/tmp/tavrixcalcrigXXXXXX";
    close(mkstemp(rigName));
    rigPath = rigName;
    std::ofstream rig(rigPath, std::ios::binary);
    char line[96];
    for (int i = 1; i <= rows; ++i) {
      std::snprintf(line, sizeof line, "  1%04d E=1 M=A N=S%d V=%d JITTER=0.5\n", i, i,
                    10 + i % 50);
      rig << line;
      std::snprintf(line, sizeof line, "  2%04d E=1 M=A N=R%d\n", i, i);
      rig << line;
    }
    rig << "  30001 E=1 N=BE_O2 V=12\n";
    rig.close();

    static const char* const kRows[] = {
        "SCALE|2|1", "REFER STP|20|", "HI ALARM|30|", "LO ALARM|20|",  "DAILY||",
        "MINIMUM||", "AVERAGE|1|",    "REFER|0|",     "HI SWITCH|25|", "FORMULA||"};
    std::vector<std::string> lines{"[CALCULATED CHANNELS]"};
    for (int i = 1; i <= rows; ++i) {
      const std::string spec = kRows[i % 10];
      const size_t a = spec.find('|');
      const size_t b = spec.find('|', a + 1);
      const std::string type = spec.substr(0, a);
      lines.push_back("[CHANNEL]");
      lines.push_back("TYPE=" + type);
      lines.push_back(type == "FORMULA" ? "SOURCE=[S" + std::to_string(i) + "]*2+1"
                                        : "SOURCE=S" + std::to_string(i));
      lines.push_back("NEWNAME=R" + std::to_string(i));
      lines.push_back("PARAM1=" + spec.substr(a + 1, b - a - 1));
      lines.push_back("PARAM2=" + spec.substr(b + 1));
      lines.push_back("[END CHANNEL]");
    }
    // The file name gives the summary prefix "BE".
    char setupName[] = "/tmp/BEcalcXXXXXX";
    close(mkstemp(setupName));
    setupPath = setupName;
    std::ofstream setup(setupPath, std::ios::binary);
    for (const auto& l : lines) setup << l << "\r\n";
  }
  ~CalcRig() {
    std::remove(rigPath.c_str());
    std::remove(setupPath.c_str());
  }
};

void BM_CalcPass1000Rows(benchmark::State& state) {
  CalcRig files(1000);
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<VirtualClock>(0), op, true);
  Engine& engine = *built;
  std::string error;
  if (!engine.instrument()->selectSetupFile(files.rigPath) ||
      !engine.calcChannels()->startCalculatedChannels(files.setupPath, "1")) {
    state.SkipWithError("the rig or the setup did not load");
    return;
  }
  for (auto _ : state) engine.calcChannels()->runPass();
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_CalcPass1000Rows)->Unit(benchmark::kMillisecond);

// A simulated stretch of `days` of the 50-row table, evaluated every second
// (an hour in the smoke pass).
void RunSimulatedDays(benchmark::State& state, int days) {
  CalcRig files(50);
  for (auto _ : state) {
    QuietOperator op;
    auto clock = std::make_unique<VirtualClock>(0);
    VirtualClock& virtualClock = *clock;
    const auto built = MakeBenchEngine(std::move(clock), op, true);
    Engine& engine = *built;
    std::string error;
    if (!engine.instrument()->selectSetupFile(files.rigPath) ||
        !engine.calcChannels()->startCalculatedChannels(files.setupPath, "1")) {
      state.SkipWithError("the rig or the setup did not load");
      return;
    }
    engine.calcChannels()->start();
    const Micros end =
        virtualClock.now() + BenchSize(days * kMicrosPerDay, 3600 * kMicrosPerSecond);
    engine.events().waitUntil([&] { return virtualClock.now() >= end; });
  }
}

void BM_SimulatedDay50Rows(benchmark::State& state) { RunSimulatedDays(state, 1); }
BENCHMARK(BM_SimulatedDay50Rows)->Unit(benchmark::kSecond)->Iterations(1);

void BM_SimulatedWeek50Rows(benchmark::State& state) { RunSimulatedDays(state, 7); }
BENCHMARK(BM_SimulatedWeek50Rows)->Unit(benchmark::kSecond)->Iterations(1);

// A simulated week of the day example's table (examples/calc_day.ccs on
// examples/calc_rig.ims, a pass every 10 s as examples/calc_day.wts runs it),
// with the daily summaries and the alarm report written to a scratch folder.
void BM_SimulatedWeekOfTheDayExample(benchmark::State& state) {
  const ScratchFolder scratch;
  const std::string examples = TAVRIX_EXAMPLES_DIR;
  for (auto _ : state) {
    QuietOperator op;
    auto clock = std::make_unique<VirtualClock>(0);
    VirtualClock& virtualClock = *clock;
    EngineConfig config;
    config.clock = std::move(clock);
    config.files = std::make_unique<LocalFileSystem>(scratch.path());
    config.op = &op;
    config.settings.driveMap['c'] = scratch.path();
    config.link = "sim";
    const auto built = BuildEngine(std::move(config));
    if (built == nullptr) {
      state.SkipWithError("the engine could not be built");
      return;
    }
    Engine& engine = *built;
    if (!engine.instrument()->selectSetupFile(examples + "/calc_rig.ims") ||
        !engine.calcChannels()->startCalculatedChannels(examples + "/calc_day.ccs", "10")) {
      state.SkipWithError("the rig or the setup did not load");
      return;
    }
    engine.calcChannels()->start();
    const Micros end = virtualClock.now() + BenchSize(7, 1) * kMicrosPerDay;
    engine.events().waitUntil([&] { return virtualClock.now() >= end; });
  }
}
BENCHMARK(BM_SimulatedWeekOfTheDayExample)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
}  // namespace tavrix::bench
