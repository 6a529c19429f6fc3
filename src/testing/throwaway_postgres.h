// A database server of the test's own: a fresh cluster made with initdb in
// a temporary folder, started with pg_ctl as an unprivileged user, reached
// through a Unix socket in that folder (and, when asked, on a loopback
// port), stopped and removed when the object goes, or by a watchdog
// process when the test's process dies first (a crash, an abort, a kill).
// Used by the store tests and the benchmarks; the server binaries come from
// $TAVRIX_PG_BIN, the newest /usr/lib/postgresql/N/bin, or the PATH.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavrix {

class ThrowawayPostgres {
 public:
  ThrowawayPostgres() = default;
  ~ThrowawayPostgres();
  ThrowawayPostgres(const ThrowawayPostgres&) = delete;
  ThrowawayPostgres& operator=(const ThrowawayPostgres&) = delete;

  // Makes and starts the server, listening on a loopback port as well when
  // `tcp`. A server that is not `durable` skips flushing to the disk (and a
  // restart after kill() is quick). False with a reason when it cannot; the
  // reason says so when the server binaries are not installed.
  bool start(std::string* reason, bool tcp = false, bool durable = false);
  // The server dies at once, as in a power cut (pg_ctl stop -m immediate).
  bool kill();
  // Starts it again on the same data.
  bool restart(std::string* reason);
  bool running() const { return running_; }

  // A connection string for `database` (the server's own "postgres" by
  // default), through the socket, or over TCP when started so.
  std::string conninfo(const std::string& database = "postgres") const;
  // Creates an empty database; false with a message.
  bool createDatabase(const std::string& name, std::string* error);

  // Where the server binaries are; empty when they are not installed.
  static std::string BinaryFolder();
  // The folder of the server's data and socket; empty before start().
  const std::string& folder() const { return folder_; }
  // The watchdog's process; -1 before start() or when it could not start.
  pid_t watchdogProcess() const { return watchdog_; }

 private:
  bool run(const std::vector<std::string>& args, std::string* error);
  bool pgctlStart(std::string* reason);
  // Starts the process that stops the server and removes its folder once
  // this process has gone without saying it was done.
  void startWatchdog();
  void dropPrivilegesInChild() const;

  std::string bin_;
  std::string folder_;
  std::string user_ = "tavrix";
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  bool dropPrivileges_ = false;
  int port_ = 5432;
  bool tcp_ = false;
  bool durable_ = false;
  bool running_ = false;
  // The watchdog, and our end of the connection whose closing wakes it.
  pid_t watchdog_ = -1;
  int watchdogEnd_ = -1;
};

}  // namespace tavrix
