// A local endpoint that only its user can reach, with nothing on the
// network: a Unix-domain socket with owner-only permissions on POSIX, a
// named pipe with an owner-only security descriptor that refuses remote
// clients on Windows. A server serves all its connections from one thread:
// it waits for what it wants to know (a new connection, data to read, room
// to write), then reads and writes without blocking.
//
// An endpoint is known by the path of a file: on POSIX the socket itself;
// on Windows a small file holding the name of the pipe (the pipe's name is
// made when it opens, so that nobody can take it first). The file stays when
// the server goes, until its owner removes it, so that a client can tell an
// endpoint whose server went (kGone) from a failure to reach one.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace tavrix::platform {

class LocalServer {
 public:
  // What wait() found for one connection.
  struct Ready {
    int id = 0;
    // read() has something to say: data, the end of what the client sends,
    // or an error.
    bool readable = false;
    // write() would take something now.
    bool writable = false;
    // The client has gone (or its connection broke).
    bool hangup = false;
  };
  // What the server wants to know of one connection.
  struct Interest {
    int id = 0;
    bool read = false;
    bool write = false;
  };

  // Listens at `path`; nullptr with a message.
  static std::unique_ptr<LocalServer> Listen(const std::string& path, std::string* error);
  virtual ~LocalServer() = default;

  // Any thread: makes the current or next wait() return.
  virtual void wake() = 0;

  // Waits until a client connects (when `accept`), a connection named in
  // `interests` is ready, wake() is called, or `timeoutMs` passes (-1: no
  // limit). New connections land in `accepted`, ready ones in `ready`.
  // False when waiting itself failed.
  virtual bool wait(bool accept, const std::vector<Interest>& interests, int timeoutMs,
                    std::vector<int>& accepted, std::vector<Ready>& ready) = 0;

  // Without blocking: >0 bytes read; 0 when the client sends no more;
  // kWouldBlock when nothing is there yet; kBroken when the connection broke.
  virtual long read(int id, char* buffer, size_t size) = 0;
  // Without blocking: the bytes taken (>0); kWouldBlock when there is no room
  // yet; kBroken when the connection broke.
  virtual long write(int id, const char* data, size_t size) = 0;
  // Nothing more is read from the connection; replies may still be written.
  virtual void stopReading(int id) = 0;
  // Closes the connection; what it was given to write and took is still
  // delivered where the system can.
  virtual void close(int id) = 0;

  // Whether only this program's user may connect; false with the reason.
  virtual bool onlyOwnerMayConnect(std::string* why) const = 0;

  static constexpr long kWouldBlock = -1;
  static constexpr long kBroken = -2;
};

// A client's connection, blocking.
class LocalConnection {
 public:
  enum class Outcome {
    kConnected,
    // Nobody listens there any more (or never did): what is left at `path`
    // is stale.
    kGone,
    kFailed,
  };
  // Connects to the endpoint at `path`; `connection` is set when connected,
  // `error` (may be nullptr) when it failed.
  static Outcome Connect(const std::string& path, std::unique_ptr<LocalConnection>& connection,
                         std::string* error = nullptr);
  virtual ~LocalConnection() = default;

  // Sends all of `data`; false when the connection broke.
  virtual bool send(const char* data, size_t size) = 0;
  // Waits at most `timeoutMs` (-1: no limit) for data: the bytes read (>0),
  // 0 when the server closed the connection or the time ran out.
  virtual long receive(char* buffer, size_t size, int timeoutMs = -1) = 0;
};

#ifndef _WIN32
// The socket descriptors themselves, for a caller that polls them along
// with others of its own. A path too long for a socket address is reached
// through its folder.
// A non-blocking listening socket at `path`, readable and writable by its
// owner only; -1 with a message.
int listenUnixSocket(const std::string& path, std::string* error);
// A blocking connection to the socket at `path`; -1 with errno set
// (ECONNREFUSED or ENOENT: nobody listens there any more).
int connectUnixSocket(const std::string& path);
#endif

}  // namespace tavrix::platform
