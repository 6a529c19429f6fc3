#include "common/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace tavrix {

namespace {

bool fail(std::string* error, std::string_view what, const std::string& path, int err) {
  if (error) *error = std::string(what) + " \"" + path + "\": " + std::strerror(err);
  return false;
}

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) {
    text += line;
    text += kLineEnd;
  }
  return text;
}

// Writes all of `text`, going on after short writes and interruptions.
// Returns 0 or the error number.
int writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

bool readTextFile(const std::string& path, std::string& text, std::string* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return fail(error, "Cannot open", path, errno);
  text.clear();
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      ::close(fd);
      return fail(error, "Cannot read", path, err);
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

bool writeTextFileAtomically(const std::string& path, const std::vector<std::string>& lines,
                             std::string* error) {
  static std::atomic<unsigned> counter{0};
  std::string temp;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temp = path + ".tmp" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) return fail(error, "Cannot write", path, errno);

  struct stat old {};
  if (::stat(path.c_str(), &old) == 0) ::fchmod(fd, old.st_mode & 07777);

  int err = writeAll(fd, joinLines(lines));
  if (err == 0 && ::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && ::rename(temp.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(temp.c_str());
    return fail(error, "Cannot write", path, err);
  }
  // Make the rename itself durable; a failure here no longer loses data.
  const int dir = ::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

bool appendLines(const std::string& path, const std::vector<std::string>& lines,
                 std::string* error) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return fail(error, "Cannot append to", path, errno);
  struct stat before {};
  if (::fstat(fd, &before) != 0) {
    const int err = errno;
    ::close(fd);
    return fail(error, "Cannot append to", path, err);
  }
  int err = writeAll(fd, joinLines(lines));
  if (err != 0 && ::ftruncate(fd, before.st_size) != 0) {
    // Nothing more can be done; the write's error is the one reported.
  }
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err != 0) return fail(error, "Cannot append to", path, err);
  return true;
}

}  // namespace tavrix
