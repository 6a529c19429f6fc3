// The link library port over TCP: a client of a rig server (rig_server.h).
// Each library call is one request and its response. The client never
// blocks for long: a response that has not come within responseWaitMs is
// treated as "not ready" (17), so the link layer's retry and time-out rules
// apply; a connection that closes gives 31 (link lost) at once.
#pragma once

#include "common/file_system.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "common/clock.h"
#include "instrument/link/link_library.h"
#include "instrument/tcp/rig_protocol.h"
#include "platform/sockets.h"

namespace tavrix {

class TcpLink final : public LinkLibrary {
 public:
  TcpLink(const Clock& clock, std::string host, uint16_t port,
          const FileSystem& files = localFiles());
  ~TcpLink() override;
  std::string connectionProblem() const override { return problem_; }

  // Real milliseconds to wait for one response before answering 17.
  int responseWaitMs = 100;
  // Real milliseconds to wait for the connection at open.
  int connectWaitMs = 2000;

  int32_t openInterface(int16_t& handle) override;
  int32_t closeInterface(int16_t handle) override;
  int32_t interfaceVersion(int16_t handle, std::string& text) override;
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command, bool wait) override;
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override;
  int32_t abortReply(int16_t handle, int16_t device) override;
  int32_t millisecondCount() override;
  int32_t dirPath(std::string& path) override;
  int32_t setupLibVersion(std::string& text) override;
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override;
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override;
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override;

 private:
  enum class Outcome { kOk, kNoAnswer, kLost };
  // Sends one request and waits for its response.
  Outcome request(const std::string& body, RigResponse& response, int waitMs);
  // request() as a link result: 0 once answered, the link-lost result, or
  // `whenNoAnswer` when no answer came in time.
  int32_t exchange(const std::string& body, RigResponse& response, int waitMs,
                   int32_t whenNoAnswer);
  bool connectSocket();
  std::string problem_;  // why connectSocket() or the greeting last failed
  // The rig server drops a connection that has been idle for an hour; the
  // next request then finds it closed and connects again first.
  void reconnectIfDropped();
  void disconnect();
  std::string timeText() const;

  const Clock& clock_;
  const FileSystem& files_;
  std::string host_;
  uint16_t port_;
  platform::Socket socket_ = platform::kNoSocket;
  uint64_t nextId_ = 1;
  std::string inbox_;
  // Replies that came with the response to their command.
  std::array<std::optional<std::string>, 100> readyReply_;
};

}  // namespace tavrix
