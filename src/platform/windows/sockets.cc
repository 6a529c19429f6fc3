#include "platform/sockets.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace tavrix::platform {

namespace {

// Winsock is started once for the process and left running.
bool startWinsock() {
  static const bool started = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return started;
}

SOCKET asSocket(Socket s) { return static_cast<SOCKET>(s); }

void prepare(SOCKET s) {
  u_long on = 1;
  ioctlsocket(s, FIONBIO, &on);
  const BOOL one = TRUE;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

bool wouldBlock() {
  const int err = WSAGetLastError();
  return err == WSAEWOULDBLOCK || err == WSAEINTR || err == WSAEINPROGRESS;
}

std::string lastSocketError() {
  wchar_t* text = nullptr;
  const int err = WSAGetLastError();
  FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, static_cast<DWORD>(err), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string out;
  for (const wchar_t* c = text; c != nullptr && *c != 0; ++c) {
    if (*c != L'\r' && *c != L'\n') out += *c < 128 ? static_cast<char>(*c) : '?';
  }
  if (text != nullptr) LocalFree(text);
  if (out.empty()) out = "socket error " + std::to_string(err);
  return out;
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
  std::string why = "the network is not available";
  if (!startWinsock()) {
    if (problem) *problem = why;
    return kNoSocket;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    if (problem) *problem = "the name \"" + host + "\" does not resolve: " + lastSocketError();
    return kNoSocket;
  }
  Socket connected = kNoSocket;
  for (addrinfo* a = found; a != nullptr && connected == kNoSocket; a = a->ai_next) {
    const SOCKET s = ::socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s == INVALID_SOCKET) {
      why = lastSocketError() + ": " + address;
      continue;
    }
    prepare(s);
    int rc = ::connect(s, a->ai_addr, static_cast<int>(a->ai_addrlen));
    if (rc != 0 && !wouldBlock()) why = lastSocketError() + ": " + address;
    if (rc != 0 && wouldBlock()) {
      // select() reports a refused connection in the error set, which
      // WSAPoll does not do on every Windows version.
      fd_set writable;
      fd_set failed;
      FD_ZERO(&writable);
      FD_ZERO(&failed);
      FD_SET(s, &writable);
      FD_SET(s, &failed);
      timeval wait{waitMs / 1000, (waitMs % 1000) * 1000};
      const int ready = ::select(0, nullptr, &writable, &failed, &wait);
      rc = ready == 1 && FD_ISSET(s, &writable) ? 0 : -1;
      if (rc != 0) {
        int err = 0;
        int len = sizeof err;
        getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &len);
        if (ready == 0) {
          why = "connection timed out: " + address;
        } else if (err == WSAECONNREFUSED) {
          why = "connection refused: " + address;
        } else {
          WSASetLastError(err);
          why = lastSocketError() + ": " + address;
        }
      }
    }
    if (rc == 0) {
      connected = static_cast<Socket>(s);
    } else {
      closesocket(s);
    }
  }
  freeaddrinfo(found);
  if (connected == kNoSocket && problem) *problem = why;
  return connected;
}

Socket listenTcp(const std::string& host, uint16_t& port, std::string* error) {
  if (!startWinsock()) {
    if (error) *error = "the network is not available";
    return kNoSocket;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    if (error) *error = "the host \"" + host + "\" is not an IPv4 address";
    return kNoSocket;
  }
  const SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) {
    if (error) *error = lastSocketError();
    return kNoSocket;
  }
  // Exclusive use: no other process may bind the same port beside us.
  const BOOL one = TRUE;
  setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&one), sizeof one);
  if (::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(s, SOMAXCONN) != 0) {
    if (error) *error = lastSocketError();
    closesocket(s);
    return kNoSocket;
  }
  u_long on = 1;
  ioctlsocket(s, FIONBIO, &on);
  int length = sizeof address;
  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return static_cast<Socket>(s);
}

Socket acceptClient(Socket listener, bool* outOfHandles, std::string* peer) {
  if (outOfHandles) *outOfHandles = false;
  sockaddr_storage from{};
  int fromLength = sizeof from;
  const SOCKET s = ::accept(asSocket(listener), reinterpret_cast<sockaddr*>(&from), &fromLength);
  if (s == INVALID_SOCKET) return kNoSocket;
  prepare(s);
  if (peer != nullptr) *peer = peerName(from);
  return static_cast<Socket>(s);
}

void shutdownSocket(Socket socket) {
  if (socket != kNoSocket) ::shutdown(asSocket(socket), SD_BOTH);
}

void closeSocket(Socket socket) {
  if (socket != kNoSocket) closesocket(asSocket(socket));
}

long sendSome(Socket socket, const char* bytes, size_t size) {
  const int chunk = size > 0x10000000 ? 0x10000000 : static_cast<int>(size);
  const int n = ::send(asSocket(socket), bytes, chunk, 0);
  if (n >= 0) return n;
  return wouldBlock() ? kWouldBlock : kBroken;
}

long receiveSome(Socket socket, char* bytes, size_t size) {
  const int chunk = size > 0x10000000 ? 0x10000000 : static_cast<int>(size);
  const int n = ::recv(asSocket(socket), bytes, chunk, 0);
  if (n >= 0) return n;
  return wouldBlock() ? kWouldBlock : kBroken;
}

int waitSockets(std::vector<Watch>& watches, int waitMs) {
  std::vector<WSAPOLLFD> fds;
  fds.reserve(watches.size());
  for (const Watch& w : watches) {
    WSAPOLLFD p{};
    p.fd = asSocket(w.socket);
    p.events = static_cast<SHORT>((w.forRead ? POLLRDNORM : 0) | (w.forWrite ? POLLWRNORM : 0));
    fds.push_back(p);
  }
  const int n = WSAPoll(fds.data(), static_cast<ULONG>(fds.size()), waitMs);
  for (size_t i = 0; i < watches.size(); ++i) {
    watches[i].readable = n > 0 && (fds[i].revents & (POLLRDNORM | POLLHUP | POLLERR)) != 0;
    watches[i].writable = n > 0 && (fds[i].revents & (POLLWRNORM | POLLERR)) != 0;
  }
  return n < 0 ? 0 : n;
}

}  // namespace tavrix::platform
