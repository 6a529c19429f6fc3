#include "instrument/tcp/tcp_link.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "common/text_file.h"
#include "common/trace.h"
#include "instrument/tcp/link_key.h"

namespace tavrix {
namespace {

int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

TcpLink::TcpLink(const Clock& clock, std::string host, uint16_t port, const FileSystem& files,
                 TcpLinkOptions options)
    : clock_(clock),
      files_(files),
      options_(options),
      ownClock_(std::make_unique<SystemClock>()),
      ownEvents_(std::make_unique<EventLoop>(*ownClock_)),
      host_(std::move(host)),
      port_(port) {}

TcpLink::~TcpLink() { disconnect(); }

void TcpLink::disconnect() {
  if (watcher_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(watch_->mutex);
      watch_->quit = true;
    }
    watch_->wake.notify_all();
    // Wakes a watcher that waits for the connection.
    platform::shutdownSocket(socket_);
    watcher_.join();
  }
  watch_.reset();
  platform::closeSocket(socket_);
  socket_ = platform::kNoSocket;
  ++generation_;
  for (auto& r : readyReply_) r.reset();
}

void TcpLink::useEventLoop(EventLoop& events) {
  events_ = &events;
  if (watch_) {
    std::lock_guard<std::mutex> lock(watch_->mutex);
    watch_->loop = events_;
  }
}

void TcpLink::startWatching() {
  watch_ = std::make_unique<Watch>();
  watch_->loop = &events();
  watcher_ =
      std::thread([watch = watch_.get(), socket = socket_] { watchConnection(*watch, socket); });
}

std::string TcpLink::readAvailable(platform::Socket socket, bool& closed) {
  std::string got;
  char chunk[4096];
  closed = false;
  // What is read at one go is bounded, so that a peer that never stops
  // sending is looked at before it fills the memory.
  while (got.size() < kMaxResponseBytes) {
    const long n = platform::receiveSome(socket, chunk, sizeof chunk);
    if (n > 0) {
      got.append(chunk, static_cast<size_t>(n));
      continue;
    }
    closed = n != platform::kWouldBlock;
    break;
  }
  return got;
}

bool TcpLink::absorb(Watch& watch, std::string_view got, bool closed) {
  bool settled = false;
  watch.inbox += got;
  size_t start = 0;
  for (size_t eol; (eol = watch.inbox.find('\n', start)) != std::string::npos; start = eol + 1) {
    RigResponse response;
    if (!ParseRigResponse(std::string_view(watch.inbox).substr(start, eol - start), response))
      continue;
    if (response.id == 0 && response.code == kRigKeyRefused) {
      watch.refusal = response.text.value_or("");
      settled = true;
    } else if (response.id == 0 && response.code == kRigIdleClosed) {
      watch.idleNotice = true;
    } else if (response.id == 0) {
      watch.notice = visibleText(response.text.value_or("code " + std::to_string(response.code)));
      settled = true;
    } else if (watch.waiting.erase(response.id) > 0) {
      // Responses to requests given up earlier are dropped.
      watch.answered[response.id] = std::move(response);
      settled = true;
    }
  }
  watch.inbox.erase(0, start);
  if (watch.inbox.size() > kMaxResponseBytes) {
    watch.overlong = true;
    watch.inbox.clear();
    watch.inbox.shrink_to_fit();
    closed = true;
  }
  if (closed || watch.quit) {
    watch.closed = true;
    watch.waiting.clear();
    settled = true;
  }
  const int64_t now = steadyMs();
  for (auto it = watch.waiting.begin(); it != watch.waiting.end();) {
    if (it->second > now) {
      ++it;
      continue;
    }
    watch.expired.insert(it->first);
    it = watch.waiting.erase(it);
    settled = true;
  }
  return settled;
}

void TcpLink::watchConnection(Watch& watch, platform::Socket socket) {
  std::unique_lock<std::mutex> lock(watch.mutex);
  for (;;) {
    watch.wake.wait(lock, [&] { return watch.quit || (!watch.waiting.empty() && !watch.direct); });
    if (watch.quit) return;
    int64_t deadline = INT64_MAX;
    for (const auto& [id, due] : watch.waiting) deadline = std::min(deadline, due);
    watch.polling = true;
    lock.unlock();
    std::vector<platform::Watch> ready{{socket, true, false}};
    const int64_t left = std::clamp<int64_t>(deadline - steadyMs(), 0, 60'000);
    std::string got;
    bool closed = false;
    if (platform::waitSockets(ready, static_cast<int>(left)) > 0)
      got = readAvailable(socket, closed);
    lock.lock();
    watch.polling = false;
    const bool settled = absorb(watch, got, closed);
    const bool done = watch.closed;
    if (settled) {
      EventLoop* loop = watch.loop;
      lock.unlock();
      loop->post([] {});
      lock.lock();
    }
    if (done) return;
  }
}

void TcpLink::waitDirectly(uint64_t id, int64_t until) {
  Watch& watch = *watch_;
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(watch.mutex);
      if (watch.answered.count(id) > 0 || watch.expired.count(id) > 0 || watch.closed ||
          watch.refusal.has_value()) {
        watch.direct = false;
        return;
      }
    }
    const int64_t left = until - steadyMs();
    std::vector<platform::Watch> ready{{socket_, true, false}};
    const bool readable = left > 0 && platform::waitSockets(ready, static_cast<int>(left)) > 0;
    bool closed = false;
    std::string got;
    if (readable) got = readAvailable(socket_, closed);
    std::lock_guard<std::mutex> lock(watch.mutex);
    absorb(watch, got, closed);
    if (!readable && watch.answered.count(id) == 0 && !watch.closed) {
      // Not settled within the time on this thread: the watcher takes over.
      watch.direct = false;
      watch.wake.notify_all();
      return;
    }
  }
}

bool TcpLink::connectSocket() {
  problem_.clear();
  socket_ = platform::connectTcp(host_, port_, options_.connectWaitMs, &problem_);
  if (socket_ == platform::kNoSocket) return false;
  problem_.clear();
  startWatching();
  return true;
}

int32_t TcpLink::exchange(const std::string& body, RigResponse& response, int waitMs,
                          int32_t whenNoAnswer) {
  switch (request(body, response, waitMs)) {
    case Outcome::kLost:
      return link_result::kLinkLost;
    case Outcome::kNoAnswer:
      return whenNoAnswer;
    case Outcome::kOk:
      break;
  }
  return link_result::kOk;
}

void TcpLink::reconnectIfDropped() {
  // No request is waiting, so the watcher does not read the connection now.
  bool closed = false;
  bool idle = false;
  {
    std::lock_guard<std::mutex> lock(watch_->mutex);
    std::vector<platform::Watch> ready{{socket_, true, false}};
    if (!watch_->closed && platform::waitSockets(ready, 0) == 1) {
      char chunk[512];
      long n;
      while ((n = platform::receiveSome(socket_, chunk, sizeof chunk)) > 0)
        watch_->inbox.append(chunk, static_cast<size_t>(n));
      watch_->closed = n == 0;
    }
    closed = watch_->closed;
    idle = watch_->idleNotice ||
           watch_->inbox.find("0 " + std::to_string(kRigIdleClosed) + " =") != std::string::npos;
  }
  // Only a connection the server closed for idleness is taken up again; a
  // server that went away leaves the link lost.
  if (!closed || !idle) return;
  disconnect();
  RigResponse r;
  if (!connectSocket()) return;
  if ((!key_.empty() && !proveKey()) || !greet(r)) disconnect();
}

bool TcpLink::proveKey() {
  const std::string nonce = NewNonce();
  RigResponse r;
  if (nonce.empty()) {
    problem_ = "the system's random generator failed";
    return false;
  }
  if (request("KEY " + nonce, r, options_.connectWaitMs) != Outcome::kOk) {
    if (problem_.empty())
      problem_ = "the rig server at " + address() + " did not answer the key check";
    return false;
  }
  if (r.code != link_result::kOk || !r.text) {
    problem_ = "the rig server at " + address() +
               " asks for no key; a link with a key does not use a server that cannot prove it";
    return false;
  }
  const std::string_view answer = *r.text;
  const size_t blank = answer.find(' ');
  const std::string_view serverNonce = answer.substr(0, blank);
  const std::string_view serverProof =
      blank == std::string_view::npos ? std::string_view{} : answer.substr(blank + 1);
  if (!IsNonce(serverNonce) || !SameProof(serverProof, ServerProof(key_, nonce, serverNonce))) {
    // A proof that cannot pass, so that the server too records the refusal.
    request("PROOF -", r, options_.connectWaitMs);
    problem_ = "the bridge at " + address() + " refused the key: the two sides' keys differ";
    return false;
  }
  if (request("PROOF " + LinkProof(key_, serverNonce, nonce), r, options_.connectWaitMs) !=
          Outcome::kOk ||
      r.code != link_result::kOk) {
    if (problem_.empty()) problem_ = "the bridge at " + address() + " refused the key";
    return false;
  }
  return true;
}

bool TcpLink::greet(RigResponse& r) {
  if (request(std::string(kRigHello2), r, options_.connectWaitMs) != Outcome::kOk || r.code != 0)
    return false;
  if (r.text == kRigGreeting2) {
    protocol_ = 2;
  } else if (r.text == kRigGreeting) {
    protocol_ = 1;
  } else {
    return false;
  }
  return true;
}

void TcpLink::forget(uint64_t id) {
  Watch& watch = *watch_;
  std::lock_guard<std::mutex> lock(watch.mutex);
  watch.waiting.erase(id);
  watch.expired.erase(id);
  watch.direct = false;
}

TcpLink::Outcome TcpLink::sendLine(const std::string& line, uint64_t id, int64_t deadline) {
  size_t sent = 0;
  while (sent < line.size()) {
    const long n = platform::sendSome(socket_, line.data() + sent, line.size() - sent);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n == platform::kBroken) {
      disconnect();
      return Outcome::kLost;
    }
    // The server reads no more for now (its buffer is full).
    std::vector<platform::Watch> ready{{socket_, false, true}};
    const int64_t left = deadline - steadyMs();
    if (left <= 0 || platform::waitSockets(ready, static_cast<int>(left)) <= 0) {
      // A request cut in half would spoil the stream: give the link up.
      if (sent > 0) {
        disconnect();
        return Outcome::kLost;
      }
      forget(id);
      return Outcome::kNoAnswer;
    }
  }
  return Outcome::kOk;
}

TcpLink::Outcome TcpLink::takeAnswer(uint64_t id, uint64_t generation, RigResponse& response) {
  // A task run during the wait closed the link (and let its watch go).
  if (generation_ != generation) return Outcome::kLost;
  Watch& watch = *watch_;
  std::unique_lock<std::mutex> lock(watch.mutex);
  if (const auto it = watch.answered.find(id); it != watch.answered.end()) {
    response = std::move(it->second);
    watch.answered.erase(it);
    return Outcome::kOk;
  }
  if (watch.refusal) {
    problem_ = "the bridge at " + address() + " refused the link: " + visibleText(*watch.refusal);
    lock.unlock();
    disconnect();
    return Outcome::kLost;
  }
  if (watch.closed) {
    if (watch.overlong) {
      problem_ = "the rig server at " + address() + " sent a line longer than " +
                 std::to_string(kMaxResponseBytes >> 20) + " MiB; the link is given up";
    } else if (watch.notice) {
      problem_ = "the rig server at " + address() + " closed the connection: " + *watch.notice;
    }
    lock.unlock();
    disconnect();
    return Outcome::kLost;
  }
  watch.waiting.erase(id);
  watch.expired.erase(id);
  return Outcome::kNoAnswer;
}

TcpLink::Outcome TcpLink::request(const std::string& body, RigResponse& response, int waitMs) {
  if (socket_ != platform::kNoSocket && body != kRigHello2 && depth_ == 0) reconnectIfDropped();
  if (socket_ == platform::kNoSocket) return Outcome::kLost;
  Watch& watch = *watch_;
  const uint64_t id = nextId_++;
  const std::string line = std::to_string(id) + " " + body + "\n";
  // Whole milliseconds, rounded up: the wait is never shorter than asked.
  const int64_t deadline = steadyMs() + waitMs + 1;
  // The response is read on this thread first when the watcher is idle and
  // the call is not made from within another call's wait.
  bool direct = false;
  {
    std::unique_lock<std::mutex> lock(watch.mutex);
    if (!watch.closed) {
      watch.waiting[id] = deadline;
      direct =
          options_.directWaitMs > 0 && depth_ == 0 && watch.waiting.size() == 1 && !watch.polling;
      watch.direct = direct;
    }
  }
  if (watch.closed) {
    disconnect();
    return Outcome::kLost;
  }
  if (!direct) watch.wake.notify_all();
  if (const Outcome sent = sendLine(line, id, deadline); sent != Outcome::kOk) return sent;
  if (direct) {
    // Never past the run's next due timer, which the direct wait would hold up.
    int64_t until = std::min(deadline, steadyMs() + options_.directWaitMs);
    const Micros due = events().nextDue();
    if (due != Clock::kNever)
      until = std::min(until, steadyMs() + std::max<Micros>(0, due - events().now()) / 1000);
    waitDirectly(id, until);
  }
  const uint64_t generation = generation_;
  const auto settled = [&] {
    if (generation_ != generation) return true;
    std::lock_guard<std::mutex> lock(watch.mutex);
    return watch.answered.count(id) > 0 || watch.expired.count(id) > 0 || watch.closed ||
           watch.refusal.has_value();
  };
  ++depth_;
  {
    EventLoop::OutsideWait network(events());
    events().waitUntil(settled);
  }
  --depth_;
  return takeAnswer(id, generation, response);
}

std::string TcpLink::timeText() const { return std::to_string(clock_.now()); }

int32_t TcpLink::openInterface(int16_t& handle) {
  disconnect();
  if (!connectSocket()) return link_result::kLinkLost;
  if (!key_.empty() && !proveKey()) {
    disconnect();
    return link_result::kLinkLost;
  }
  RigResponse r;
  if (!greet(r)) {
    if (problem_.empty() || socket_ != platform::kNoSocket) {
      problem_ = "no rig server answers at " + address() +
                 (r.text ? " (it said \"" + visibleText(*r.text) + "\")" : "");
    }
    disconnect();
    return link_result::kLinkLost;
  }
  handle = 1;
  return link_result::kOk;
}

int32_t TcpLink::closeInterface(int16_t /*handle*/) {
  disconnect();
  return link_result::kOk;
}

int32_t TcpLink::interfaceVersion(int16_t /*handle*/, std::string& text) {
  RigResponse r;
  if (request("VERSION", r, options_.responseWaitMs) != Outcome::kOk) return link_result::kLinkLost;
  if (r.text) WriteBuffer(text, *r.text);
  return link_result::kOk;
}

int32_t TcpLink::sendCommand(int16_t /*handle*/, int16_t device, std::string_view command,
                             bool wait) {
  if (socket_ == platform::kNoSocket) return link_result::kLinkLost;
  const bool mine = device >= 0 && device < 100;
  if (mine) readyReply_[device].reset();
  RigResponse r;
  // A command whose reply is polled for next takes the first poll along.
  const bool withReply = wait && protocol_ >= 2;
  const std::string body = (withReply ? "SENDREPLY " : "SEND ") + std::to_string(device) + " " +
                           timeText() + " " + EscapeField(BufferText(command));
  if (const int32_t failed = exchange(body, r, options_.responseWaitMs, link_result::kNotReady))
    return failed;
  if (r.code != link_result::kOk || !r.text || !mine) return r.code;
  ReadyReply ready;
  if (!withReply) {
    ready.text = std::move(*r.text);
  } else if (!ParseSendReplyText(*r.text, ready.code, ready.text)) {
    problem_ = "the rig server at " + address() + " answered a command with \"" +
               visibleText(*r.text) + "\", which is no reply";
    disconnect();
    return link_result::kLinkLost;
  }
  readyReply_[device] = std::move(ready);
  return r.code;
}

int32_t TcpLink::getReply(int16_t /*handle*/, int16_t device, std::string& buffer, bool /*wait*/) {
  if (socket_ == platform::kNoSocket) return link_result::kLinkLost;
  if (device >= 0 && device < 100 && readyReply_[device]) {
    const ReadyReply ready = std::move(*readyReply_[device]);
    readyReply_[device].reset();
    if (ready.code == link_result::kOk) WriteBuffer(buffer, ready.text);
    return ready.code;
  }
  RigResponse r;
  if (const int32_t failed = exchange("REPLY " + std::to_string(device) + " " + timeText(), r,
                                      options_.responseWaitMs, link_result::kNotReady))
    return failed;
  if (r.code == link_result::kOk && r.text) WriteBuffer(buffer, *r.text);
  return r.code;
}

int32_t TcpLink::abortReply(int16_t /*handle*/, int16_t device) {
  if (device >= 0 && device < 100) readyReply_[device].reset();
  RigResponse r;
  if (request("ABORT " + std::to_string(device), r, options_.responseWaitMs) == Outcome::kLost) {
    return link_result::kLinkLost;
  }
  return link_result::kOk;
}

int32_t TcpLink::millisecondCount() { return static_cast<int32_t>(clock_.milliseconds()); }

int32_t TcpLink::dirPath(std::string& path) {
  // The directory of the library behind the server (a rig PC's data
  // folder); "" from a server that serves the built-in rig or does not know
  // the request.
  path.clear();
  RigResponse r;
  if (request("DIRPATH", r, options_.responseWaitMs) == Outcome::kOk &&
      r.code == link_result::kOk && r.text) {
    path = *r.text;
  }
  return link_result::kOk;
}

int32_t TcpLink::setupLibVersion(std::string& text) {
  RigResponse r;
  if (request("IMSVERSION", r, options_.responseWaitMs) != Outcome::kOk) return 0;
  if (r.text) WriteBuffer(text, *r.text);
  return r.code;
}

int32_t TcpLink::loadAndLockSetup(const std::string& path, int32_t /*second*/, SetupLoad& load) {
  std::string text;
  std::string readError;
  if (!readTextFile(files_, path, text, &readError)) {
    load.message = "cannot read the setup file " + path + ": " + readFailureReason(readError);
    return link_result::kSetupFileUnreadable;
  }
  RigResponse r;
  const std::string body = "SETUP =" + EscapeField(path) + "\t" + EscapeField(text);
  if (const int32_t failed =
          exchange(body, r, std::max(options_.responseWaitMs, 2000), link_result::kSetupBusy))
    return failed;
  const std::string answer = r.text.value_or("");
  if (r.code != link_result::kOk) {
    load.message = answer;
    return r.code;
  }
  const size_t eol = answer.find('\n');
  load.setupName = answer.substr(0, eol);
  load.summary = eol == std::string::npos ? std::string() : answer.substr(eol + 1);
  return link_result::kOk;
}

int32_t TcpLink::unlockSetup(std::string_view /*setupName*/, int16_t /*handle*/) {
  RigResponse r;
  request("UNLOCK", r, options_.responseWaitMs);
  return link_result::kOk;
}

int32_t TcpLink::requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) {
  RigResponse r;
  const std::string body =
      "MONITOR " + std::to_string(record.device) + " =" +
      EscapeField(std::string(setupName.substr(0, setupName.find_last_not_of(' ') + 1)));
  if (const int32_t failed = exchange(body, r, options_.responseWaitMs, link_result::kNotReady))
    return failed;
  if (r.code != link_result::kOk) return r.code;
  int number = -1;
  const std::string text = r.text.value_or("");
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (ec != std::errc() || end != text.data() + text.size() || number < 0 || number > 9999) {
    return link_result::kLinkLost;
  }
  record.channelNumber = static_cast<int16_t>(number);
  return link_result::kOk;
}

}  // namespace tavrix
