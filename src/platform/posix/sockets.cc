#include "platform/sockets.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavrix::platform {

namespace {

void noDelay(int fd) {
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

Socket connectTcp(const std::string& host, uint16_t port, int waitMs) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    return kNoSocket;
  Socket connected = kNoSocket;
  for (addrinfo* a = found; a != nullptr && connected == kNoSocket; a = a->ai_next) {
    const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) continue;
    int rc = ::connect(fd, a->ai_addr, a->ai_addrlen);
    if (rc != 0 && errno == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      if (::poll(&p, 1, waitMs) == 1) {
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        rc = err == 0 ? 0 : -1;
      }
    }
    if (rc == 0) {
      noDelay(fd);
      connected = fd;
    } else {
      ::close(fd);
    }
  }
  freeaddrinfo(found);
  return connected;
}

Socket listenTcp(const std::string& host, uint16_t& port, std::string& error) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    error = "the host \"" + host + "\" is not an IPv4 address";
    return kNoSocket;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 8) != 0) {
    error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return kNoSocket;
  }
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

Socket acceptClient(Socket listener) {
  const int fd =
      ::accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return kNoSocket;
  noDelay(fd);
  return fd;
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
