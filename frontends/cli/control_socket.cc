#include "control_socket.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "common/checked_numbers.h"
#include "common/clock.h"
#include "common/trace.h"
#include "control_protocol.h"
#include "engine/run_record.h"
#include "platform/files.h"
#include "platform/local_endpoint.h"

namespace tavrix {

std::string RunsFolder(const std::string& dataRoot) { return dataRoot + "/runs"; }

namespace {

std::string Error(const std::string& text) {
  return "{\"ok\":false,\"error\":" + jsonString(text) + "}";
}
const std::string kOk = "{\"ok\":true}";

using platform::LocalServer;
namespace fs = std::filesystem;

// Makes `folder` for its owner alone; false when it is there already.
bool MakePrivateFolder(const std::string& folder, std::error_code& error) {
  if (!fs::create_directory(folder, error)) return false;
  fs::permissions(folder, fs::perms::owner_all, error);
  return !error;
}

}  // namespace

class ControlSocket::Impl : public std::enable_shared_from_this<ControlSocket::Impl> {
 public:
  Impl(Engine& engine, Breakpoints& breakpoints, std::string sequence, int64_t origin,
       std::string testSocket, bool started)
      : engine_(engine),
        breakpoints_(breakpoints),
        sequence_(std::move(sequence)),
        testSocket_(std::move(testSocket)),
        origin_(origin),
        state_(started ? "running" : "ready") {}

  bool open(const std::string& dataRoot, const std::string& runId, std::string* error) {
    const std::string runs = RunsFolder(dataRoot);
    std::error_code failed;
    fs::create_directories(dataRoot, failed);
    if (!MakePrivateFolder(runs, failed) && failed) {
      *error = "cannot make " + runs + ": " + failed.message();
      return false;
    }
    const std::string base = NewRunId(SystemClock().now());
    if (!runId.empty()) {
      // The run's folder, made for its record: it is for its owner alone.
      runId_ = runId;
      const std::string folder = runs + "/" + runId_;
      fs::permissions(folder, fs::perms::owner_all, failed);
      if (failed) {
        *error = "cannot make " + folder + " private: " + failed.message();
        return false;
      }
    }
    for (int n = 1; runId.empty(); ++n) {
      runId_ = n == 1 ? base : base + "-" + std::to_string(n);
      dir_ = runs + "/" + runId_;
      if (MakePrivateFolder(dir_, failed)) break;
      if (failed || n > 100) {
        *error = "cannot make " + dir_ + ": " + failed.message();
        dir_.clear();
        return false;
      }
    }
    path_ = (runId.empty() ? dir_ : runs + "/" + runId_) + "/control.sock";
    server_ = LocalServer::Listen(path_, error);
    if (!server_) return false;
    auto self = shared_from_this();
    subscription_ = engine_.subscribe([self](const RunEvent& event) { self->runEvent(event); });
    thread_ = std::thread([self] { self->serve(); });
    return true;
  }

  // Stops serving: the clients get what is left for them (for a moment),
  // then the socket and its folder go.
  void close() {
    subscription_.reset();
    {
      std::lock_guard guard(mutex_);
      stopping_ = true;
    }
    wake();
    if (thread_.joinable()) thread_.join();
    std::lock_guard guard(mutex_);
    clients_.clear();
    server_.reset();
    std::error_code ignored;
    if (!path_.empty()) fs::remove(path_, ignored);
    if (!dir_.empty()) fs::remove(dir_, ignored);
  }

  const std::string& runId() const { return runId_; }
  const std::string& path() const { return path_; }
  void setAnswers(AnswerRelay* relay) { answers_.store(relay); }

 private:
  struct Client {
    std::string in;
    std::string out;
    bool events = false;
    bool closeWhenFlushed = false;
    bool drop = false;
    bool readClosed = false;
  };

  void wake() {
    if (server_) server_->wake();
  }

  // Engine thread: keeps the status and hands the event to the followers.
  void runEvent(const RunEvent& event) {
    // The common cases cost no lock: a line, the current command, an
    // output's value, with nobody following.
    if (followers_.load(std::memory_order_relaxed) == 0 &&
        (event.kind == RunEventKind::kLine || event.kind == RunEventKind::kCommand ||
         event.kind == RunEventKind::kTimeout || event.kind == RunEventKind::kOutput)) {
      if (event.kind == RunEventKind::kLine) line_.store(event.line, std::memory_order_relaxed);
      return;
    }
    std::lock_guard guard(mutex_);
    switch (event.kind) {
      case RunEventKind::kStarted:
      case RunEventKind::kRelease:
        state_ = "running";
        break;
      case RunEventKind::kHold:
        state_ = "held";
        holdReason_ = event.title;
        holdId_ = event.number;
        line_.store(event.line, std::memory_order_relaxed);
        break;
      case RunEventKind::kLine:
        line_.store(event.line, std::memory_order_relaxed);
        break;
      case RunEventKind::kStatus:
        status_ = event.text;
        break;
      case RunEventKind::kEnd:
        state_ = "ended";
        endReason_ = event.text;
        break;
      default:
        break;
    }
    if (followers_.load(std::memory_order_relaxed) > 0) {
      const std::string line = RunEventJson(event, origin_) + "\n";
      for (auto& [id, client] : clients_) {
        if (!client.events) continue;
        client.out += line;
        if (client.out.size() > kControlClientBacklog) client.drop = true;
        if (event.kind == RunEventKind::kEnd) client.closeWhenFlushed = true;
      }
      wake();
    }
  }

  // Any thread: queues a reply for client `id` if it is still there.
  void reply(int id, const std::string& line) {
    std::lock_guard guard(mutex_);
    const auto it = clients_.find(id);
    if (it == clients_.end()) return;
    it->second.out += line + "\n";
    wake();
  }

  std::string statusJson() const {
    std::string json = "{\"ok\":true,\"run\":" + jsonString(runId_) +
                       ",\"pid\":" + std::to_string(platform::processId()) +
                       ",\"sequence\":" + jsonString(sequence_) +
                       (testSocket_.empty() ? "" : ",\"socket\":" + jsonString(testSocket_)) +
                       ",\"state\":" + jsonString(state_) +
                       ",\"line\":" + std::to_string(line_.load()) +
                       ",\"status\":" + jsonString(status_);
    if (state_ == "held") {
      json += ",\"hold\":" + jsonString(holdReason_);
      if (holdReason_ == "break") json += ",\"breakpoint\":" + std::to_string(holdId_);
    }
    if (state_ == "ended") json += ",\"end\":" + jsonString(endReason_);
    if (AnswerRelay* relay = answers_.load(); relay != nullptr && state_ != "ended") {
      if (const auto question = relay->openQuestion()) {
        json += ",\"question\":{\"kind\":" + jsonString(question->kind) +
                ",\"text\":" + jsonString(question->text) + ",\"choices\":[";
        for (size_t i = 0; i < question->choices.size(); ++i)
          json += (i > 0 ? "," : "") + jsonString(question->choices[i]);
        json += "]}";
      }
    }
    json += ",\"breakpoints\":[";
    bool first = true;
    for (const Breakpoint& b : breakpoints_.list()) {
      if (!first) json += ',';
      first = false;
      json += "{\"id\":" + std::to_string(b.id) + ",\"spec\":" + jsonString(b.spec) +
              ",\"what\":" + jsonString(DescribeBreakpoint(b)) + "}";
    }
    return json + "]}";
  }

  // Server thread, under the lock: answers one request line.
  void request(int id, Client& client, const std::string& line) {
    std::string error;
    const auto parsed = ParseControlRequest(line, &error);
    if (!parsed) {
      client.out += Error(error) + "\n";
      return;
    }
    const ControlRequest& r = *parsed;
    if (r.cmd == "status") {
      client.out += statusJson() + "\n";
      return;
    }
    if (state_ == "ended") {
      client.out += Error("the run has ended (" + endReason_ + ")") + "\n";
      return;
    }
    auto self = shared_from_this();
    if (r.cmd == "events") {
      if (!client.events) ++followers_;
      client.events = true;
      client.out += kOk + "\n";
    } else if (r.cmd == "pause" || r.cmd == "resume" || r.cmd == "step" || r.cmd == "skip") {
      if (r.cmd == "pause") engine_.pause();
      if (r.cmd == "resume") engine_.resume();
      if (r.cmd == "step") engine_.step();
      if (r.cmd == "skip") engine_.skip();
      client.out += kOk + "\n";
    } else if (r.cmd == "stop") {
      engine_.close([self, id](bool closed) {
        self->reply(id, closed ? kOk : Error("the run goes on: it may not be stopped (NONSTOP)"));
      });
    } else if (r.cmd == "break") {
      engine_.post([self, id, args = r.args](Engine&) { self->breakCommand(id, args); });
    } else if (r.cmd == "watch") {
      if (r.args.empty()) {
        client.out += Error("watch wants one or more channel names") + "\n";
        return;
      }
      engine_.post([self, id, channels = r.args](Engine& engine) {
        Instrument* instrument = engine.instrument();
        std::string json = "{\"ok\":true,\"values\":{";
        for (size_t i = 0; i < channels.size(); ++i) {
          std::string value;
          const bool read = instrument != nullptr && instrument->isOpen() &&
                            instrument->channels().ReadChannel(channels[i], value);
          if (i > 0) json += ',';
          json += jsonString(channels[i]) + ":" + (read ? jsonString(value) : "null");
        }
        self->reply(id, json + "}}");
      });
    } else if (r.cmd == "answer") {
      AnswerRelay* relay = answers_.load();
      if (r.args.empty()) {
        client.out += Error("answer wants the caption (or number) of an answer") + "\n";
      } else if (relay == nullptr) {
        client.out += Error("this run's questions are answered only where they are shown") + "\n";
      } else {
        std::string text;
        for (const auto& word : r.args) text += (text.empty() ? "" : " ") + word;
        engine_.post([self, id, relay, text](Engine&) {
          std::string error;
          self->reply(id, relay->answer(text, &error) ? kOk : Error(error));
        });
      }
    } else {
      client.out += Error("unknown command \"" + r.cmd +
                          "\" (status, pause, resume, step, skip, stop, break, watch, answer, "
                          "events)") +
                    "\n";
    }
  }

  // Engine thread: "break" lists, "break SPEC" and "break if CONDITION" set,
  // "break clear ID" clears.
  void breakCommand(int id, const std::vector<std::string>& args) {
    std::string error;
    if (args.empty() || (args.size() == 1 && args[0] == "list")) {
      std::lock_guard guard(mutex_);
      const std::string status = statusJson();
      const auto it = clients_.find(id);
      if (it != clients_.end()) it->second.out += status + "\n";
      wake();
      return;
    }
    if (args[0] == "clear") {
      const auto number = args.size() == 2 ? parseWholeNumber(args[1]) : std::nullopt;
      if (!number) return reply(id, Error("break clear wants a breakpoint's id"));
      if (!breakpoints_.remove(*number))
        return reply(id, Error("there is no breakpoint " + args[1]));
      return reply(id, kOk);
    }
    const bool condition = args[0] == "if";
    std::string spec;
    for (size_t i = condition ? 1 : 0; i < args.size(); ++i)
      spec += (spec.empty() ? "" : " ") + args[i];
    const auto added = breakpoints_.add(spec, condition, &error);
    reply(id, added ? "{\"ok\":true,\"id\":" + std::to_string(*added) + "}" : Error(error));
  }

  void serve() {
    std::chrono::steady_clock::time_point stopBy{};
    for (;;) {
      std::vector<LocalServer::Interest> interests;
      bool accept = false;
      bool stopping = false;
      {
        std::lock_guard guard(mutex_);
        stopping = stopping_;
        if (stopping_ && stopBy == std::chrono::steady_clock::time_point{})
          stopBy = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        // Clients done with, or that fell too far behind, go.
        for (auto it = clients_.begin(); it != clients_.end();) {
          Client& c = it->second;
          if (c.drop || (c.closeWhenFlushed && c.out.empty())) {
            if (c.events) --followers_;
            server_->close(it->first);
            it = clients_.erase(it);
          } else {
            ++it;
          }
        }
        bool pending = false;
        for (auto& [id, c] : clients_) pending = pending || !c.out.empty();
        if (stopping_ && (!pending || std::chrono::steady_clock::now() >= stopBy)) return;
        accept = !stopping_;
        for (auto& [id, c] : clients_)
          interests.push_back({id, !stopping_ && !c.readClosed, !c.out.empty()});
      }
      // Only this thread uses the server's connections; other threads only
      // wake it.
      std::vector<int> accepted;
      std::vector<LocalServer::Ready> ready;
      if (!server_->wait(accept, interests, stopping ? 100 : -1, accepted, ready)) return;
      std::lock_guard guard(mutex_);
      for (const int id : accepted) clients_[id];
      for (const LocalServer::Ready& r : ready) {
        const auto it = clients_.find(r.id);
        if (it == clients_.end()) continue;
        Client& c = it->second;
        if (r.readable && !c.readClosed) readFrom(r.id, c);
        if (r.hangup && c.readClosed && !r.writable) c.drop = true;
        if (r.writable && !c.out.empty()) {
          const long n = server_->write(r.id, c.out.data(), c.out.size());
          if (n > 0) {
            c.out.erase(0, static_cast<size_t>(n));
          } else if (n == LocalServer::kBroken) {
            c.drop = true;
          }
        }
      }
    }
  }

  // Under the lock: reads what the client sent and answers each whole line.
  void readFrom(int id, Client& c) {
    char buf[8192];
    for (;;) {
      const long n = server_->read(id, buf, sizeof buf);
      if (n == 0) {
        // The client sent all it will; it may still read its replies.
        if (c.out.empty() && !c.events) c.drop = true;
        c.closeWhenFlushed = !c.events;
        shutdownRead(id, c);
        return;
      }
      if (n < 0) {
        if (n == LocalServer::kBroken) c.drop = true;
        return;
      }
      c.in.append(buf, static_cast<size_t>(n));
      size_t start = 0;
      for (size_t end; (end = c.in.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = c.in.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.size() > kControlMessageLimit) {
          oversized(id, c);
          return;
        }
        if (!line.empty()) request(id, c, line);
      }
      c.in.erase(0, start);
      if (c.in.size() > kControlMessageLimit) {
        oversized(id, c);
        return;
      }
    }
  }

  void oversized(int id, Client& c) {
    c.in.clear();
    c.out += Error("a message may hold at most 65536 bytes") + "\n";
    c.closeWhenFlushed = true;
    shutdownRead(id, c);
  }
  void shutdownRead(int id, Client& c) {
    server_->stopReading(id);
    c.readClosed = true;
  }

  Engine& engine_;
  Breakpoints& breakpoints_;
  std::string sequence_;
  std::string testSocket_;
  int64_t origin_;
  std::string runId_, dir_, path_;
  std::unique_ptr<LocalServer> server_;
  std::thread thread_;
  RunEventBus::Subscription subscription_;

  mutable std::mutex mutex_;
  std::map<int, Client> clients_;
  bool stopping_ = false;
  std::string state_;
  std::string status_;
  std::atomic<AnswerRelay*> answers_{nullptr};
  std::string holdReason_;
  int64_t holdId_ = 0;
  std::atomic<int32_t> line_{0};
  // Clients that follow the events (changed under the lock).
  std::atomic<int> followers_{0};
  std::string endReason_;
};

std::unique_ptr<ControlSocket> ControlSocket::Open(Engine& engine, Breakpoints& breakpoints,
                                                   const std::string& dataRoot,
                                                   const std::string& sequence, int64_t origin,
                                                   std::string* error,
                                                   const std::string& testSocket,
                                                   const std::string& runId, bool started) {
  auto impl = std::make_shared<Impl>(engine, breakpoints, sequence, origin, testSocket, started);
  if (!impl->open(dataRoot, runId, error)) {
    impl->close();
    return nullptr;
  }
  return std::unique_ptr<ControlSocket>(new ControlSocket(std::move(impl)));
}

ControlSocket::ControlSocket(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
ControlSocket::~ControlSocket() { impl_->close(); }
const std::string& ControlSocket::runId() const { return impl_->runId(); }
const std::string& ControlSocket::path() const { return impl_->path(); }
void ControlSocket::setAnswers(AnswerRelay* relay) { impl_->setAnswers(relay); }

}  // namespace tavrix
