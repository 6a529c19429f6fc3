// The plant view on the system clock: how late a WAITSECONDS 0.5 ends in
// each of eight runs going at once, each with its control socket, while 50
// viewers follow the live page's stream of their events. The server and its
// live view read the runs through their sockets on threads of their own;
// this shows that they do not hold the runs up.

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "bench_support.h"
#include "common/file_system.h"
#include "control_socket.h"
#include "engine/breakpoints.h"
#include "engine/engine.h"
#include "plant_server.h"
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
  auto server = plant::Server::Start(options, &error);
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

}  // namespace
}  // namespace tavrix::bench
