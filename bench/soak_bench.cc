// The run engine in the shape of an endurance soak, on the virtual clock: a
// loop of LOOPCHECK, WAITSECONDS 60 and GOTO turned 1,000,000 times (goal:
// at least 1,000,000 lines a second), and what the trace costs: the free run
// and the soak loop with the trace on, next to the same runs without it; and
// the soak loop with the run's record in a data root of its own, as every
// run of tavrix-cli keeps one. The record's cost as tavrix-cli pays it is
// measured on the run as tavrix-cli makes it (a view that follows the lines
// and a control socket), with the record and without.

#include <benchmark/benchmark.h>

#include <optional>
#include <string>
#include <vector>

#include "bench_support.h"
#include "control_socket.h"
#include "engine/breakpoints.h"
#include "engine/engine.h"
#include "engine/run_record.h"

namespace tavrix::bench {
namespace {

// (Ten thousand in the smoke pass.)
const int kSoakTurns = BenchSize(1'000'000, 10'000);
constexpr int kLinesPerTurn = 3;  // LOOPCHECK, WAITSECONDS, GOTO

// A trace output that only counts what it is given: the cost measured is
// the trace's own, not the disk's.
class CountingOutput final : public OutputFile {
 public:
  explicit CountingOutput(int64_t& bytes) : bytes_(bytes) {}
  bool write(std::string_view bytes, std::string*) override {
    bytes_ += static_cast<int64_t>(bytes.size());
    return true;
  }

 private:
  int64_t& bytes_;
};

std::vector<std::string> SoakLoop(int turns) {
  return {"AGAIN:",         "LOOPCHECK " + std::to_string(turns - 1) + ", DONE",
          "WAITSECONDS 60", "GOTO AGAIN",
          "DONE:",          "STOP"};
}

enum class Kept { kNothing, kTrace, kRecord };

void RunSoakLoop(benchmark::State& state, Kept kept, bool asTheCli = false) {
  const std::string path = WriteSequence(SoakLoop(kSoakTurns));
  int64_t traceBytes = 0;
  ScratchFolder root;
  for (auto _ : state) {
    QuietOperator op;
    auto clock = std::make_unique<VirtualClock>(0);
    VirtualClock& virtualClock = *clock;
    EngineConfig config;
    config.clock = std::move(clock);
    config.files = std::make_unique<LocalFileSystem>(root.path());
    config.op = &op;
    const auto built = BuildEngine(std::move(config));
    Engine& engine = *built;
    if (kept == Kept::kTrace)
      engine.trace().setOutput(std::make_unique<CountingOutput>(traceBytes));
    std::string error;
    if (!engine.sequencer().prepareFile(path, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
    // (Only the run as tavrix-cli makes it has a breakpoint list: its
    // subscription alone makes the run publish every line.)
    RunEventBus::Subscription view;
    std::optional<Breakpoints> breakpoints;
    std::unique_ptr<ControlSocket> socket;
    if (asTheCli) {
      view = engine.subscribe([](const RunEvent& event) { benchmark::DoNotOptimize(event.line); });
      breakpoints.emplace(engine);
      socket = ControlSocket::Open(engine, *breakpoints, root.path(), path, 0, &error);
      if (!socket) {
        state.SkipWithError(("no control socket: " + error).c_str());
        break;
      }
    }
    std::unique_ptr<RunRecord> record;
    if (kept == Kept::kRecord) {
      engine.trace().setOrigin(0);
      record = RunRecord::Begin(engine.files(), engine.trace(), {path, {}, "cli", 0},
                                {std::nullopt, std::nullopt}, &error);
      if (!record) {
        state.SkipWithError(error.c_str());
        break;
      }
    }
    engine.sequencer().start();
    engine.trace().setOutput(nullptr);
    if (record) {
      record->finish(virtualClock.now(), "stop", 0);
      traceBytes += static_cast<int64_t>(
          engine.files().info(record->folder() + "/" + std::string(kRecordTrace)).size);
    }
    if (!engine.sequencer().lastSequenceError().empty()) {
      state.SkipWithError(engine.sequencer().lastSequenceError().c_str());
      break;
    }
    // Every turn waited its minute.
    if (virtualClock.now() < static_cast<Micros>(kSoakTurns - 1) * 60 * kMicrosPerSecond) {
      state.SkipWithError("the loop did not wait its minutes");
      break;
    }
  }
  state.counters["lines_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kSoakTurns * kLinesPerTurn,
                         benchmark::Counter::kIsRate);
  if (kept != Kept::kNothing)
    state.counters["trace_MiB"] = static_cast<double>(traceBytes) / state.iterations() / (1 << 20);
  std::remove(path.c_str());
}

void BM_SoakLoopWaitSeconds(benchmark::State& state) { RunSoakLoop(state, Kept::kNothing); }
BENCHMARK(BM_SoakLoopWaitSeconds)->Unit(benchmark::kSecond)->Iterations(1);

void BM_SoakLoopWaitSecondsTraced(benchmark::State& state) { RunSoakLoop(state, Kept::kTrace); }
BENCHMARK(BM_SoakLoopWaitSecondsTraced)->Unit(benchmark::kSecond)->Iterations(1);

void BM_SoakLoopWaitSecondsWithRecord(benchmark::State& state) {
  RunSoakLoop(state, Kept::kRecord);
}
BENCHMARK(BM_SoakLoopWaitSecondsWithRecord)->Unit(benchmark::kSecond)->Iterations(1);

void BM_SoakLoopAsTheCliRunsIt(benchmark::State& state) {
  RunSoakLoop(state, Kept::kNothing, true);
}
BENCHMARK(BM_SoakLoopAsTheCliRunsIt)->Unit(benchmark::kSecond)->Iterations(1);

void BM_SoakLoopAsTheCliRunsItWithRecord(benchmark::State& state) {
  RunSoakLoop(state, Kept::kRecord, true);
}
BENCHMARK(BM_SoakLoopAsTheCliRunsItWithRecord)->Unit(benchmark::kSecond)->Iterations(1);

void BM_FreeRunLinesTraced(benchmark::State& state) {
  const std::string path = WriteSequence(LabelsAndWords());
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<VirtualClock>(0), op);
  Engine& engine = *built;
  int64_t traceBytes = 0;
  engine.trace().setOutput(std::make_unique<CountingOutput>(traceBytes));
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  for (auto _ : state) engine.sequencer().start();
  engine.trace().setOutput(nullptr);
  state.counters["lines_per_s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * 30000, benchmark::Counter::kIsRate);
  std::remove(path.c_str());
}
BENCHMARK(BM_FreeRunLinesTraced)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrix::bench
