// What run checkpoints cost: the free-run rate of a looping sequence on the
// system clock with and without checkpoints (on this computer's disk), and
// the size and the cost of the checkpoints of the day example of the
// calculated channels (on a disk in memory, every checkpoint the run clock
// asks for).

#include <benchmark/benchmark.h>

#include <chrono>

#include "bench_support.h"
#include "common/file_system.h"
#include "common/text_file.h"
#include "engine/engine.h"
#include "engine/run_checkpoints.h"
#include "machine_door.h"
#include "testing/memory_file_system.h"

namespace tavrix::bench {
namespace {

// A loop of REMARK lines counted by LOOPCHECK: `loops` times 100 lines.
std::vector<std::string> FreeLoop(int loops) {
  std::vector<std::string> lines = {"RESETLOOPCOUNT 0", "TOP:"};
  for (int i = 0; i < 97; ++i) lines.push_back("REMARK line " + std::to_string(i));
  lines.push_back("LOOPCHECK " + std::to_string(loops) + ", OUT");
  lines.push_back("GOTO TOP");
  lines.push_back("OUT:");
  return lines;
}

void BM_FreeRunCheckpoints(benchmark::State& state) {
  const bool checkpoints = state.range(0) != 0;
  constexpr int kLoops = 20000;  // two million lines
  const std::string path = WriteSequence(FreeLoop(kLoops));
  const ScratchFolder root;
  QuietOperator op;
  EngineConfig config;
  config.clock = std::make_unique<SystemClock>();
  config.files = std::make_unique<LocalFileSystem>(root.path());
  config.op = &op;
  const auto engine = BuildEngine(std::move(config));
  if (checkpoints) engine->keepCheckpoints();
  std::string error;
  engine->sequencer().prepareFile(path, &error);
  for (auto _ : state) engine->sequencer().start();
  const double lines = static_cast<double>(state.iterations()) * kLoops * 100;
  state.counters["lines_per_s"] = benchmark::Counter(lines, benchmark::Counter::kIsRate);
  if (checkpoints)
    state.counters["checkpoints"] = static_cast<double>(engine->checkpoints()->written());
  std::remove(path.c_str());
}
BENCHMARK(BM_FreeRunCheckpoints)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(BenchSize(3.0, 0.001));

std::string Example(const std::string& name) {
  std::string text;
  readTextFile(localFiles(), std::string(TAVRIX_EXAMPLES_DIR) + "/" + name, text, nullptr);
  return text;
}

// Six hours of the day example in virtual time; with checkpoints, every one
// the run clock asks for (one each 10 s of run time) on a disk in memory.
void BM_CalcDayCheckpoints(benchmark::State& state) {
  const bool checkpoints = state.range(0) != 0;
  size_t largest = 0;
  int64_t written = 0;
  for (auto _ : state) {
    QuietOperator op;
    auto owned = std::make_unique<MemoryFileSystem>("/data");
    MemoryFileSystem& files = *owned;
    files.put("/rigs/q/calc_rig.ims", Example("calc_rig.ims"));
    files.put("/rigs/q/calc_day.ccs", Example("calc_day.ccs"));
    files.put("/rigs/q/day.wts", Example("calc_day.wts"));
    files.put("/rigs/q/six.wts", joinLines({"IMSFILESPEC q:\\calc_rig.ims",
                                            "STARTCALCULATEDCHANNELS q:\\calc_day.ccs, 10",
                                            "CC_START", "WAITSECONDS 21600", "STOP"}));
    EngineConfig config;
    config.clock = std::make_unique<VirtualClock>(*parseDateTime("2026-11-30 18:00:00"));
    config.files = std::move(owned);
    config.op = &op;
    config.settings.driveMap['q'] = "/rigs/q";
    config.link = "sim";
    const auto engine = BuildEngine(std::move(config));
    if (checkpoints) {
      RunCheckpoints& kept = engine->keepCheckpoints();
      kept.setLeastRealGap({});
      kept.onWritten = [&](const std::string& path) {
        largest = std::max<size_t>(largest, files.files().at(path).size());
      };
    }
    std::string error;
    engine->sequencer().prepareFile("/rigs/q/six.wts", &error);
    engine->sequencer().start();
    if (checkpoints) written += engine->checkpoints()->written();
  }
  if (checkpoints) {
    state.counters["checkpoint_bytes"] = static_cast<double>(largest);
    state.counters["checkpoints"] = static_cast<double>(written) / state.iterations();
  }
}
BENCHMARK(BM_CalcDayCheckpoints)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrix::bench
