#include "common/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tavrix {

namespace {

bool fail(std::string* error, std::string_view what, const std::string& path, int err) {
  if (error) *error = std::string(what) + " \"" + path + "\": " + std::strerror(err);
  return false;
}

// "64 MiB", "1 MiB", "512 bytes".
std::string sizeText(size_t bytes) {
  if (bytes >= (size_t{1} << 20) && bytes % (size_t{1} << 20) == 0)
    return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " bytes";
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

// The marker of an append in progress: ".<name>.appending" beside the file,
// holding the file's length before the append.
std::string appendMarkerOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, name) + "." + path.substr(name) + ".appending";
}

// A marker left behind means the process that wrote it died in the middle of
// that append (the kernel may stop a large write at a page boundary when the
// process is killed): the file is cut back to its length before that append.
void finishInterruptedAppend(const std::string& marker, int fd, off_t& size) {
  const int in = ::open(marker.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return;
  char text[32] = {};
  const ssize_t n = ::read(in, text, sizeof text - 1);
  ::close(in);
  char* end = nullptr;
  const long long before = n > 0 ? std::strtoll(text, &end, 10) : -1;
  if (end != nullptr && *end == '\n' && before >= 0 && before < size && ::ftruncate(fd, before) == 0) {
    size = static_cast<off_t>(before);
  }
  ::unlink(marker.c_str());
}

}  // namespace

bool readTextFile(const std::string& path, std::string& text, std::string* error) {
  return readTextFile(path, text, error, kMaxTextFileBytes, kMaxTextLineBytes);
}

bool readTextFile(const std::string& path, std::string& text, std::string* error, size_t maxBytes,
                  size_t maxLineBytes) {
  // Non-blocking, so that opening a FIFO with no writer returns at once; it
  // is refused below as not a regular file.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return fail(error, "Cannot open", path, errno);
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    const int err = errno;
    ::close(fd);
    return fail(error, "Cannot read", path, err);
  }
  if (!S_ISREG(st.st_mode)) {
    ::close(fd);
    if (error) {
      *error = "Cannot read \"" + path + "\": " +
               (S_ISDIR(st.st_mode) ? "it is a folder"
                                    : "it is not a regular file (a device, FIFO or socket)");
    }
    return false;
  }
  const auto tooLarge = [&] {
    ::close(fd);
    if (error) {
      *error = "Cannot read \"" + path + "\": it is larger than " + sizeText(maxBytes) +
               ", the most a text file may hold";
    }
    return false;
  };
  if (static_cast<unsigned long long>(st.st_size) > maxBytes) return tooLarge();
  text.clear();
  text.reserve(static_cast<size_t>(st.st_size));
  size_t lineLength = 0;
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
    // The file may grow while it is read.
    if (text.size() + static_cast<size_t>(n) > maxBytes) return tooLarge();
    for (ssize_t i = 0; i < n; ++i) {
      if (buf[i] == '\r' || buf[i] == '\n') {
        lineLength = 0;
      } else if (++lineLength > maxLineBytes) {
        ::close(fd);
        if (error) {
          *error = "Cannot read \"" + path + "\": a line is longer than " + sizeText(maxLineBytes) +
                   ", the most a line may hold";
        }
        return false;
      }
    }
    text.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

std::string readFailureReason(const std::string& error) {
  const size_t reason = error.find("\": ");
  return reason == std::string::npos ? error : error.substr(reason + 3);
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
  const std::string marker = appendMarkerOf(path);
  off_t size = before.st_size;
  finishInterruptedAppend(marker, fd, size);
  const std::string text = joinLines(lines);
  bool marked = false;
  if (!text.empty()) {
    // Where the file cannot have a marker beside it, the append goes on
    // without one.
    const int out = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (out >= 0) {
      marked = writeAll(out, std::to_string(static_cast<long long>(size)) + "\n") == 0;
      ::close(out);
    }
  }
  int err = writeAll(fd, text);
  if (err != 0 && ::ftruncate(fd, size) != 0) {
    // Nothing more can be done; the write's error is the one reported.
  }
  if (::close(fd) != 0 && err == 0) err = errno;
  if (marked) ::unlink(marker.c_str());
  if (err != 0) return fail(error, "Cannot append to", path, err);
  return true;
}

}  // namespace tavrix
