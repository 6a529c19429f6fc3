// What run control and the record of every run cost a free-running
// sequence: the same 30,000 lines (labels and remarks) on a virtual clock,
// bare; heard by a front end that follows the lines (as tavrix-cli's
// terminal view does in every run) - the run as it was before run control;
// with an empty breakpoint list and an open control socket besides (what
// every run of tavrix-cli has now); with 100 channel conditions; with the
// run's record in the data root (kept across the iterations, as one long
// run's); and with all of it together. Data roots are temporary folders of
// the benchmark's own.

#include <benchmark/benchmark.h>

#include <cstdio>

#include "bench_support.h"
#include "control_socket.h"
#include "engine/breakpoints.h"
#include "engine/run_record.h"

namespace tavrix::bench {
namespace {

constexpr int kLines = 30000;

struct Setup {
  bool heard = true;     // a front end follows the run's events
  bool control = false;  // breakpoint list and control socket
  int conditions = 0;    // channel conditions that never hold
  bool record = false;   // the run's record in the data root
};

void FreeRun(benchmark::State& state, const Setup& setup) {
  ScratchFolder root;
  const std::string path = WriteSequence(LabelsAndWords(kLines));
  const std::string rig = std::string(TAVRIX_EXAMPLES_DIR) + "/rig.ims";
  QuietOperator op;
  EngineConfig config;
  config.clock = std::make_unique<VirtualClock>(0);
  config.files = std::make_unique<LocalFileSystem>(root.path());
  config.op = &op;
  config.link = "sim";
  const auto built = BuildEngine(std::move(config));
  Engine& engine = *built;
  std::string error;
  if (!engine.instrument()->ensureOpen() || !engine.instrument()->selectSetupFile(rig) ||
      !engine.sequencer().prepareFile(path, &error)) {
    state.SkipWithError(("cannot set up the run: " + error).c_str());
    return;
  }
  RunEventBus::Subscription view;
  if (setup.heard)
    view = engine.subscribe([](const RunEvent& event) { benchmark::DoNotOptimize(event.line); });
  Breakpoints breakpoints(engine);
  std::unique_ptr<ControlSocket> socket;
  if (setup.control) {
    socket = ControlSocket::Open(engine, breakpoints, root.path(), path, 0, &error);
    if (!socket) state.SkipWithError(("no control socket: " + error).c_str());
  }
  for (int i = 0; i < setup.conditions; ++i)
    breakpoints.add("OVEN > " + std::to_string(1000 + i), true, &error);
  engine.trace().setOrigin(0);
  std::unique_ptr<RunRecord> record;
  if (setup.record)
    record = RunRecord::Begin(engine.files(), engine.trace(), {path, {}, "cli", 0},
                              {std::nullopt, std::nullopt}, &error);
  for (auto _ : state) engine.sequencer().start();
  if (record) record->finish(0, "eof", 0);
  state.counters["lines_per_s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kLines, benchmark::Counter::kIsRate);
  std::remove(path.c_str());
}

void BM_FreeRunBare(benchmark::State& state) { FreeRun(state, {false, false, 0, false}); }
void BM_FreeRunHeard(benchmark::State& state) { FreeRun(state, {true, false, 0, false}); }
void BM_FreeRunWithControl(benchmark::State& state) { FreeRun(state, {true, true, 0, false}); }
void BM_FreeRunWith100BreakIfs(benchmark::State& state) {
  FreeRun(state, {true, true, 100, false});
}
void BM_FreeRunWithRecord(benchmark::State& state) { FreeRun(state, {true, false, 0, true}); }
void BM_FreeRunWithControlAndRecord(benchmark::State& state) {
  FreeRun(state, {true, true, 0, true});
}
BENCHMARK(BM_FreeRunBare)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreeRunHeard)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreeRunWithControl)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreeRunWith100BreakIfs)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreeRunWithRecord)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreeRunWithControlAndRecord)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrix::bench
