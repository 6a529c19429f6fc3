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

namespace tavrix {
namespace {

int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

TcpLink::TcpLink(const Clock& clock, std::string host, uint16_t port, const FileSystem& files)
    : clock_(clock), files_(files), host_(std::move(host)), port_(port) {}

TcpLink::~TcpLink() { disconnect(); }

void TcpLink::disconnect() {
  platform::closeSocket(socket_);
  socket_ = platform::kNoSocket;
  inbox_.clear();
  for (auto& r : readyReply_) r.reset();
}

bool TcpLink::connectSocket() {
  problem_.clear();
  socket_ = platform::connectTcp(host_, port_, connectWaitMs, &problem_);
  if (socket_ == platform::kNoSocket) return false;
  problem_.clear();
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

// Waits at most until `deadline` for the socket to become ready.
static bool waitReady(platform::Socket socket, bool forWrite, int64_t deadline, int64_t now) {
  const int64_t left = deadline - now;
  if (left <= 0) return false;
  std::vector<platform::Watch> watch{{socket, !forWrite, forWrite}};
  return platform::waitSockets(watch, static_cast<int>(left)) > 0;
}

void TcpLink::reconnectIfDropped() {
  std::vector<platform::Watch> watch{{socket_, true, false}};
  if (platform::waitSockets(watch, 0) != 1) return;
  char chunk[512];
  long n;
  while ((n = platform::receiveSome(socket_, chunk, sizeof chunk)) > 0)
    inbox_.append(chunk, static_cast<size_t>(n));
  // Only a connection the server closed for idleness is taken up again; a
  // server that went away leaves the link lost.
  if (n != 0 || inbox_.find("0 " + std::to_string(kRigIdleClosed) + " =") == std::string::npos)
    return;
  disconnect();
  RigResponse r;
  if (!connectSocket()) return;
  if (request("HELLO", r, connectWaitMs) != Outcome::kOk || r.text != kRigGreeting) disconnect();
}

TcpLink::Outcome TcpLink::request(const std::string& body, RigResponse& response, int waitMs) {
  if (socket_ != platform::kNoSocket && body != "HELLO") reconnectIfDropped();
  if (socket_ == platform::kNoSocket) return Outcome::kLost;
  const uint64_t id = nextId_++;
  std::string line = std::to_string(id) + " " + body + "\n";
  const int64_t deadline = steadyMs() + waitMs;
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
    if (!waitReady(socket_, true, deadline, steadyMs())) {
      // A request cut in half would spoil the stream: give the link up.
      if (sent > 0) disconnect();
      return sent > 0 ? Outcome::kLost : Outcome::kNoAnswer;
    }
  }
  for (;;) {
    size_t eol;
    while ((eol = inbox_.find('\n')) != std::string::npos) {
      const std::string got = inbox_.substr(0, eol);
      inbox_.erase(0, eol + 1);
      // Responses to requests given up earlier are dropped.
      if (ParseRigResponse(got, response) && response.id == id) return Outcome::kOk;
    }
    char chunk[4096];
    const long n = platform::receiveSome(socket_, chunk, sizeof chunk);
    if (n > 0) {
      inbox_.append(chunk, static_cast<size_t>(n));
      continue;
    }
    if (n == 0 || n == platform::kBroken) {
      disconnect();
      return Outcome::kLost;
    }
    if (!waitReady(socket_, false, deadline, steadyMs())) return Outcome::kNoAnswer;
  }
}

std::string TcpLink::timeText() const { return std::to_string(clock_.now()); }

int32_t TcpLink::openInterface(int16_t& handle) {
  disconnect();
  if (!connectSocket()) return link_result::kLinkLost;
  RigResponse r;
  if (request("HELLO", r, connectWaitMs) != Outcome::kOk || r.code != 0 || r.text != kRigGreeting) {
    problem_ = "no rig server answers at " + host_ + ":" + std::to_string(port_) +
               (r.text ? " (it said \"" + *r.text + "\")" : "");
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
  if (request("VERSION", r, responseWaitMs) != Outcome::kOk) return link_result::kLinkLost;
  if (r.text) WriteBuffer(text, *r.text);
  return link_result::kOk;
}

int32_t TcpLink::sendCommand(int16_t /*handle*/, int16_t device, std::string_view command,
                             bool /*wait*/) {
  if (socket_ == platform::kNoSocket) return link_result::kLinkLost;
  if (device >= 0 && device < 100) readyReply_[device].reset();
  RigResponse r;
  const std::string body =
      "SEND " + std::to_string(device) + " " + timeText() + " " + EscapeField(BufferText(command));
  if (const int32_t failed = exchange(body, r, responseWaitMs, link_result::kNotReady))
    return failed;
  if (r.code == link_result::kOk && r.text && device >= 0 && device < 100) {
    readyReply_[device] = std::move(*r.text);
  }
  return r.code;
}

int32_t TcpLink::getReply(int16_t /*handle*/, int16_t device, std::string& buffer, bool /*wait*/) {
  if (socket_ == platform::kNoSocket) return link_result::kLinkLost;
  if (device >= 0 && device < 100 && readyReply_[device]) {
    WriteBuffer(buffer, *readyReply_[device]);
    readyReply_[device].reset();
    return link_result::kOk;
  }
  RigResponse r;
  if (const int32_t failed = exchange("REPLY " + std::to_string(device) + " " + timeText(), r,
                                      responseWaitMs, link_result::kNotReady))
    return failed;
  if (r.code == link_result::kOk && r.text) WriteBuffer(buffer, *r.text);
  return r.code;
}

int32_t TcpLink::abortReply(int16_t /*handle*/, int16_t device) {
  if (device >= 0 && device < 100) readyReply_[device].reset();
  RigResponse r;
  if (request("ABORT " + std::to_string(device), r, responseWaitMs) == Outcome::kLost) {
    return link_result::kLinkLost;
  }
  return link_result::kOk;
}

int32_t TcpLink::millisecondCount() { return static_cast<int32_t>(clock_.milliseconds()); }

int32_t TcpLink::dirPath(std::string& path) {
  path.clear();
  return link_result::kOk;
}

int32_t TcpLink::setupLibVersion(std::string& text) {
  RigResponse r;
  if (request("IMSVERSION", r, responseWaitMs) != Outcome::kOk) return 0;
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
          exchange(body, r, std::max(responseWaitMs, 2000), link_result::kSetupBusy))
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
  request("UNLOCK", r, responseWaitMs);
  return link_result::kOk;
}

int32_t TcpLink::requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) {
  RigResponse r;
  const std::string body =
      "MONITOR " + std::to_string(record.device) + " =" +
      EscapeField(std::string(setupName.substr(0, setupName.find_last_not_of(' ') + 1)));
  if (const int32_t failed = exchange(body, r, responseWaitMs, link_result::kNotReady))
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
