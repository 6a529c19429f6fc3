// The run engine's speed: a free run, and a jump to the end of a long file
// next to the naive way of reopening the file and scanning it for the label.

#include <benchmark/benchmark.h>

#include <fstream>

#include "bench_support.h"
#include "common/text_conventions.h"
#include "engine/engine.h"

namespace tavrix::bench {
namespace {

void BM_FreeRunLines(benchmark::State& state) {
  const std::string path = WriteSequence(LabelsAndWords());
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<VirtualClock>(0), op);
  Engine& engine = *built;
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  for (auto _ : state) engine.sequencer().start();
  state.SetItemsProcessed(state.iterations() * 30000);
  state.counters["lines_per_s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * 30000, benchmark::Counter::kIsRate);
  std::remove(path.c_str());
}
BENCHMARK(BM_FreeRunLines)->Unit(benchmark::kMillisecond);

void BM_GotoLastLabel(benchmark::State& state) {
  const std::string path = WriteSequence(LabelsAndWords());
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<VirtualClock>(0), op);
  Engine& engine = *built;
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  for (auto _ : state) benchmark::DoNotOptimize(engine.sequencer().searchLabel("LAST"));
  std::remove(path.c_str());
}
BENCHMARK(BM_GotoLastLabel)->Unit(benchmark::kMicrosecond);

// What a jump costs when the file is reopened and read line by line.
void BM_GotoNaiveReopenAndScan(benchmark::State& state) {
  const std::string path = WriteSequence(LabelsAndWords());
  for (auto _ : state) {
    std::ifstream in(path, std::ios::binary);
    std::string line;
    int n = 0;
    while (std::getline(in, line, '\r')) {
      ++n;
      if (upperCase(line).find("LAST:") != std::string::npos) break;
    }
    benchmark::DoNotOptimize(n);
  }
  std::remove(path.c_str());
}
BENCHMARK(BM_GotoNaiveReopenAndScan)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tavrix::bench
