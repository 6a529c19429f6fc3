// The simulated rig served over TCP, so that runs on other processes or
// computers reach it through TcpLink ("tcp://HOST:PORT"). The protocol is in
// rig_protocol.h and docs/simulated-rig.md. Commands carry the time of the
// run that sends them, so the rig's channels follow that run's clock,
// virtual or real, exactly as the in-process rig does.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "instrument/simrig/sim_rig.h"
#include "platform/sockets.h"

namespace tavrix {

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

 private:
  RigModel model_;
  platform::Socket listener_ = platform::kNoSocket;
  uint16_t port_ = 0;
};

// `tavrix-cli rig`: loads the setup file and serves it on `listen` until
// `stop` (when given) becomes true. Messages go to `log`. Returns the exit
// status: 0 after a stop, 2 when the setup or the address is bad.
int RunRigServer(const std::string& listen, const std::string& setupFile, std::FILE* log,
                 const std::atomic<bool>* stop = nullptr);

}  // namespace tavrix
