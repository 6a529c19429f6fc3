#include "control_socket_address.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavrix {

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

}  // namespace

int ListenControlSocket(const std::string& path, std::string* error) {
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

int ConnectControlSocket(const std::string& path) {
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

}  // namespace tavrix
