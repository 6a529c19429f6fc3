// The link library port over TCP: a client of a rig server (rig_server.h).
// Each library call is one request and its response. The client never
// blocks for long: a response that has not come within responseWaitMs
// (TcpLinkOptions) is treated as "not ready" (17), so the link layer's retry
// and time-out rules apply; a connection that closes gives 31 (link lost) at
// once.
//
// A response is first waited for on the calling thread, for at most
// directWaitMs and never past the run's next due timer: on a near server it
// comes within that, at the cost of one round trip and no hand-off between
// threads. Past that, the run's event loop goes on while the call waits: a
// watcher thread reads the connection and wakes the loop when a response
// comes, the connection closes or the response time is up, and the run's
// posted tasks and due timers run meanwhile. The response time is real
// time on every clock (the network is outside the run), so a virtual clock
// stands still during the wait.
//
// With a server that speaks the second protocol (rig_protocol.h), a command
// whose reply the link layer polls for next goes as one SENDREPLY: the
// command and its reply take one round trip instead of two. An older server
// gets SEND and REPLY as before.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "instrument/link/link_library.h"
#include "instrument/tcp/rig_protocol.h"
#include "platform/sockets.h"

namespace tavrix {

// How long a TcpLink waits, in real milliseconds.
struct TcpLinkOptions {
  // For one response before answering 17.
  int responseWaitMs = 100;
  // For the connection at open.
  int connectWaitMs = 2000;
  // For a response on the calling thread before the run's events run (0:
  // never).
  int directWaitMs = 1;
};

class TcpLink final : public LinkLibrary {
 public:
  TcpLink(const Clock& clock, std::string host, uint16_t port, const FileSystem& files,
          TcpLinkOptions options = {});
  ~TcpLink() override;
  std::string connectionProblem() const override { return problem_; }
  // Without a run's loop the link waits on a loop of its own over the
  // system clock.
  void useEventLoop(EventLoop& events) override;

  // The key shared with a rig server that asks for one (raw bytes, from
  // LoadLinkKey); the link then proves that it knows the key, and the server
  // must prove it too, before the first request. Empty: no key.
  void setKey(std::string key) { key_ = std::move(key); }

  // The protocol the server speaks (1 or 2), known once the link is open.
  int protocol() const { return protocol_; }

  int32_t openInterface(int16_t& handle) override;
  int32_t closeInterface(int16_t handle) override;
  int32_t interfaceVersion(int16_t handle, std::string& text) override;
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command, bool wait) override;
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override;
  bool writesOnlyTheReply() const override { return true; }
  int32_t abortReply(int16_t handle, int16_t device) override;
  int32_t millisecondCount() override;
  int32_t dirPath(std::string& path) override;
  int32_t setupLibVersion(std::string& text) override;
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override;
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override;
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override;

 private:
  enum class Outcome { kOk, kNoAnswer, kLost };
  // A response line is bounded as a request line is on the server: a peer
  // that sends a line without end is given up, never read into memory.
  static constexpr size_t kMaxResponseBytes = size_t{8} << 20;
  // What the watcher thread of a connection shares with the link.
  struct Watch {
    std::mutex mutex;
    std::condition_variable wake;         // a request to wait for, or the end
    std::map<uint64_t, int64_t> waiting;  // request id -> real deadline (steady ms)
    std::map<uint64_t, RigResponse> answered;
    std::set<uint64_t> expired;
    std::optional<std::string> refusal;  // the server refused the link (id 0)
    bool idleNotice = false;             // the server closes an idle connection
    // Why the server closes the connection, when it says (too many clients,
    // a request too long); or that it sent a line past kMaxResponseBytes.
    std::optional<std::string> notice;
    bool overlong = false;
    bool closed = false;
    bool quit = false;
    // The calling thread reads the connection itself for now (the watcher
    // leaves it alone), and whether the watcher is in a read of its own.
    bool direct = false;
    bool polling = false;
    std::string inbox;
    EventLoop* loop = nullptr;
  };
  static void watchConnection(Watch& watch, platform::Socket socket);
  // Takes in what was read from the connection (with the watch's lock
  // held): responses, the server's notices, its end, and the requests whose
  // time is up. True when a waiting call has something new to look at.
  static bool absorb(Watch& watch, std::string_view got, bool closed);
  // Reads bytes that are there now, at most kMaxResponseBytes; `closed`
  // when the connection ended.
  static std::string readAvailable(platform::Socket socket, bool& closed);
  // Waits on the calling thread for the response to `id` (sent with
  // watch.direct set), until `until` (steady ms), and hands the wait to the
  // watcher when it is not settled by then.
  void waitDirectly(uint64_t id, int64_t until);
  // Opens the conversation: "HELLO 2", either greeting accepted.
  bool greet(RigResponse& response);
  void startWatching();
  EventLoop& events() { return events_ != nullptr ? *events_ : *ownEvents_; }
  // Sends one request and waits for its response.
  Outcome request(const std::string& body, RigResponse& response, int waitMs);
  // Writes the request's whole line by `deadline` (steady ms); kOk once it
  // is sent. A line cut in half gives the link up.
  Outcome sendLine(const std::string& line, uint64_t id, int64_t deadline);
  // The request `id` no longer waits for its answer.
  void forget(uint64_t id);
  // What became of request `id` once its wait is settled.
  Outcome takeAnswer(uint64_t id, uint64_t generation, RigResponse& response);
  // request() as a link result: 0 once answered, the link-lost result, or
  // `whenNoAnswer` when no answer came in time.
  int32_t exchange(const std::string& body, RigResponse& response, int waitMs,
                   int32_t whenNoAnswer);
  bool connectSocket();
  // The key check right after connecting (link_key.h). False with problem_.
  bool proveKey();
  std::string address() const { return host_ + ":" + std::to_string(port_); }
  std::string problem_;  // why connectSocket() or the greeting last failed
  // The rig server drops a connection that has been idle for an hour; the
  // next request then finds it closed and connects again first.
  void reconnectIfDropped();
  void disconnect();
  std::string timeText() const;

  const Clock& clock_;
  const FileSystem& files_;
  const TcpLinkOptions options_;
  EventLoop* events_ = nullptr;
  std::unique_ptr<SystemClock> ownClock_;
  std::unique_ptr<EventLoop> ownEvents_;
  std::unique_ptr<Watch> watch_;
  std::thread watcher_;
  // Counts connections made and dropped, so that a wait learns that a task
  // run meanwhile closed the link; and the waits in progress (a task run
  // during a wait may make a request of its own).
  uint64_t generation_ = 0;
  int depth_ = 0;
  std::string host_;
  uint16_t port_;
  std::string key_;
  platform::Socket socket_ = platform::kNoSocket;
  uint64_t nextId_ = 1;
  int protocol_ = 1;
  // The first poll of a reply that came with the response to its command:
  // its result, and the reply when there is one.
  struct ReadyReply {
    int32_t code = 0;
    std::string text;
  };
  std::array<std::optional<ReadyReply>, 100> readyReply_;
};

}  // namespace tavrix
