// The simulated rig served over TCP, so that runs on other processes or
// computers reach it through TcpLink ("tcp://HOST:PORT"). The protocol is in
// rig_protocol.h and docs/simulated-rig.md. Commands carry the time of the
// run that sends them, so the rig's channels follow that run's clock,
// virtual or real, exactly as the in-process rig does.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include "instrument/simrig/sim_rig.h"
#include "platform/sockets.h"

namespace tavrix {

// Bounds that keep one careless or hostile client from starving the others:
// a request line longer than kMaxRequestBytes gets an error reply and the
// connection is closed; while more than kMaxQueuedReplyBytes of replies wait
// for a client that does not read them, its further requests are left
// unread; beyond kMaxClients connections (or when the process runs out of
// file descriptors) a new client gets a refusal and is closed; a connection
// that sends nothing for kIdleTimeoutMs is told so and dropped. The reply
// codes of these refusals are in rig_protocol.h.
inline constexpr size_t kMaxRequestBytes = size_t{8} << 20;
inline constexpr size_t kMaxQueuedReplyBytes = size_t{1} << 20;
inline constexpr size_t kMaxClients = 64;
inline constexpr int64_t kIdleTimeoutMs = 60LL * 60 * 1000;

class RigServer {
 public:
  RigServer() = default;
  ~RigServer();
  RigServer(const RigServer&) = delete;
  RigServer& operator=(const RigServer&) = delete;

  RigModel& model() { return model_; }

  // Listens on "HOST:PORT" (port 0 picks a free one). False with a message.
  bool listen(std::string_view hostPort, std::string& error);
  uint16_t port() const { return port_; }

  // Serves clients until `stop` becomes true (checked at least every 100 ms).
  void serve(const std::atomic<bool>& stop);

  // Answers one request line (without its line end), as the server does.
  std::string answer(std::string_view line);

  // The monotonic clock the idle time-out is measured on, in milliseconds
  // (tests set a clock of their own).
  void setClock(std::function<int64_t()> nowMs) { nowMs_ = std::move(nowMs); }

 private:
  RigModel model_;
  std::function<int64_t()> nowMs_;
  platform::Socket listener_ = platform::kNoSocket;
  uint16_t port_ = 0;
};

// `tavrix-cli rig`: loads the setup file and serves it on `listen` until
// `stop` (when given) becomes true. Messages go to `log`. Returns the exit
// status: 0 after a stop, 2 when the setup or the address is bad.
int RunRigServer(const std::string& listen, const std::string& setupFile, std::FILE* log,
                 const std::atomic<bool>* stop = nullptr);

}  // namespace tavrix
