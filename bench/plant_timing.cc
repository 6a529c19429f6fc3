// The plant view on the system clock: how late a WAITSECONDS 0.5 ends in
// each of eight runs going at once, each with its control socket, while 50
// viewers follow the live page's stream of their events. The server and its
// live view read the runs through their sockets on threads of their own;
// this shows that they do not hold the runs up. `plant_station` does the
// same with one station of eight test sockets (tavrix-cli run --station).

#include <httplib.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <thread>

#include "bench_support.h"
#include "common/file_system.h"
#include "control_socket.h"
#include "engine/breakpoints.h"
#include "engine/engine.h"
#include "machine_door.h"
#include "plant_server.h"
#include "run_command.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

constexpr int kViewers = 50;
constexpr int kRuns = 8;
constexpr int kWaitsPerRun = 5;

const RegisterTiming kPlantLive("plant_live", [] {
  ScratchFolder folder;
  plant::ServerOptions options;
  options.listen = "127.0.0.1:0";
  options.store = {StoreSpec::Kind::kSqlite, folder.path() + "/results.sqlite"};
  options.runsFolder = RunsFolder(folder.path());
  options.auditLog = folder.path() + "/audit.log";
  std::string error;
  auto server = plant::Server::Start(localFiles(), options, &error);
  if (!server) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return Rows{};
  }

  std::atomic<bool> done{false};
  std::atomic<long> received{0};
  std::vector<std::unique_ptr<httplib::Client>> clients;
  std::vector<std::thread> viewers;
  for (int v = 0; v < kViewers; ++v) {
    clients.push_back(std::make_unique<httplib::Client>("127.0.0.1", server->port()));
    clients.back()->set_read_timeout(30);
    viewers.emplace_back([&, client = clients.back().get()] {
      client->Get("/live/events", [&](const char*, size_t n) {
        received += static_cast<long>(n);
        return !done;
      });
    });
  }

  const std::string path = WriteSequence({"WAITSECONDS 0.5"});
  std::mutex mutex;
  std::vector<double> errors;
  std::vector<std::thread> runs;
  for (int r = 0; r < kRuns; ++r) {
    runs.emplace_back([&] {
      for (int i = 0; i < kWaitsPerRun; ++i) {
        QuietOperator op;
        const auto engine = MakeBenchEngine(std::make_unique<SystemClock>(), op);
        Breakpoints breakpoints(*engine);
        std::string why;
        const auto socket = ControlSocket::Open(*engine, breakpoints, folder.path(), path, 0, &why);
        engine->sequencer().prepareFile(path, &why);
        const double start = WallSeconds();
        engine->sequencer().start();
        const double late = WallSeconds() - start - 0.5;
        std::lock_guard guard(mutex);
        errors.push_back(late);
      }
    });
  }
  for (auto& t : runs) t.join();
  done = true;
  for (auto& c : clients) c->stop();
  for (auto& t : viewers) t.join();
  server->stop();
  std::remove(path.c_str());
  const auto [median, worst] = MedianAndWorst(errors);
  return Rows{{"WAITSECONDS 0.5, 8 runs at once, 50 live viewers: error, median",
               Fixed(median * 1000, "ms")},
              {"  worst of " + std::to_string(errors.size()), Fixed(worst * 1000, "ms")},
              {"  live stream received per viewer", Fixed(received / 1024.0 / kViewers, "KiB", 1)}};
});

// Fifty viewers following the live stream of a plant view started on the
// data root of a station of eight sockets, each with its control socket;
// nothing but the viewers connects.
struct Viewers {
  std::atomic<bool> done{false};
  std::atomic<long> received{0};
  std::vector<std::unique_ptr<httplib::Client>> clients;
  std::vector<std::thread> threads;

  explicit Viewers(int port) {
    for (int v = 0; v < kViewers; ++v) {
      clients.push_back(std::make_unique<httplib::Client>("127.0.0.1", port));
      clients.back()->set_read_timeout(30);
      threads.emplace_back([this, client = clients.back().get()] {
        client->Get("/live/events", [this](const char*, size_t n) {
          received += static_cast<long>(n);
          return !done;
        });
      });
    }
  }
  ~Viewers() {
    done = true;
    for (auto& c : clients) c->stop();
    for (auto& t : threads) t.join();
  }
};

const RegisterTiming kPlantStation("plant_station", [] {
  constexpr int kSockets = 8;
  constexpr int kWaits = 10;
  char name[] = "/tmp/tavrixplanttimingXXXXXX";
  const std::string dir = mkdtemp(name);
  const std::string home = dir + "/home";
  std::filesystem::create_directories(home);
  {
    std::ofstream seq(dir + "/s.wts", std::ios::binary);
    for (int i = 0; i < kWaits; ++i) seq << "WAITSECONDS 0.5\r\n";
    seq << "STOP\r\n";
    std::ofstream station(dir + "/station.toml", std::ios::binary);
    station << "sequence = \"s.wts\"\n";
    for (int i = 1; i <= kSockets; ++i) station << "[socket.S" << i << "]\n";
  }
  plant::ServerOptions options;
  options.listen = "127.0.0.1:0";
  options.store = {StoreSpec::Kind::kSqlite, home + "/results.sqlite"};
  options.runsFolder = RunsFolder(home);
  options.auditLog = home + "/audit.log";
  std::string error;
  auto server = plant::Server::Start(localFiles(), options, &error);
  if (!server) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return Rows{};
  }
  long received = 0;
  {
    Viewers viewers(server->port());
    setenv("TAVRIX_HOME", home.c_str(), 1);
    std::FILE* null = std::fopen("/dev/null", "w");
    TavrixCliMain(Host{localFiles(), defaultDataRoot()},
                  {"tavrix-cli", "run", "--results-store", "off", "--trace", dir + "/t.jsonl",
                   "--station", dir + "/station.toml"},
                  nullptr, null, null);
    std::fclose(null);
    received = viewers.received;
  }
  server->stop();
  std::vector<double> errors;
  const std::regex lineTime("\\{\"t\":([0-9.]+),\"ev\":\"line\"");
  for (int i = 1; i <= kSockets; ++i) {
    std::ifstream in(dir + "/t.S" + std::to_string(i) + ".jsonl");
    std::vector<double> times;
    for (std::string row; std::getline(in, row);) {
      std::smatch m;
      if (std::regex_search(row, m, lineTime)) times.push_back(std::stod(m[1]));
    }
    for (size_t k = 1; k < times.size(); ++k) errors.push_back(times[k] - times[k - 1] - 0.5);
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  if (errors.empty()) return Rows{{"station of 8 sockets with 50 live viewers", "failed"}};
  const auto [median, worst] = MedianAndWorst(errors);
  return Rows{{"WAITSECONDS 0.5, a station of 8 sockets, 50 live viewers: error, median",
               Fixed(median * 1000, "ms")},
              {"  worst of " + std::to_string(errors.size()), Fixed(worst * 1000, "ms")},
              {"  live stream received per viewer", Fixed(received / 1024.0 / kViewers, "KiB", 1)}};
});

}  // namespace
}  // namespace tavrix::bench
