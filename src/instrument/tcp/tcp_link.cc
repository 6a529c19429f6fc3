#include "instrument/tcp/tcp_link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/text_file.h"
#include "instrument/tcp/link_key.h"

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
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  inbox_.clear();
  for (auto& r : readyReply_) r.reset();
}

bool TcpLink::connectSocket() {
  problem_.clear();
  const std::string address = host_ + ":" + std::to_string(port_);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int rc = getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found);
      rc != 0) {
    problem_ = "the name \"" + host_ + "\" does not resolve: " + gai_strerror(rc);
    return false;
  }
  bool connected = false;
  for (addrinfo* a = found; a != nullptr && !connected; a = a->ai_next) {
    const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      problem_ = std::string(std::strerror(errno)) + ": " + address;
      continue;
    }
    int rc = ::connect(fd, a->ai_addr, a->ai_addrlen);
    int err = rc == 0 ? 0 : errno;
    if (rc != 0 && errno == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      if (::poll(&p, 1, connectWaitMs) == 1) {
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        rc = err == 0 ? 0 : -1;
      } else {
        err = ETIMEDOUT;
      }
    }
    if (rc == 0) {
      const int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      fd_ = fd;
      connected = true;
    } else {
      std::string reason = std::strerror(err);
      if (!reason.empty())
        reason[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(reason[0])));
      problem_ = reason + ": " + address;
      ::close(fd);
    }
  }
  freeaddrinfo(found);
  if (connected) problem_.clear();
  return connected;
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
  pollfd p{fd_, POLLIN, 0};
  if (::poll(&p, 1, 0) != 1) return;
  char chunk[512];
  ssize_t n;
  while ((n = ::recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
    inbox_.append(chunk, static_cast<size_t>(n));
  // Only a connection the server closed for idleness is taken up again; a
  // server that went away leaves the link lost.
  if (n != 0 || inbox_.find("0 " + std::to_string(kRigIdleClosed) + " =") == std::string::npos)
    return;
  disconnect();
  RigResponse r;
  if (!connectSocket()) return;
  if ((!key_.empty() && !proveKey()) || request("HELLO", r, connectWaitMs) != Outcome::kOk ||
      r.text != kRigGreeting) {
    disconnect();
  }
}

bool TcpLink::proveKey() {
  const std::string nonce = NewNonce();
  RigResponse r;
  if (nonce.empty()) {
    problem_ = "the system's random generator failed";
    return false;
  }
  if (request("KEY " + nonce, r, connectWaitMs) != Outcome::kOk) {
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
    request("PROOF -", r, connectWaitMs);
    problem_ = "the bridge at " + address() + " refused the key: the two sides' keys differ";
    return false;
  }
  if (request("PROOF " + LinkProof(key_, serverNonce, nonce), r, connectWaitMs) != Outcome::kOk ||
      r.code != link_result::kOk) {
    if (problem_.empty()) problem_ = "the bridge at " + address() + " refused the key";
    return false;
  }
  return true;
}

TcpLink::Outcome TcpLink::request(const std::string& body, RigResponse& response, int waitMs) {
  if (fd_ >= 0 && body != "HELLO") reconnectIfDropped();
  if (fd_ < 0) return Outcome::kLost;
  const uint64_t id = nextId_++;
  std::string line = std::to_string(id) + " " + body + "\n";
  const int64_t deadline = steadyMs() + waitMs;
  size_t sent = 0;
  while (sent < line.size()) {
    const ssize_t n = ::send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      disconnect();
      return Outcome::kLost;
    }
    pollfd p{fd_, POLLOUT, 0};
    const int64_t left = deadline - steadyMs();
    if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) {
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
      if (!ParseRigResponse(got, response)) continue;
      if (response.id == id) return Outcome::kOk;
      if (response.id == 0 && response.code == kRigKeyRefused) {
        problem_ =
            "the bridge at " + address() + " refused the link: " + response.text.value_or("");
        disconnect();
        return Outcome::kLost;
      }
    }
    char chunk[4096];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n > 0) {
      inbox_.append(chunk, static_cast<size_t>(n));
      continue;
    }
    if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      disconnect();
      return Outcome::kLost;
    }
    pollfd p{fd_, POLLIN, 0};
    const int64_t left = deadline - steadyMs();
    if (left <= 0) return Outcome::kNoAnswer;
    if (::poll(&p, 1, static_cast<int>(left)) == 0) return Outcome::kNoAnswer;
  }
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
  if (request("HELLO", r, connectWaitMs) != Outcome::kOk || r.code != 0 || r.text != kRigGreeting) {
    if (problem_.empty() || fd_ >= 0) {
      problem_ = "no rig server answers at " + address() +
                 (r.text ? " (it said \"" + *r.text + "\")" : "");
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
  if (request("VERSION", r, responseWaitMs) != Outcome::kOk) return link_result::kLinkLost;
  if (r.text) WriteBuffer(text, *r.text);
  return link_result::kOk;
}

int32_t TcpLink::sendCommand(int16_t /*handle*/, int16_t device, std::string_view command,
                             bool /*wait*/) {
  if (fd_ < 0) return link_result::kLinkLost;
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
  if (fd_ < 0) return link_result::kLinkLost;
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
