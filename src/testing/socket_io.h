// Blocking reads and writes over the platform's non-blocking sockets, for
// the test programs' own clients and servers.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/sockets.h"

namespace tavrix::testing {

// Sends all of `text`, waiting while the other side reads no more; false
// when the connection broke.
inline bool SendAll(platform::Socket socket, std::string_view text) {
  while (!text.empty()) {
    const long n = platform::sendSome(socket, text.data(), text.size());
    if (n == platform::kBroken) return false;
    if (n == platform::kWouldBlock) {
      std::vector<platform::Watch> writable{{socket, false, true}};
      platform::waitSockets(writable, 1000);
      continue;
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

enum class Read { kByte, kClosed, kNothingYet };

// Reads one byte, waiting at most `waitMs` for it.
inline Read ReadByte(platform::Socket socket, char& c, int waitMs) {
  for (;;) {
    const long n = platform::receiveSome(socket, &c, 1);
    if (n == 1) return Read::kByte;
    if (n != platform::kWouldBlock) return Read::kClosed;
    std::vector<platform::Watch> readable{{socket, true, false}};
    if (platform::waitSockets(readable, waitMs) == 0) return Read::kNothingYet;
  }
}

// A server on a loopback port and a thread of its own that takes one client
// and hands `reply` each line it reads (without its newline); it sends the
// lines `reply` returns, and an empty one among them ends the connection at
// once. `error()` tells why it could not listen.
class ScriptedServer {
 public:
  using Reply = std::function<std::vector<std::string>(const std::string& line)>;
  explicit ScriptedServer(Reply reply) : reply_(std::move(reply)) {
    listener_ = platform::listenTcp("127.0.0.1", port_, &error_);
    if (listener_ != platform::kNoSocket) thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedServer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    platform::closeSocket(listener_);
    platform::closeSocket(client_);
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  uint16_t port() const { return port_; }
  bool listening() const { return listener_ != platform::kNoSocket; }
  const std::string& error() const { return error_; }

 private:
  void serve() {
    while (!stop_ && client_ == platform::kNoSocket) {
      std::vector<platform::Watch> waiting{{listener_, true, false}};
      if (platform::waitSockets(waiting, 50) > 0) client_ = platform::acceptClient(listener_);
    }
    std::string in;
    char c = 0;
    while (!stop_) {
      const Read got = ReadByte(client_, c, 50);
      if (got == Read::kClosed) return;
      if (got == Read::kNothingYet) continue;
      if (c != '\n') {
        in += c;
        continue;
      }
      for (const std::string& line : reply_(in)) {
        if (line.empty()) {
          platform::closeSocket(client_);
          client_ = platform::kNoSocket;
          return;
        }
        SendAll(client_, line);
      }
      in.clear();
    }
  }

  Reply reply_;
  std::string error_;
  platform::Socket listener_ = platform::kNoSocket;
  platform::Socket client_ = platform::kNoSocket;
  std::atomic<bool> stop_{false};
  uint16_t port_ = 0;
  std::thread thread_;
};

}  // namespace tavrix::testing
