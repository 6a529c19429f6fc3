// How soon a pause sent through a run's control socket holds the run, on
// the system clock: a run goes round a loop of lines as fast as it can; a
// client sends {"cmd":"pause"} and the time to the run's hold event is
// taken, then it resumes the run; fifty times. A second loop waits 2 ms on
// each line (WAITSECONDS 0.002), where the pause waits for the line's end.

#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "bench_support.h"
#include "control_socket.h"
#include "control_socket_address.h"
#include "engine/breakpoints.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

constexpr int kPauses = 50;

// A client that sends a request and reads its one-line reply.
bool Ask(int fd, const std::string& request) {
  const std::string text = request + "\n";
  if (::send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
    return false;
  char c = 0;
  while (::recv(fd, &c, 1, 0) == 1)
    if (c == '\n') return true;
  return false;
}

// Milliseconds from each pause's send to its hold, for a run of `lines`.
std::vector<double> PauseLatencies(const std::vector<std::string>& lines) {
  ScratchFolder root;
  const std::string path = WriteSequence(lines);
  QuietOperator op;
  EngineConfig config;
  config.clock = std::make_unique<SystemClock>();
  config.files = std::make_unique<LocalFileSystem>(root.path());
  config.op = &op;
  const auto engine = BuildEngine(std::move(config));
  std::string error;
  std::vector<double> latencies;
  if (!engine->sequencer().prepareFile(path, &error)) return latencies;
  Breakpoints breakpoints(*engine);
  const auto socket = ControlSocket::Open(*engine, breakpoints, root.path(), path, 0, &error);
  if (!socket) return latencies;

  std::mutex mutex;
  std::condition_variable changed;
  int holds = 0, releases = 0;
  std::chrono::steady_clock::time_point heldAt;
  auto watch = engine->subscribe([&](const RunEvent& event) {
    if (event.kind != RunEventKind::kHold && event.kind != RunEventKind::kRelease) return;
    std::lock_guard guard(mutex);
    if (event.kind == RunEventKind::kHold) {
      heldAt = std::chrono::steady_clock::now();
      ++holds;
    } else {
      ++releases;
    }
    changed.notify_all();
  });
  std::thread run([&] { engine->run(); });
  const int fd = ConnectControlSocket(socket->path());
  // Let the run get going first.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (int i = 0; i < kPauses && fd >= 0; ++i) {
    const auto sent = std::chrono::steady_clock::now();
    if (!Ask(fd, "{\"cmd\":\"pause\"}")) break;
    {
      std::unique_lock lock(mutex);
      if (!changed.wait_for(lock, std::chrono::seconds(5), [&] { return holds > i; })) break;
      latencies.push_back(std::chrono::duration<double, std::milli>(heldAt - sent).count());
    }
    if (!Ask(fd, "{\"cmd\":\"resume\"}")) break;
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(5), [&] { return releases > i; });
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (fd >= 0) {
    Ask(fd, "{\"cmd\":\"stop\"}");
    ::close(fd);
  }
  run.join();
  std::remove(path.c_str());
  return latencies;
}

Rows Report(const char* what, const std::vector<double>& latencies) {
  if (latencies.size() < kPauses) return Rows{{what, "failed"}};
  const auto [median, worst] = MedianAndWorst(latencies);
  return Rows{{std::string(what) + ", median", Fixed(median, "ms")},
              {std::string(what) + ", worst", Fixed(worst, "ms")}};
}

const RegisterTiming kPauseLatency("pause", [] {
  Rows rows = Report("pause through the control socket to hold, free-running lines",
                     PauseLatencies({"TOP:", "RESETLOOPCOUNT", "GOTO TOP"}));
  const Rows waiting = Report("pause through the control socket to hold, 2 ms lines",
                              PauseLatencies({"TOP:", "WAITSECONDS 0.002", "GOTO TOP"}));
  rows.insert(rows.end(), waiting.begin(), waiting.end());
  return rows;
});

}  // namespace
}  // namespace tavrix::bench
