// TCP sockets, non-blocking, behind a handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tavrix::platform {

using Socket = intptr_t;
inline constexpr Socket kNoSocket = -1;

// Connects to `host` (a name or an address) at `port`, waiting at most
// `waitMs`. kNoSocket when no address answers; `problem` (when given) then
// says why: "the name "x" does not resolve: ..." or the reason and the
// address ("connection refused: 127.0.0.1:4000").
Socket connectTcp(const std::string& host, uint16_t port, int waitMs,
                  std::string* problem = nullptr);
// Listens on the IPv4 address `host`; `port` 0 picks a free port, which
// `port` then holds. kNoSocket with a message in `error` on failure.
Socket listenTcp(const std::string& host, uint16_t& port, std::string* error);
// A waiting client of `listener`, or kNoSocket. When the process has no
// handles left for it, the client is still taken off the queue (a handle
// kept in reserve makes room) and `outOfHandles` is set: the caller tells it
// why and closes it, instead of the listener staying ready for ever.
// `peer` (when given) gets the client's "ADDRESS:PORT", for a log.
Socket acceptClient(Socket listener, bool* outOfHandles = nullptr, std::string* peer = nullptr);
// Whether `host` is a numeric IPv4 address, and one of the loopback block
// 127.0.0.0/8.
bool isIpv4Address(const std::string& host);
bool isLoopbackAddress(const std::string& host);
// "A.B.C.D:PORT" of an IPv4 address in host byte order, for a log.
std::string peerText(uint32_t address, uint16_t port);
void closeSocket(Socket socket);
// Ends both directions of a connection without closing its handle: a thread
// waiting on the socket wakes and finds it closed.
void shutdownSocket(Socket socket);

// Results of sendSome/receiveSome besides a byte count.
inline constexpr long kWouldBlock = -1;
inline constexpr long kBroken = -2;
// Bytes sent, kWouldBlock or kBroken.
long sendSome(Socket socket, const char* bytes, size_t size);
// Bytes received, 0 when the peer closed, kWouldBlock or kBroken.
long receiveSome(Socket socket, char* bytes, size_t size);

struct Watch {
  Socket socket = kNoSocket;
  bool forRead = false;
  bool forWrite = false;
  // Set by waitSockets: readable (or closed or failed), writable.
  bool readable = false;
  bool writable = false;
};
// Waits at most `waitMs` until one watched socket is ready; the number ready.
int waitSockets(std::vector<Watch>& watches, int waitMs);

}  // namespace tavrix::platform
