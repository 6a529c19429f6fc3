// The rig server against careless and hostile clients: a request line
// without end, a client that sends and never reads, too many connections,
// no file descriptors left and a connection left idle. In each case the
// server stays bounded and keeps serving the others.
#include "instrument/tcp/rig_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tavrix {
namespace {

class Server {
 public:
  Server() {
    std::string error;
    EXPECT_TRUE(server_.listen("127.0.0.1:0", &error)) << error;
    server_.setClock([this] { return nowMs_.load(); });
  }
  ~Server() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  void start() {
    thread_ = std::thread([this] { server_.serve(stop_); });
  }
  RigServer& rig() { return server_; }
  uint16_t port() const { return server_.port(); }
  void advanceMs(int64_t ms) { nowMs_ += ms; }

 private:
  RigServer server_;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> nowMs_{0};
  std::thread thread_;
};

int Connect(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return fd;
}

bool SendAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// The next line from the server, without its line end; "<closed>" at the
// end of the stream.
std::string ReadLine(int fd) {
  std::string line;
  char c = 0;
  for (;;) {
    const ssize_t n = ::recv(fd, &c, 1, 0);
    if (n <= 0) return line.empty() ? "<closed>" : line;
    if (c == '\n') return line;
    line += c;
  }
}

std::string Hello(int fd) {
  if (!SendAll(fd, "7 HELLO\n")) return "<send failed>";
  return ReadLine(fd);
}

TEST(RigServerAbuse, ALineWithoutEndAndAClientThatNeverReadsStayBounded) {
  Server server;
  server.start();
  const int other = Connect(server.port());
  const std::string greeting = Hello(other);
  ASSERT_EQ(greeting.rfind("7 0 =", 0), 0u) << greeting;

  // A line longer than the bound: an error reply, then the connection closes.
  const int endless = Connect(server.port());
  const std::string chunk(1 << 20, 'x');
  for (size_t sent = 0; sent <= kMaxRequestBytes; sent += chunk.size()) {
    if (!SendAll(endless, chunk)) break;
  }
  const std::string refusal = ReadLine(endless);
  EXPECT_EQ(refusal.rfind("0 36 =a request line is longer than 8 MiB", 0), 0u) << refusal;
  EXPECT_EQ(ReadLine(endless), "<closed>");
  ::close(endless);
  EXPECT_EQ(Hello(other), greeting);

  // A client that sends requests and reads nothing: once its queued
  // replies reach their bound the server reads no more of its requests, so
  // its sends soon block instead of growing the server without end.
  const int deaf = Connect(server.port());
  ::fcntl(deaf, F_SETFL, O_NONBLOCK);
  std::string requests;
  while (requests.size() < (1 << 20)) requests += "1 HELLO\n";
  size_t written = 0;
  for (int idle = 0; idle < 50 && written < (size_t{256} << 20);) {
    const ssize_t n = ::send(deaf, requests.data(), requests.size(), MSG_NOSIGNAL);
    if (n > 0) {
      written += static_cast<size_t>(n);
      continue;
    }
    pollfd p{deaf, POLLOUT, 0};
    if (::poll(&p, 1, 100) == 0) ++idle;  // the server has stopped reading
  }
  EXPECT_LT(written, size_t{64} << 20);
  EXPECT_EQ(Hello(other), greeting);
  ::close(deaf);
  ::close(other);
}

TEST(RigServerAbuse, ConnectionsBeyondTheCapAreRefusedAndIdleOnesDropped) {
  Server server;
  server.start();
  std::vector<int> clients;
  for (size_t i = 0; i < kMaxClients; ++i) {
    clients.push_back(Connect(server.port()));
    ASSERT_EQ(Hello(clients.back()).rfind("7 0 =", 0), 0u);
  }
  const int extra = Connect(server.port());
  EXPECT_EQ(ReadLine(extra), "0 37 =the rig server serves at most 64 connections");
  EXPECT_EQ(ReadLine(extra), "<closed>");
  ::close(extra);

  // An hour without a request (on the server's clock) drops a connection.
  server.advanceMs(kIdleTimeoutMs + 1);
  EXPECT_EQ(ReadLine(clients.front()), "0 38 =no request for an hour; the connection is closed");
  EXPECT_EQ(ReadLine(clients.front()), "<closed>");
  for (int fd : clients) ::close(fd);
  const int fresh = Connect(server.port());
  EXPECT_EQ(Hello(fresh).rfind("7 0 =", 0), 0u);
  ::close(fresh);
}

// With no file descriptors left, a new client is told so and closed (the
// server does not spin on the listening socket), and once descriptors are
// free again new clients are served. Run in a child process of its own, so
// that its descriptor limit touches nothing else.
TEST(RigServerAbuse, RunningOutOfFileDescriptorsRefusesClearly) {
  RigServer server;
  std::string error;
  ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
  const uint16_t port = server.port();
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Every descriptor below the limit taken but three: one for the
    // server's reserve and two for clients.
    rlimit limit{256, 256};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> taken;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;) taken.push_back(fd);
    for (int i = 0; i < 3 && !taken.empty(); ++i) {
      ::close(taken.back());
      taken.pop_back();
    }
    [[maybe_unused]] const ssize_t n = ::write(ready[1], "r", 1);
    std::atomic<bool> never{false};
    server.serve(never);
    ::_exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  std::vector<int> clients;
  std::string refusal;
  for (int i = 0; i < 8 && refusal.empty(); ++i) {
    clients.push_back(Connect(port));
    const std::string answer = Hello(clients.back());
    if (answer.rfind("7 0 =", 0) != 0) refusal = answer;
  }
  EXPECT_EQ(refusal, "0 37 =the rig server has no file descriptors left");
  for (int fd : clients) ::close(fd);
  clients.clear();
  std::string served;
  for (int attempt = 0; attempt < 50 && served.rfind("7 0 =", 0) != 0; ++attempt) {
    const int fd = Connect(port);
    served = Hello(fd);
    ::close(fd);
  }
  EXPECT_EQ(served.rfind("7 0 =", 0), 0u) << served;
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
}

}  // namespace
}  // namespace tavrix
