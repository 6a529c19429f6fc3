#include "platform/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <mutex>

namespace tavrix::platform {

namespace {

void noDelay(int fd) {
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// "ADDRESS:PORT" of a peer, for a log ("?:0" for one that is not IPv4).
std::string peerName(const sockaddr_storage& address) {
  if (address.ss_family != AF_INET) return "?:0";
  const auto& in = reinterpret_cast<const sockaddr_in&>(address);
  return peerText(ntohl(in.sin_addr.s_addr), ntohs(in.sin_port));
}

}  // namespace

Socket connectTcp(const std::string& host, uint16_t port, int waitMs, std::string* problem) {
  const std::string address = host + ":" + std::to_string(port);
  std::string why;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
      rc != 0) {
    if (problem) *problem = "the name \"" + host + "\" does not resolve: " + gai_strerror(rc);
    return kNoSocket;
  }
  Socket connected = kNoSocket;
  for (addrinfo* a = found; a != nullptr && connected == kNoSocket; a = a->ai_next) {
    const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      why = std::string(std::strerror(errno)) + ": " + address;
      continue;
    }
    int rc = ::connect(fd, a->ai_addr, a->ai_addrlen);
    int err = rc == 0 ? 0 : errno;
    if (rc != 0 && errno == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      if (::poll(&p, 1, waitMs) == 1) {
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        rc = err == 0 ? 0 : -1;
      } else {
        err = ETIMEDOUT;
      }
    }
    if (rc == 0) {
      noDelay(fd);
      connected = fd;
    } else {
      std::string reason = std::strerror(err);
      if (!reason.empty())
        reason[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(reason[0])));
      why = reason + ": " + address;
      ::close(fd);
    }
  }
  freeaddrinfo(found);
  if (connected == kNoSocket && problem) *problem = why;
  return connected;
}

Socket listenTcp(const std::string& host, uint16_t& port, std::string* error) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    if (error) *error = "the host \"" + host + "\" is not an IPv4 address";
    return kNoSocket;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, SOMAXCONN) != 0) {
    if (error) *error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return kNoSocket;
  }
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

Socket acceptClient(Socket listener, bool* outOfHandles, std::string* peer) {
  // A descriptor held in reserve for the moment there are none left; taken
  // again on the next call, once the refused client is closed.
  static std::mutex reserveMutex;
  static int spare = -1;
  if (outOfHandles) *outOfHandles = false;
  std::lock_guard guard(reserveMutex);
  if (spare < 0) spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  sockaddr_storage from{};
  socklen_t fromLength = sizeof from;
  int fd = ::accept4(static_cast<int>(listener), reinterpret_cast<sockaddr*>(&from), &fromLength,
                     SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0 && (errno == EMFILE || errno == ENFILE) && spare >= 0) {
    ::close(spare);
    spare = -1;
    fd = ::accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      if (outOfHandles != nullptr) {
        *outOfHandles = true;
        return fd;
      }
      ::close(fd);
      fd = -1;
    }
  }
  if (spare < 0) spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return kNoSocket;
  noDelay(fd);
  if (peer != nullptr) *peer = peerName(from);
  return fd;
}

void shutdownSocket(Socket socket) {
  if (socket != kNoSocket) ::shutdown(static_cast<int>(socket), SHUT_RDWR);
}

void closeSocket(Socket socket) {
  if (socket != kNoSocket) ::close(static_cast<int>(socket));
}

long sendSome(Socket socket, const char* bytes, size_t size) {
  const ssize_t n = ::send(static_cast<int>(socket), bytes, size, MSG_NOSIGNAL);
  if (n >= 0) return static_cast<long>(n);
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kWouldBlock : kBroken;
}

long receiveSome(Socket socket, char* bytes, size_t size) {
  const ssize_t n = ::recv(static_cast<int>(socket), bytes, size, 0);
  if (n >= 0) return static_cast<long>(n);
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kWouldBlock : kBroken;
}

int waitSockets(std::vector<Watch>& watches, int waitMs) {
  std::vector<pollfd> fds;
  fds.reserve(watches.size());
  for (const Watch& w : watches) {
    fds.push_back({static_cast<int>(w.socket),
                   static_cast<short>((w.forRead ? POLLIN : 0) | (w.forWrite ? POLLOUT : 0)), 0});
  }
  const int n = ::poll(fds.data(), fds.size(), waitMs);
  for (size_t i = 0; i < watches.size(); ++i) {
    watches[i].readable = n > 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    watches[i].writable = n > 0 && (fds[i].revents & (POLLOUT | POLLERR)) != 0;
  }
  return n < 0 ? 0 : n;
}

}  // namespace tavrix::platform
