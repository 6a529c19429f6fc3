// `tavrix-cli serve`: the plant view, web pages served by the program itself
// from the results store it writes and from the control sockets of the runs
// on this station. Pages are plain HTML with charts drawn on the server; the
// live page follows the runs through server-sent events.
//
// Safe by default: it listens on loopback; any other address needs TLS (a
// certificate and its key) and a token file, or it is refused before a
// socket is bound. The pages only read; stopping, pausing or resuming a run
// from a page needs --allow-control and a control token, and every such
// action is written to the audit log.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "resultsdb/results_store.h"

namespace tavrix {
class FileSystem;
}

namespace tavrix::plant {

struct ServerOptions {
  std::string listen = "127.0.0.1:8080";  // HOST:PORT; port 0 takes a free one
  StoreSpec store;
  std::string runsFolder;  // where the runs' control sockets are
  std::string auditLog;    // the file control actions are written to
  // The folder a unit's results files are served from; a file the store
  // names elsewhere (or that leads elsewhere by a link) is not served.
  std::string resultsFolder;
  std::string tlsCert;  // PEM files; both or neither
  std::string tlsKey;
  std::string tokenFile;         // key file of the viewers' token
  std::string controlTokenFile;  // key file of the token that may control runs
  bool allowControl = false;
  int liveScanMs = 250;
  int sessionSeconds = 8 * 3600;  // how long a login's cookie holds
  // When set, the station's runs are published into the store under this
  // name every `publishSeconds`, for the plant page of every station.
  std::string station;
  int publishSeconds = 5;
  // Seconds since the epoch; the system's clock unless a test sets it.
  std::function<long long()> now;
};

// "HOST:PORT", "[::1]:PORT" or ":PORT"; false with a message.
bool ParseListen(const std::string& text, std::string& host, int& port, std::string* error);
// 127.0.0.0/8, ::1 and "localhost".
bool IsLoopback(const std::string& host);

// What a page handler gives back, whether served or measured.
struct Reply {
  int status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;
};

class Server {
 public:
  // Checks the options, binds and starts serving on a thread of its own;
  // nullptr with a message (nothing bound) when it cannot. The results files
  // and the audit log are reached through `files`.
  static std::unique_ptr<Server> Start(FileSystem& files, ServerOptions options,
                                       std::string* error);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int port() const;
  bool tls() const;
  // Stops serving; the live streams end.
  void stop();
  // Blocks until stop() or a signal handler's stop.
  void wait();
  // Publishes the station's runs now (the server does so every few
  // seconds by itself); false with a message.
  bool publishNow(std::string* error);

  // A read-only page by path and query, as the server would send it to a
  // viewer (for measurements without a network in between).
  Reply page(const std::string& path, const std::multimap<std::string, std::string>& query);

  class Impl;

 private:
  explicit Server(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavrix::plant
