#include "platform/local_endpoint.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace tavrix::platform {

namespace {

// Fills `address` for `path`. A path too long for it is reached through an
// open descriptor of its folder (`folder`, to close after use).
bool Address(const std::string& path, sockaddr_un& address, int& folder) {
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  folder = -1;
  std::string name = path;
  if (path.size() >= sizeof address.sun_path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
      errno = ENAMETOOLONG;
      return false;
    }
    folder = ::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return false;
    name = "/proc/self/fd/" + std::to_string(folder) + path.substr(slash);
    if (name.size() >= sizeof address.sun_path) {
      ::close(folder);
      folder = -1;
      errno = ENAMETOOLONG;
      return false;
    }
  }
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  return true;
}

class PosixServer final : public LocalServer {
 public:
  PosixServer(int listen, int wakeRead, int wakeWrite, std::string path)
      : listen_(listen), wake_{wakeRead, wakeWrite}, path_(std::move(path)) {}
  ~PosixServer() override {
    for (auto& [id, fd] : connections_) ::close(fd);
    ::close(listen_);
    ::close(wake_[0]);
    ::close(wake_[1]);
  }

  void wake() override {
    const char c = 1;
    [[maybe_unused]] const ssize_t n = ::write(wake_[1], &c, 1);
  }

  bool wait(bool accept, const std::vector<Interest>& interests, int timeoutMs,
            std::vector<int>& accepted, std::vector<Ready>& ready) override {
    std::vector<pollfd> fds;
    fds.push_back({wake_[0], POLLIN, 0});
    fds.push_back({listen_, static_cast<short>(accept ? POLLIN : 0), 0});
    std::vector<int> ids;
    for (const Interest& interest : interests) {
      const auto it = connections_.find(interest.id);
      if (it == connections_.end()) continue;
      // A connection is polled even when nothing is wanted of it: a hangup
      // is told all the same.
      fds.push_back(
          {it->second,
           static_cast<short>((interest.read ? POLLIN : 0) | (interest.write ? POLLOUT : 0)), 0});
      ids.push_back(interest.id);
    }
    if (::poll(fds.data(), fds.size(), timeoutMs) < 0) return errno == EINTR;
    char drain[256];
    while (::read(wake_[0], drain, sizeof drain) > 0) {
    }
    if (fds[1].revents & POLLIN) {
      const int fd = ::accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd >= 0) {
        connections_[next_] = fd;
        accepted.push_back(next_++);
      }
    }
    for (size_t i = 0; i < ids.size(); ++i) {
      const short got = fds[i + 2].revents;
      if (got == 0) continue;
      Ready r;
      r.id = ids[i];
      r.readable = got & (POLLIN | POLLHUP | POLLERR);
      r.writable = got & POLLOUT;
      r.hangup = got & (POLLHUP | POLLERR);
      ready.push_back(r);
    }
    return true;
  }

  long read(int id, char* buffer, size_t size) override {
    const auto it = connections_.find(id);
    if (it == connections_.end()) return kBroken;
    const ssize_t n = ::recv(it->second, buffer, size, 0);
    if (n >= 0) return static_cast<long>(n);
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kWouldBlock : kBroken;
  }

  long write(int id, const char* data, size_t size) override {
    const auto it = connections_.find(id);
    if (it == connections_.end()) return kBroken;
    const ssize_t n = ::send(it->second, data, size, MSG_NOSIGNAL);
    if (n > 0) return static_cast<long>(n);
    if (n == 0) return kWouldBlock;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kWouldBlock : kBroken;
  }

  void stopReading(int id) override {
    const auto it = connections_.find(id);
    if (it != connections_.end()) ::shutdown(it->second, SHUT_RD);
  }

  void close(int id) override {
    const auto it = connections_.find(id);
    if (it == connections_.end()) return;
    ::close(it->second);
    connections_.erase(it);
  }

  bool onlyOwnerMayConnect(std::string* why) const override {
    struct stat st {};
    if (::stat(path_.c_str(), &st) != 0) {
      *why = path_ + ": " + std::strerror(errno);
      return false;
    }
    if ((st.st_mode & 077) != 0 || st.st_uid != ::getuid()) {
      char mode[8];
      std::snprintf(mode, sizeof mode, "%03o", static_cast<unsigned>(st.st_mode & 0777));
      *why = path_ + " has mode " + mode + " and owner " + std::to_string(st.st_uid);
      return false;
    }
    return true;
  }

 private:
  int listen_;
  int wake_[2];
  std::string path_;
  std::map<int, int> connections_;
  int next_ = 1;
};

class PosixConnection final : public LocalConnection {
 public:
  explicit PosixConnection(int fd) : fd_(fd) {}
  ~PosixConnection() override { ::close(fd_); }

  bool send(const char* data, size_t size) override {
    size_t sent = 0;
    while (sent < size) {
      const ssize_t n = ::send(fd_, data + sent, size - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }

  long receive(char* buffer, size_t size, int timeoutMs) override {
    for (;;) {
      pollfd fd{fd_, POLLIN, 0};
      const int got = ::poll(&fd, 1, timeoutMs);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return 0;
      const ssize_t n = ::recv(fd_, buffer, size, 0);
      if (n < 0 && errno == EINTR) continue;
      return n < 0 ? 0 : static_cast<long>(n);
    }
  }

 private:
  int fd_;
};

}  // namespace

int listenUnixSocket(const std::string& path, std::string* error) {
  sockaddr_un address;
  int folder = -1;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0 || !Address(path, address, folder) ||
      ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0600) != 0 || ::listen(fd, 16) != 0) {
    *error = "cannot listen at " + path + ": " + std::strerror(errno);
    if (fd >= 0) ::close(fd);
    if (folder >= 0) ::close(folder);
    return -1;
  }
  if (folder >= 0) ::close(folder);
  return fd;
}

int connectUnixSocket(const std::string& path) {
  sockaddr_un address;
  int folder = -1;
  if (!Address(path, address, folder)) return -1;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int saved = 0;
  if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    saved = errno;
    ::close(fd);
    if (folder >= 0) ::close(folder);
    errno = saved;
    return -1;
  }
  if (folder >= 0) ::close(folder);
  return fd;
}

std::unique_ptr<LocalServer> LocalServer::Listen(const std::string& path, std::string* error) {
  const int fd = listenUnixSocket(path, error);
  if (fd < 0) return nullptr;
  int wake[2];
  if (::pipe2(wake, O_NONBLOCK | O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe: ") + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<PosixServer>(fd, wake[0], wake[1], path);
}

LocalConnection::Outcome LocalConnection::Connect(const std::string& path,
                                                  std::unique_ptr<LocalConnection>& connection,
                                                  std::string* error) {
  const int fd = connectUnixSocket(path);
  if (fd < 0) {
    const int saved = errno;
    if (error != nullptr) *error = "cannot reach " + path + ": " + std::strerror(saved);
    return saved == ECONNREFUSED || saved == ENOENT ? Outcome::kGone : Outcome::kFailed;
  }
  connection = std::make_unique<PosixConnection>(fd);
  return Outcome::kConnected;
}

}  // namespace tavrix::platform
