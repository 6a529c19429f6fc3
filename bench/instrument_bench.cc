// The instrument link's speed: SEND lines a second through the run engine and
// the in-process rig, the same write-and-check exchange called on the link
// port directly and through the link layer (their ratio is the layer's
// overhead), and exchanges a second with a rig server over TCP on loopback.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "bench_support.h"
#include "common/file_system.h"
#include "engine/engine.h"
#include "instrument/backends/link_backends.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "instrument/simrig/sim_link.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_server.h"
#include "instrument/tcp/tcp_link.h"
#include "machine_door.h"

namespace tavrix::bench {
namespace {

constexpr int kSendLines = 10000;
constexpr std::string_view kBenchRig =
    "D 1\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10002 E=1 M=A N=TEMP1 U=degC V=20 FOLLOW=HEATER LAG=10\n"
    "  10003 E=1 M=A N=FAN\n"
    "  10004 E=1 M=A N=PRESS V=1\n";

std::string WriteRig() {
  char name[] = "/tmp/tavrixbenchrigXXXXXX";
  const int fd = mkstemp(name);
  close(fd);
  std::ofstream(name, std::ios::binary) << kBenchRig;
  return name;
}

void BM_SendLinesInProcessRig(benchmark::State& state) {
  const std::string rig = WriteRig();
  std::vector<std::string> lines;
  for (int i = 0; i < kSendLines; ++i) lines.push_back("SEND FAN, " + std::to_string(i % 1000));
  const std::string path = WriteSequence(lines);
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
  Engine& engine = *built;
  auto instrument = MakeInstrument(engine.events(), engine.trace(), {}, "sim", localFiles(),
                                   engine.paths(), nullptr);
  RegisterInstrumentCommands(engine.sequencer(), *instrument);
  instrument->selectSetupFile(rig);
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  for (auto _ : state) engine.sequencer().start();
  if (!engine.sequencer().lastSequenceError().empty()) {
    state.SkipWithError(engine.sequencer().lastSequenceError().c_str());
  }
  state.counters["lines_per_s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kSendLines, benchmark::Counter::kIsRate);
  std::remove(path.c_str());
  std::remove(rig.c_str());
}
BENCHMARK(BM_SendLinesInProcessRig)->Unit(benchmark::kMillisecond);

// What one SEND asks of the devices, called on the port with nothing around
// it: "WRI", then "REP" and its reply.
void BM_SendExchangeOnThePort(benchmark::State& state) {
  const std::string rig = WriteRig();
  SystemClock clock;
  SimLink sim(clock, "", localFiles());
  int16_t handle = 0;
  sim.openInterface(handle);
  SetupLoad load;
  sim.loadAndLockSetup(rig, 0, load);
  std::string command(kCommandBufferLength, ' ');
  std::string rep(kCommandBufferLength, ' ');
  WriteBuffer(command, "WRI FAN 5");
  WriteBuffer(rep, "REP");
  std::string reply(kReplyBufferLength, ' ');
  for (auto _ : state) {
    sim.sendCommand(handle, 1, command, false);
    sim.sendCommand(handle, 1, rep, true);
    benchmark::DoNotOptimize(sim.getReply(handle, 1, reply, true));
  }
  state.counters["sends_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  std::remove(rig.c_str());
}
BENCHMARK(BM_SendExchangeOnThePort);

// The same exchange through the link layer: WriteChannel with its REP check.
void BM_SendExchangeThroughTheLayer(benchmark::State& state) {
  const std::string rig = WriteRig();
  SystemClock clock;
  EventLoop events(clock);
  Trace trace(clock);
  const PathMap paths{""};
  auto instrument = MakeInstrument(events, trace, {}, "sim", localFiles(), paths, nullptr);
  instrument->selectSetupFile(rig);
  Channels& channels = instrument->channels();
  for (auto _ : state) benchmark::DoNotOptimize(channels.WriteChannel("FAN", "5"));
  state.counters["sends_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  std::remove(rig.c_str());
}
BENCHMARK(BM_SendExchangeThroughTheLayer);

// One command and its reply with a rig server on loopback: the built-in rig,
// or (`bridged`) a link library served as the 32-bit bridge serves the rig
// PC's libraries, with the key check done once at connection.
void LoopbackExchanges(benchmark::State& state, bool bridged) {
  const std::string rig = WriteRig();
  RigServer server;
  std::string error;
  if (!server.listen("127.0.0.1:0", &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  SystemClock clock;
  const std::string key(kNewKeyBytes, '\x5a');
  if (bridged) {
    auto service = std::make_unique<LibraryService>(
        std::make_unique<SimLink>(clock, std::string(), localFiles()), localFiles());
    if (!service->open(&error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    server.serveLibrary(std::move(service));
    server.requireKey(key);
  } else {
    RigSetup setup;
    LoadRigSetupFile(localFiles(), rig, setup, &error);
    server.model().load(std::move(setup));
  }
  std::atomic<bool> stop{false};
  std::thread serving([&] { server.serve(stop); });
  TcpLink link(clock, "127.0.0.1", server.port(), localFiles());
  if (bridged) link.setKey(key);
  int16_t handle = 0;
  SetupLoad load;
  if (link.openInterface(handle) != 0) {
    state.SkipWithError("cannot connect to the rig server");
  } else if (bridged && link.loadAndLockSetup(rig, 0, load) != 0) {
    state.SkipWithError("the bridge does not load the setup");
  } else {
    std::string command(kCommandBufferLength, ' ');
    WriteBuffer(command, "REA TEMP1");
    std::string reply(kReplyBufferLength, ' ');
    for (auto _ : state) {
      link.sendCommand(handle, 1, command, true);
      benchmark::DoNotOptimize(link.getReply(handle, 1, reply, true));
    }
  }
  state.counters["exchanges_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  link.closeInterface(handle);
  stop = true;
  serving.join();
  std::remove(rig.c_str());
}

void BM_TcpLoopbackExchange(benchmark::State& state) { LoopbackExchanges(state, false); }
BENCHMARK(BM_TcpLoopbackExchange)->UseRealTime();

void BM_BridgeLoopbackExchange(benchmark::State& state) { LoopbackExchanges(state, true); }
BENCHMARK(BM_BridgeLoopbackExchange)->UseRealTime();

}  // namespace
}  // namespace tavrix::bench
