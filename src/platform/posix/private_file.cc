#include "platform/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavrix::platform {

bool othersMayAccess(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && (st.st_mode & 077) != 0;
}

std::string writeNewPrivateFile(const std::string& path, std::string_view content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return std::strerror(errno);
  while (!content.empty()) {
    const ssize_t n = ::write(fd, content.data(), content.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const std::string why = std::strerror(errno);
      ::close(fd);
      ::unlink(path.c_str());
      return why;
    }
    content.remove_prefix(static_cast<size_t>(n));
  }
  if (::close(fd) != 0) {
    const std::string why = std::strerror(errno);
    ::unlink(path.c_str());
    return why;
  }
  return {};
}

}  // namespace tavrix::platform
