#include "live_monitor.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>

#include "control_protocol.h"
#include "control_socket_address.h"

namespace tavrix::plant {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr size_t kMessagesKept = 5;
// A line longer than this from a run's socket ends the connection.
constexpr size_t kLineLimit = 1024 * 1024;
// Scans an ended run stays on the page.
constexpr int kEndedScansKept = 40;

bool SendLine(int fd, const std::string& line) {
  const std::string text = line + "\n";
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

json Parse(const std::string& line) {
  json j = json::parse(line, nullptr, false);
  return j.is_object() ? j : json::object();
}

std::string Str(const json& j, const char* key) {
  const auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

long Int(const json& j, const char* key, long otherwise = 0) {
  const auto it = j.find(key);
  return it != j.end() && it->is_number_integer() ? it->get<long>() : otherwise;
}

// Takes one event of the run's stream into its view.
void Apply(LiveRun& run, const json& e) {
  const std::string ev = Str(e, "ev");
  if (ev == "line") {
    run.line = static_cast<int>(Int(e, "n"));
    run.lineText = Str(e, "text");
    if (run.state == "ready") run.state = "running";
  } else if (ev == "status") {
    run.runStatus = Str(e, "text");
  } else if (ev == "command") {
    run.command = Str(e, "text");
  } else if (ev == "timeout") {
    run.timeoutLeft = Int(e, "number", -1);
  } else if (ev == "message") {
    std::string text = Str(e, "title");
    if (!text.empty()) text += ": ";
    text += Str(e, "text");
    run.messages.push_back(text);
    if (run.messages.size() > kMessagesKept) run.messages.erase(run.messages.begin());
  } else if (ev == "prompt") {
    // A question opens with the answers offered, and closes with the answer.
    if (e.contains("answer")) {
      run.prompt = nullptr;
    } else {
      run.prompt = {{"kind", Str(e, "title")},
                    {"text", Str(e, "text")},
                    {"items", e.value("items", json::array())}};
    }
  } else if (ev == "hold") {
    run.state = "held";
    run.line = static_cast<int>(Int(e, "n", run.line));
  } else if (ev == "resume" || ev == "started" || ev == "resumed") {
    run.state = "running";
  } else if (ev == "uut") {
    run.lastSerial = Str(e, "title");
    run.lastVerdict = e.value("flag", false) ? "PASS" : "FAIL";
  } else if (ev == "end") {
    run.state = "ended";
    run.endReason = Str(e, "text");
    run.prompt = nullptr;
  }
}

json RunJson(const LiveRun& r) {
  json j = r.status;
  j["id"] = r.id;
  j["state"] = r.state;
  j["line"] = r.line;
  j["line_text"] = r.lineText;
  j["run_status"] = r.runStatus;
  j["command"] = r.command;
  if (r.timeoutLeft >= 0) j["timeout_left"] = r.timeoutLeft;
  j["messages"] = r.messages;
  j["prompt"] = r.prompt;
  j["last_serial"] = r.lastSerial;
  j["last_verdict"] = r.lastVerdict;
  if (!r.endReason.empty()) j["end"] = r.endReason;
  j.erase("ok");
  return j;
}

}  // namespace

bool ReadSocketLine(int fd, std::string& buffer, std::string& line, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const size_t end = buffer.find('\n');
    if (end != std::string::npos) {
      line = buffer.substr(0, end);
      buffer.erase(0, end + 1);
      return true;
    }
    if (buffer.size() > kLineLimit) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (timeoutMs >= 0 && left <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, timeoutMs < 0 ? -1 : static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char chunk[8192];
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<size_t>(n));
  }
}

// One followed run: its connection and thread. The thread ends when the
// run closes the connection or the monitor shuts it down.
struct LiveMonitor::Follower {
  int fd = -1;
  std::thread thread;
  bool done = false;  // under the monitor's lock
};

LiveMonitor::LiveMonitor(std::string runsFolder, int scanMs)
    : runsFolder_(std::move(runsFolder)), scanMs_(scanMs) {
  scanner_ = std::thread([this] { scanLoop(); });
}

LiveMonitor::~LiveMonitor() { stop(); }

void LiveMonitor::stop() {
  std::map<std::string, std::shared_ptr<Follower>> followers;
  {
    std::lock_guard guard(mutex_);
    if (stopping_ && followers_.empty() && !scanner_.joinable()) return;
    stopping_ = true;
    // Wakes each follower from its read.
    for (auto& [id, f] : followers_)
      if (f->fd >= 0) ::shutdown(f->fd, SHUT_RDWR);
    cv_.notify_all();
  }
  if (scanner_.joinable()) scanner_.join();
  {
    std::lock_guard guard(mutex_);
    followers.swap(followers_);
  }
  for (auto& [id, f] : followers) {
    if (f->thread.joinable()) f->thread.join();
    if (f->fd >= 0) ::close(f->fd);
  }
}

void LiveMonitor::changed() {
  ++version_;
  cv_.notify_all();
}

json LiveMonitor::snapshot() const {
  std::lock_guard guard(mutex_);
  json runs = json::array();
  for (const auto& [id, run] : runs_) runs.push_back(RunJson(run));
  return {{"version", version_}, {"runs", runs}};
}

long LiveMonitor::version() const {
  std::lock_guard guard(mutex_);
  return version_;
}

long LiveMonitor::waitForChange(long version, int timeoutMs) const {
  std::unique_lock lock(mutex_);
  cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
               [&] { return version_ != version || stopping_; });
  return version_;
}

void LiveMonitor::scanLoop() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    lock.unlock();
    std::vector<std::pair<std::string, std::string>> found;
    std::error_code ec;
    for (fs::directory_iterator it(runsFolder_, ec), end; !ec && it != end; it.increment(ec)) {
      const fs::path socket = it->path() / "control.sock";
      if (fs::exists(socket, ec)) found.emplace_back(it->path().filename().string(), socket);
    }
    lock.lock();
    // Followers that are done are joined and their ended runs aged out.
    for (auto it = followers_.begin(); it != followers_.end();) {
      if (it->second->done) {
        auto f = it->second;
        it = followers_.erase(it);
        lock.unlock();
        if (f->thread.joinable()) f->thread.join();
        if (f->fd >= 0) ::close(f->fd);
        lock.lock();
      } else {
        ++it;
      }
    }
    for (auto it = endedScans_.begin(); it != endedScans_.end();) {
      if (++it->second > kEndedScansKept && !followers_.count(it->first)) {
        runs_.erase(it->first);
        it = endedScans_.erase(it);
        changed();
      } else {
        ++it;
      }
    }
    for (const auto& [id, socket] : found) {
      if (followers_.count(id) || endedScans_.count(id) || stopping_) continue;
      auto f = std::make_shared<Follower>();
      f->fd = ConnectControlSocket(socket);
      if (f->fd < 0) continue;  // gone meanwhile, or a socket nobody serves
      followers_[id] = f;
      f->thread = std::thread([this, run = id, fd = f->fd] { follow(run, fd); });
    }
    cv_.wait_for(lock, std::chrono::milliseconds(scanMs_), [&] { return stopping_; });
  }
}

void LiveMonitor::follow(const std::string& id, int fd) {
  std::string buffer;
  std::string line;
  auto finish = [&](bool ended) {
    std::lock_guard guard(mutex_);
    auto run = runs_.find(id);
    if (run != runs_.end()) {
      if (run->second.state != "ended") {
        run->second.state = "ended";
        if (run->second.endReason.empty() && !ended) run->second.endReason = "gone";
      }
      endedScans_[id] = 0;
      changed();
    }
    auto f = followers_.find(id);
    if (f != followers_.end()) f->second->done = true;
  };
  // The events first, and then the status on the same connection: the
  // status comes in the stream at its place among the events, so nothing
  // that happens between the two is missed (a hold just before the events
  // were asked for would leave the run "running" for good). Events before
  // the status are older than it and are passed over.
  bool known = false;
  const auto takeStatus = [&](json status) {
    known = true;
    LiveRun& run = runs_[id];
    run.id = id;
    run.state = Str(status, "state");
    run.line = static_cast<int>(Int(status, "line"));
    run.runStatus = Str(status, "status");
    run.endReason = Str(status, "end");
    status.erase("breakpoints");
    run.status = std::move(status);
    changed();
  };
  if (!SendLine(fd, ControlRequestJson({"events", {}})) ||
      !ReadSocketLine(fd, buffer, line, 5000)) {
    return finish(false);
  }
  if (line.rfind("{\"ok\":true", 0) != 0) {
    // A run that has ended takes no followers: its last status is all.
    if (SendLine(fd, ControlRequestJson({"status", {}})) &&
        ReadSocketLine(fd, buffer, line, 5000)) {
      std::lock_guard guard(mutex_);
      takeStatus(Parse(line));
    }
    return finish(false);
  }
  if (!SendLine(fd, ControlRequestJson({"status", {}}))) return finish(false);
  while (ReadSocketLine(fd, buffer, line, -1)) {
    json message = Parse(line);
    std::lock_guard guard(mutex_);
    if (stopping_) break;
    if (message.contains("ev")) {
      if (!known) continue;
      Apply(runs_[id], message);
      changed();
    } else if (!known && message.contains("state")) {
      takeStatus(std::move(message));
    }
  }
  finish(true);
}

bool LiveMonitor::control(const std::string& id, const std::string& cmd,
                          const std::vector<std::string>& args, std::string& reply,
                          std::string* error) const {
  {
    std::lock_guard guard(mutex_);
    if (!runs_.count(id)) {
      if (error) *error = "no run " + id + " is going on this station";
      return false;
    }
  }
  const int fd = ConnectControlSocket((fs::path(runsFolder_) / id / "control.sock").string());
  if (fd < 0) {
    if (error) *error = "run " + id + " has ended";
    return false;
  }
  std::string buffer;
  const bool ok =
      SendLine(fd, ControlRequestJson({cmd, args})) && ReadSocketLine(fd, buffer, reply, 10000);
  ::close(fd);
  if (!ok && error) *error = "run " + id + " did not answer";
  return ok;
}

}  // namespace tavrix::plant
