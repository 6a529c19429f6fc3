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
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "instrument/link/link_library.h"
#include "instrument/simrig/rig_model.h"
#include "instrument/tcp/library_service.h"
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
// A server with a key serves nobody before the key check (link_key.h): until
// then a request line may hold at most kMaxHandshakeBytes, and a connection
// that has not passed the check within kHandshakeTimeoutMs is dropped.
// Connections that have not passed it have a share of their own,
// kMaxUnprovenClients beside the kMaxClients that have; when it is full the
// oldest of them makes room, so that connections that never speak cannot
// keep a client with the key out.
inline constexpr size_t kMaxHandshakeBytes = 512;
inline constexpr int64_t kHandshakeTimeoutMs = 5'000;
inline constexpr size_t kMaxUnprovenClients = 16;

class RigServer {
 public:
  RigServer() = default;
  ~RigServer();
  RigServer(const RigServer&) = delete;
  RigServer& operator=(const RigServer&) = delete;

  RigModel& model() { return model_; }

  // Serves `library` (opened already) instead of the simulated rig.
  void serveLibrary(std::unique_ptr<LibraryService> library) { library_ = std::move(library); }
  // Every client must prove that it knows `key` (raw bytes) before any
  // request is served; the server proves it as well. Empty: no key check.
  void requireKey(std::string key) { key_ = std::move(key); }
  // Where the server tells of the clients it refuses (one line each, no
  // line end). Nothing is told when unset.
  void setLog(std::function<void(const std::string&)> log) { log_ = std::move(log); }

  // The newest protocol the server speaks (1 or 2; 2 by default): with 1 it
  // answers as a server that knows no more would, for trying a link
  // against an older server.
  void speakProtocol(int protocol) { protocol_ = protocol; }

  // Listens on "HOST:PORT" (port 0 picks a free one). False with a message.
  bool listen(std::string_view hostPort, std::string* error);
  uint16_t port() const { return port_; }

  // Serves clients until `stop` becomes true (checked at least every 100 ms).
  void serve(const std::atomic<bool>& stop);

  // Answers one request line (without its line end) of a client that has
  // passed the key check, as the server does.
  std::string answer(std::string_view line);

  // The monotonic clock the idle time-out is measured on, in milliseconds
  // (tests set a clock of their own).
  void setClock(std::function<int64_t()> nowMs) { nowMs_ = std::move(nowMs); }

 private:
  struct Client;
  // Answers a line of a client that has not passed the key check yet; marks
  // the client to be closed when it fails the check.
  // `full`: kMaxClients connections have passed the key check already.
  std::string handshake(Client& client, std::string_view line, bool full);
  // Takes a new connection into `clients`, or refuses it.
  void accept(std::vector<Client>& clients, int64_t nowMs);
  // Reads what a client sent (`readable`), answers its whole lines, sends
  // what is queued for it; true when its connection is over. `proven`
  // counts the clients past the key check.
  bool serveClient(Client& client, bool readable, size_t& proven, int64_t nowMs);
  void tell(const std::string& text) const {
    if (log_) log_(text);
  }

  RigModel model_;
  std::unique_ptr<LibraryService> library_;
  std::string key_;
  std::function<void(const std::string&)> log_;
  std::function<int64_t()> nowMs_;
  platform::Socket listener_ = platform::kNoSocket;
  uint16_t port_ = 0;
  int protocol_ = 2;
};

// What `tavrix-cli rig` serves, and where.
struct RigServing {
  std::string listen = "127.0.0.1:5025";
  std::string setupFile;  // the simulated rig's setup ("" for an empty rig)
  std::string keyFile;    // "" for no key check
  // Served instead of the simulated rig when set; `libraryName` names it in
  // messages.
  std::unique_ptr<LinkLibrary> library;
  std::string libraryName;
};

// True for an address only this computer can reach (127.x.x.x).
bool IsLoopbackAddress(std::string_view host);

// `tavrix-cli rig`: serves the simulated rig (with its setup file loaded) or
// the given library on `serving.listen` until `stop` (when given) becomes
// true. The setup and key files are read from `files`, and the setups that
// clients send a library are written there. Listening on an address other computers can reach needs
// a key file. Messages go to `log`. Returns the exit status: 0 after a stop, 2 when the setup, the
// library, the key or the address is bad.
int RunRigServer(FileSystem& files, RigServing serving, std::FILE* log,
                 const std::atomic<bool>* stop = nullptr);

}  // namespace tavrix
