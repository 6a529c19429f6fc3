// Test sockets: a station of eight sockets running the demo sequence in
// virtual time against eight single runs of it back to back, each socket's
// trace against a single run's, and exchanges a second through the link the
// sockets share (one device each, and all on one device), also through a
// rig server and through the keyed bridge.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

#include "common/file_system.h"
#include "common/paths.h"
#include "engine/engine.h"
#include "instrument/backends/link_backends.h"
#include "instrument/link/instrument.h"
#include "instrument/simrig/sim_link.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_server.h"
#include "instrument/tcp/tcp_link.h"
#include "machine_door.h"
#include "platform/files.h"
#include "run_command.h"
#include "station_link.h"

namespace tavrix::bench {
namespace {

constexpr int kSockets = 8;

// A scratch folder with a station of eight sockets whose ovens are each the
// examples rig's oven, on devices of their own.
struct StationFolder {
  std::string dir;
  StationFolder() {
    char name[] = "/tmp/tavrixstationbenchXXXXXX";
    dir = mkdtemp(name);
    std::ofstream rig(dir + "/rig8.ims", std::ios::binary);
    std::ofstream station(dir + "/station8.toml", std::ios::binary);
    station << "sequence = \"" TAVRIX_EXAMPLES_DIR "/demo.wts\"\nsetup = \"rig8.ims\"\n"
            << "answers = \"" TAVRIX_EXAMPLES_DIR "/demo.answers\"\n";
    for (int i = 1; i <= kSockets; ++i) {
      const std::string p = "S" + std::to_string(i) + "_";
      rig << "D " << i << " MONITORS=4\n"
          << "  " << i << "0001 E=1 M=A N=" << p << "HEATER U=% V=0\n"
          << "  " << i << "0002 E=1 M=A N=" << p << "OVEN U=degC V=20 FOLLOW=" << p
          << "HEATER K=0.8 BIAS=20 LAG=30 HIGH=95\n"
          << "  " << i << "0003 E=1 M=A N=" << p << "FAN U=rpm V=0\n";
      station << "[socket.S" << i << "]\nprefix = \"" << p << "\"\n";
    }
    rig << "D 9 LATENCY=20\n  90001 E=1 M=A N=AMBIENT U=degC V=21.5\n";
    // The single runs' rig: one such oven.
    std::ofstream(dir + "/rig1.ims", std::ios::binary)
        << "D 1 MONITORS=4\n  10001 E=1 M=A N=HEATER U=% V=0\n"
        << "  10002 E=1 M=A N=OVEN U=degC V=20 FOLLOW=HEATER K=0.8 BIAS=20 LAG=30 HIGH=95\n"
        << "  10003 E=1 M=A N=FAN U=rpm V=0\n";
    setenv("TAVRIX_HOME", (dir + "/home").c_str(), 1);
  }
  ~StationFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
};

int Cli(std::vector<std::string> args) {
  args.insert(args.begin(), "tavrix-cli");
  std::FILE* null = std::fopen("/dev/null", "w");
  const int status =
      TavrixCliMain(Host{localFiles(), defaultDataRoot()}, args, nullptr, null, null);
  std::fclose(null);
  return status;
}

const std::vector<std::string> kCommon = {"run",
                                          "--virtual-time",
                                          "--start",
                                          "2026-11-15 08:00:00",
                                          "--no-control-socket",
                                          "--results-store",
                                          "off"};

void BM_StationOfEightSocketsDemo(benchmark::State& state) {
  StationFolder folder;
  for (auto _ : state) {
    auto args = kCommon;
    args.insert(args.end(), {"--station", folder.dir + "/station8.toml"});
    if (Cli(args) != kExitOk) state.SkipWithError("the station run failed");
  }
  state.counters["sockets"] = kSockets;
}
BENCHMARK(BM_StationOfEightSocketsDemo)->Unit(benchmark::kMillisecond);

void BM_EightSingleDemoRuns(benchmark::State& state) {
  StationFolder folder;
  for (auto _ : state) {
    for (int i = 0; i < kSockets; ++i) {
      auto args = kCommon;
      args.insert(args.end(),
                  {"--setup", folder.dir + "/rig1.ims", "--answers",
                   TAVRIX_EXAMPLES_DIR "/demo.answers", TAVRIX_EXAMPLES_DIR "/demo.wts"});
      if (Cli(args) != kExitOk) state.SkipWithError("a single run failed");
    }
  }
}
BENCHMARK(BM_EightSingleDemoRuns)->Unit(benchmark::kMillisecond);

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Each socket's trace is a single run's but for its channel names and
// device numbers: the counter is how many sockets' traces are.
void BM_SocketTracesMatchASingleRun(benchmark::State& state) {
  StationFolder folder;
  int same = 0;
  for (auto _ : state) {
    auto args = kCommon;
    args.insert(args.end(),
                {"--trace", folder.dir + "/t.jsonl", "--station", folder.dir + "/station8.toml"});
    Cli(args);
    args = kCommon;
    args.insert(args.end(), {"--trace", folder.dir + "/single.jsonl", "--setup",
                             folder.dir + "/rig1.ims", "--answers",
                             TAVRIX_EXAMPLES_DIR "/demo.answers", TAVRIX_EXAMPLES_DIR "/demo.wts"});
    Cli(args);
    const std::string single = std::regex_replace(ReadAll(folder.dir + "/single.jsonl"),
                                                  std::regex("\"dev\":[0-9]+"), "\"dev\":D");
    same = 0;
    for (int i = 1; i <= kSockets; ++i) {
      std::string trace = ReadAll(folder.dir + "/t.S" + std::to_string(i) + ".jsonl");
      trace = std::regex_replace(trace, std::regex("S" + std::to_string(i) + "_"), "");
      trace = std::regex_replace(trace, std::regex("\"dev\":[0-9]+"), "\"dev\":D");
      same += trace == single ? 1 : 0;
    }
  }
  state.counters["identical"] = same;
}
BENCHMARK(BM_SocketTracesMatchASingleRun)->Unit(benchmark::kMillisecond)->Iterations(1);

// What `sockets` threads read in `period`, each through an instrument of its
// own with the link `linkOf(s, clock, settings, files)` makes for it (nullptr:
// that socket could not start), after loading `setupFile`, reading the channel
// `channelOf(s)` names over and over. With `timeEach` each read is timed and
// the longest one kept.
struct SocketReads {
  int64_t exchanges = 0;
  double worstSeconds = 0;
  int failed = 0;
};
using LinkOfSocket = std::function<std::unique_ptr<LinkLibrary>(
    int, Clock&, const InstrumentSettings&, FileSystem&)>;
SocketReads ReadOnSockets(int sockets, const std::string& dir, const std::string& setupFile,
                          std::chrono::milliseconds period, bool timeEach,
                          const LinkOfSocket& linkOf,
                          const std::function<std::string(int)>& channelOf) {
  std::atomic<int64_t> exchanges{0};
  std::atomic<int> failed{0};
  std::atomic<bool> stop{false};
  std::mutex worstMutex;
  double worst = 0;
  std::vector<std::thread> threads;
  for (int s = 0; s < sockets; ++s) {
    threads.emplace_back([&, s] {
      SystemClock clock;
      EventLoop events(clock);
      Trace trace(clock);
      PathMap paths(dir);
      InstrumentSettings settings;
      LocalFileSystem files(dir);
      auto link = linkOf(s, clock, settings, files);
      if (!link) {
        ++failed;
        return;
      }
      Instrument instrument(events, trace, settings, std::move(link), paths);
      if (!instrument.ensureOpen() || !instrument.selectSetupFile(setupFile)) {
        ++failed;
        return;
      }
      const std::string channel = channelOf(s);
      std::string value;
      int64_t mine = 0;
      double myWorst = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        if (!timeEach) {
          if (instrument.channels().ReadChannel(channel, value)) ++mine;
          continue;
        }
        const auto began = std::chrono::steady_clock::now();
        if (instrument.channels().ReadChannel(channel, value)) ++mine;
        myWorst = std::max(
            myWorst,
            std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
      }
      exchanges += mine;
      std::lock_guard guard(worstMutex);
      worst = std::max(worst, myWorst);
    });
  }
  std::this_thread::sleep_for(period);
  stop = true;
  for (auto& t : threads) t.join();
  return {exchanges.load(), worst, failed.load()};
}

// Exchanges a second through the shared simulated rig on the system's clock:
// `range(0)` sockets, each reading a channel of its own device (arg 1 = 0)
// or all reading one device (arg 1 = 1).
void BM_SharedLinkExchanges(benchmark::State& state) {
  StationFolder folder;
  const int sockets = static_cast<int>(state.range(0));
  const bool oneDevice = state.range(1) == 1;
  SystemClock rigClock;
  LocalFileSystem files(folder.dir);
  SharedBackend shared(std::make_unique<SimLink>(rigClock, folder.dir, files));
  DeviceGate gate(true);
  int64_t total = 0;
  for (auto _ : state) {
    total +=
        ReadOnSockets(
            sockets, folder.dir, folder.dir + "/rig8.ims", std::chrono::milliseconds(500), false,
            [&](int s, Clock&, const InstrumentSettings&, FileSystem&) {
              return std::make_unique<SocketLink>(s, gate, shared);
            },
            [&](int s) { return oneDevice ? "S1_OVEN" : "S" + std::to_string(s + 1) + "_OVEN"; })
            .exchanges;
  }
  state.counters["exchanges/s"] =
      benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SharedLinkExchanges)
    ->Args({1, 0})
    ->Args({8, 0})
    ->Args({8, 1})
    ->Args({16, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);

// Sixteen sockets, each on a connection of its own to one rig server on
// loopback and reading a channel of its own device (arg 1 = 0) or all the
// same device (arg 1 = 1): exchanges a second, and the longest one exchange
// took (a socket's worst wait for the link).
void BM_SharedRigServerExchanges(benchmark::State& state) {
  StationFolder folder;
  const int sockets = static_cast<int>(state.range(0));
  const bool oneDevice = state.range(1) == 1;
  {
    std::ofstream rig(folder.dir + "/rig16.ims", std::ios::binary);
    for (int i = 1; i <= 16; ++i) {
      rig << "D " << i << "\n  " << i << "0001 E=1 M=A N=S" << i << "_OVEN U=degC V=20\n";
    }
  }
  RigServer server;
  std::string error;
  if (!server.listen("127.0.0.1:0", &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::atomic<bool> serverStop{false};
  std::thread serving([&] { server.serve(serverStop); });
  const std::string link = "tcp://127.0.0.1:" + std::to_string(server.port());
  DeviceGate gate(true);
  SetupOnce setup;
  int64_t total = 0;
  double worst = 0;
  for (auto _ : state) {
    const SocketReads reads = ReadOnSockets(
        sockets, folder.dir, folder.dir + "/rig16.ims", std::chrono::milliseconds(1000), true,
        [&](int s, Clock& clock, const InstrumentSettings& settings,
            FileSystem& files) -> std::unique_ptr<LinkLibrary> {
          std::string why;
          auto own = MakeLinkLibrary(link, clock, settings, files, &why);
          if (!own) return nullptr;
          return std::make_unique<SocketLink>(s, gate, setup, std::move(own));
        },
        [&](int s) { return "S" + std::to_string(oneDevice ? 1 : s + 1) + "_OVEN"; });
    total += reads.exchanges;
    worst = std::max(worst, reads.worstSeconds);
  }
  serverStop = true;
  serving.join();
  state.counters["exchanges/s"] =
      benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
  state.counters["worst_wait_ms"] = worst * 1000;
}
BENCHMARK(BM_SharedRigServerExchanges)
    ->Args({1, 0})
    ->Args({16, 0})
    ->Args({16, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

// `range(0)` sockets, each on a connection of its own to the keyed bridge on
// loopback (a link library served behind the key check, as the 32-bit
// bridge serves the rig PC's libraries) and reading a channel of its own
// device: exchanges a second (each one a command and its reply) and the
// longest one took. Arg 1 is the protocol: 2, or 1 with the response waited
// for through the watcher thread alone, as links and servers did before the
// second protocol (two round trips an exchange).
void BM_BridgeSocketExchanges(benchmark::State& state) {
  StationFolder folder;
  const int sockets = static_cast<int>(state.range(0));
  const bool before = state.range(1) == 1;
  RigServer server;
  std::string error;
  SystemClock serverClock;
  LocalFileSystem serverFiles(folder.dir);
  auto service = std::make_unique<LibraryService>(
      std::make_unique<SimLink>(serverClock, std::string(), serverFiles), serverFiles);
  if (!server.listen("127.0.0.1:0", &error) || !service->open(&error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  const std::string key(kNewKeyBytes, '\x5a');
  server.serveLibrary(std::move(service));
  server.requireKey(key);
  server.speakProtocol(before ? 1 : 2);
  std::atomic<bool> serverStop{false};
  std::thread serving([&] { server.serve(serverStop); });
  DeviceGate gate(true);
  SetupOnce setup;
  int64_t total = 0;
  double worst = 0;
  int failed = 0;
  for (auto _ : state) {
    const SocketReads reads = ReadOnSockets(
        sockets, folder.dir, folder.dir + "/rig8.ims", std::chrono::milliseconds(1000), true,
        [&](int s, Clock& clock, const InstrumentSettings&, FileSystem& files) {
          TcpLinkOptions options;
          if (before) options.directWaitMs = 0;
          auto own = std::make_unique<TcpLink>(clock, "127.0.0.1", server.port(), files, options);
          own->setKey(key);
          return std::make_unique<SocketLink>(s, gate, setup, std::move(own));
        },
        [](int s) { return "S" + std::to_string(s + 1) + "_OVEN"; });
    total += reads.exchanges;
    worst = std::max(worst, reads.worstSeconds);
    failed += reads.failed;
  }
  serverStop = true;
  serving.join();
  if (failed > 0) state.SkipWithError("a socket did not reach the bridge");
  state.counters["exchanges/s"] =
      benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
  state.counters["worst_wait_ms"] = worst * 1000;
}
BENCHMARK(BM_BridgeSocketExchanges)
    ->Args({1, 2})
    ->Args({8, 2})
    ->Args({1, 1})
    ->Args({8, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

}  // namespace
}  // namespace tavrix::bench
