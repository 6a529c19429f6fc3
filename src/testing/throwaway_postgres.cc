#include "testing/throwaway_postgres.h"

#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "resultsdb/postgres_connection.h"

namespace tavrix {

namespace {

bool Executable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

int FreeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

std::string ThrowawayPostgres::BinaryFolder() {
  if (const char* env = std::getenv("TAVRIX_PG_BIN"); env && *env) {
    return Executable(std::string(env) + "/initdb") ? env : "";
  }
  std::error_code ec;
  std::string best;
  int bestVersion = -1;
  for (std::filesystem::directory_iterator it("/usr/lib/postgresql", ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string bin = it->path().string() + "/bin";
    const int version = std::atoi(it->path().filename().c_str());
    if (version > bestVersion && Executable(bin + "/initdb") && Executable(bin + "/pg_ctl")) {
      best = bin;
      bestVersion = version;
    }
  }
  if (!best.empty()) return best;
  if (const char* path = std::getenv("PATH")) {
    std::string dirs = path;
    size_t start = 0;
    while (start <= dirs.size()) {
      const size_t colon = dirs.find(':', start);
      const std::string dir = dirs.substr(start, colon - start);
      if (!dir.empty() && Executable(dir + "/initdb") && Executable(dir + "/pg_ctl")) return dir;
      if (colon == std::string::npos) break;
      start = colon + 1;
    }
  }
  return "";
}

ThrowawayPostgres::~ThrowawayPostgres() {
  if (running_) kill();
  if (!folder_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
  }
  if (watchdogEnd_ >= 0) {
    // Done: the watchdog goes without touching anything (the folder's name
    // may be another server's by the time it would look).
    // (Sent without SIGPIPE: a watchdog killed meanwhile must not take this
    // process with it.)
    const char done[] = "done\n";
    [[maybe_unused]] const ssize_t told = ::send(watchdogEnd_, done, sizeof done - 1, MSG_NOSIGNAL);
    ::close(watchdogEnd_);
  }
  if (watchdog_ > 0) {
    while (::waitpid(watchdog_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

void ThrowawayPostgres::dropPrivilegesInChild() const {
  if (dropPrivileges_) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(gid_) != 0 || ::setuid(uid_) != 0) _exit(126);
  }
}

void ThrowawayPostgres::startWatchdog() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
  // It reads until this process says "done" or its end closes; at the close
  // alone it stops the server at once and removes the folder. It runs in a
  // session of its own, so that a signal to the test's process group (a
  // test runner's timeout) does not take it too.
  const std::string script =
      "if read -r word && [ \"$word\" = done ]; then exit 0; fi\n"
      "\"$1\" -D \"$2/data\" -m immediate -w stop >/dev/null 2>&1\n"
      "rm -rf \"$2\"\n";
  const std::string pgctl = bin_ + "/pg_ctl";
  const char* const argv[] = {
      "/bin/sh",       "-c",   script.c_str(), "throwaway-postgres-watchdog", pgctl.c_str(),
      folder_.c_str(), nullptr};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setsid();
    ::dup2(ends[0], 0);
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) {
      ::dup2(null, 1);
      ::dup2(null, 2);
    }
    // Nothing else of the test's stays open in it (a socket kept open here
    // would never see its peer close).
    ::close_range(3, ~0U, 0);
    dropPrivilegesInChild();
    ::execv(argv[0], const_cast<char* const*>(argv));
    _exit(127);
  }
  ::close(ends[0]);
  if (pid < 0) {
    ::close(ends[1]);
    return;
  }
  watchdog_ = pid;
  watchdogEnd_ = ends[1];
}

bool ThrowawayPostgres::run(const std::vector<std::string>& args, std::string* error) {
  const std::string log = folder_ + "/command.log";
  const pid_t pid = ::fork();
  if (pid < 0) {
    if (error) *error = "cannot start " + args[0];
    return false;
  }
  if (pid == 0) {
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::close(fd);
    }
    const int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) ::dup2(null, 0);
    dropPrivilegesInChild();
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  if (error) *error = args[0] + " failed: " + Slurp(log);
  return false;
}

bool ThrowawayPostgres::start(std::string* reason, bool tcp, bool durable) {
  durable_ = durable;
  bin_ = BinaryFolder();
  if (bin_.empty()) {
    if (reason) *reason = "the database server binaries (initdb, pg_ctl) are not installed";
    return false;
  }
  tcp_ = tcp;
  // The server refuses to run as root: as root the cluster belongs to an
  // unprivileged account, and lives under /tmp where that account can reach
  // it. A short folder keeps the socket's path within its limit.
  dropPrivileges_ = ::geteuid() == 0;
  std::string base = "/tmp";
  if (!dropPrivileges_) {
    const char* tmp = std::getenv("TMPDIR");
    if (tmp && *tmp && std::string(tmp).size() < 60) base = tmp;
  }
  std::string pattern = base + "/tvpgXXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    if (reason) *reason = "cannot make a temporary folder in " + base;
    return false;
  }
  folder_ = pattern;
  if (dropPrivileges_) {
    const passwd* account = ::getpwnam("postgres");
    if (account == nullptr) account = ::getpwnam("nobody");
    if (account == nullptr) {
      if (reason) *reason = "no unprivileged account to run the database server";
      return false;
    }
    uid_ = account->pw_uid;
    gid_ = account->pw_gid;
    if (::chown(folder_.c_str(), uid_, gid_) != 0) {
      if (reason) *reason = "cannot give the server's folder to its account";
      return false;
    }
  }
  startWatchdog();
  if (!run({bin_ + "/initdb", "-D", folder_ + "/data", "-U", user_, "-A", "trust", "-E", "UTF8",
            "--locale=C", "--no-sync"},
           reason)) {
    return false;
  }
  if (tcp_) port_ = FreeLoopbackPort();
  return pgctlStart(reason);
}

bool ThrowawayPostgres::pgctlStart(std::string* reason) {
  const std::string options = "-k " + folder_ + " -p " + std::to_string(port_) +
                              " -c listen_addresses=" + (tcp_ ? "127.0.0.1" : "''") +
                              " -c max_connections=40 -c shared_buffers=16MB" +
                              (durable_ ? "" : " -c fsync=off -c full_page_writes=off");
  running_ = run({bin_ + "/pg_ctl", "-D", folder_ + "/data", "-o", options, "-l",
                  folder_ + "/server.log", "-w", "-t", "60", "start"},
                 reason);
  if (!running_ && reason) *reason += Slurp(folder_ + "/server.log");
  return running_;
}

bool ThrowawayPostgres::kill() {
  if (!running_) return true;
  running_ =
      !run({bin_ + "/pg_ctl", "-D", folder_ + "/data", "-m", "immediate", "-w", "stop"}, nullptr);
  return !running_;
}

bool ThrowawayPostgres::restart(std::string* reason) { return pgctlStart(reason); }

std::string ThrowawayPostgres::conninfo(const std::string& database) const {
  std::string host = "'";
  for (char c : tcp_ ? std::string("127.0.0.1") : folder_) {
    if (c == '\'' || c == '\\') host += '\\';
    host += c;
  }
  host += "'";
  return "host=" + host + " port=" + std::to_string(port_) + " user=" + user_ +
         " dbname=" + database;
}

bool ThrowawayPostgres::createDatabase(const std::string& name, std::string* error) {
  auto connection = OpenPostgres(conninfo(), error);
  return connection && connection->script("CREATE DATABASE \"" + name + "\"", error);
}

}  // namespace tavrix
