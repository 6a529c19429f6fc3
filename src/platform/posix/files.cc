#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace tavrix::platform {

namespace {

void fillInfo(const struct stat& st, PathInfo& info) {
  info.kind = S_ISREG(st.st_mode)   ? PathKind::kFile
              : S_ISDIR(st.st_mode) ? PathKind::kFolder
                                    : PathKind::kOther;
  info.size = static_cast<uint64_t>(st.st_size);
  info.modifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
  info.device = static_cast<uint64_t>(st.st_dev);
  info.inode = static_cast<uint64_t>(st.st_ino);
  info.mode = st.st_mode & 07777;
}

}  // namespace

int openFile(const std::string& path, OpenMode mode, FileHandle& file) {
  int flags = O_CLOEXEC;
  switch (mode) {
    case OpenMode::kRead:
      flags |= O_RDONLY;
      break;
    case OpenMode::kCreateNew:
      flags |= O_WRONLY | O_CREAT | O_EXCL;
      break;
    case OpenMode::kCreateOrTruncate:
      flags |= O_WRONLY | O_CREAT | O_TRUNC;
      break;
    case OpenMode::kAppend:
      flags |= O_WRONLY | O_CREAT | O_APPEND;
      break;
    case OpenMode::kReadWrite:
      flags |= O_RDWR | O_CREAT;
      break;
  }
  if (mode == OpenMode::kRead) flags |= O_NONBLOCK;
  const int fd = ::open(path.c_str(), flags, 0666);
  if (fd < 0) return errno;
  if (mode == OpenMode::kRead) {
    // Reads of a regular file block again (they never wait); a pipe stays
    // non-blocking, so reading it without a writer fails instead of hanging.
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
      ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  }
  file = fd;
  return 0;
}

void closeFile(FileHandle file) {
  if (file != kNoFile) ::close(static_cast<int>(file));
}

int readSome(FileHandle file, void* bytes, size_t size, size_t& got) {
  for (;;) {
    const ssize_t n = ::read(static_cast<int>(file), bytes, size);
    if (n >= 0) {
      got = static_cast<size_t>(n);
      return 0;
    }
    if (errno != EINTR) return errno;
  }
}

int writeAll(FileHandle file, const void* bytes, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n =
        ::write(static_cast<int>(file), static_cast<const char*>(bytes) + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

int syncFile(FileHandle file) { return ::fsync(static_cast<int>(file)) == 0 ? 0 : errno; }

int truncateFile(FileHandle file, uint64_t size) {
  return ::ftruncate(static_cast<int>(file), static_cast<off_t>(size)) == 0 ? 0 : errno;
}

int seekFile(FileHandle file, uint64_t offset) {
  return ::lseek(static_cast<int>(file), static_cast<off_t>(offset), SEEK_SET) >= 0 ? 0 : errno;
}

int pathInfo(const std::string& path, PathInfo& info) {
  info = PathInfo{};
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return errno == ENOENT || errno == ENOTDIR ? 0 : errno;
  fillInfo(st, info);
  return 0;
}

int fileInfo(FileHandle file, PathInfo& info) {
  info = PathInfo{};
  struct stat st {};
  if (::fstat(static_cast<int>(file), &st) != 0) return errno;
  fillInfo(st, info);
  return 0;
}

void copyPermissions(const PathInfo& info, FileHandle file) {
  ::fchmod(static_cast<int>(file), static_cast<mode_t>(info.mode));
}

int replaceFile(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int removeFile(const std::string& path) { return ::unlink(path.c_str()) == 0 ? 0 : errno; }

void syncFolder(const std::string& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

int listFolder(const std::string& folder, std::vector<std::string>& names) {
  names.clear();
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return errno;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  return 0;
}

int makeFolder(const std::string& folder) { return ::mkdir(folder.c_str(), 0777) == 0 ? 0 : errno; }

int tryLockFile(FileHandle file) {
  return ::flock(static_cast<int>(file), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}

int openFolderLock(const std::string& folder, FileHandle& file) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  file = fd;
  return 0;
}

const char* folderLockFileName() { return ""; }

int removeFolder(const std::string& folder) { return ::rmdir(folder.c_str()) == 0 ? 0 : errno; }

int entryInfo(const std::string& path, PathInfo& info) {
  info = PathInfo{};
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT || errno == ENOTDIR ? 0 : errno;
  fillInfo(st, info);
  return 0;
}

const char* pathSeparators() { return "/"; }

std::string currentFolder() {
  char buf[4096];
  return ::getcwd(buf, sizeof buf) != nullptr ? std::string(buf) : std::string(".");
}

int changeFolder(const std::string& folder) { return ::chdir(folder.c_str()) == 0 ? 0 : errno; }

std::string tempFolder() {
  const char* tmp = std::getenv("TMPDIR");
  std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  return base;
}

int makeUniqueFolder(const std::string& prefix, std::string& path) {
  std::string pattern = prefix + "XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return errno;
  path = pattern;
  return 0;
}

bool processRunning(unsigned long pid) {
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

std::string allowedFileName(std::string name) { return name; }

std::string errorText(int error) { return std::strerror(error); }

unsigned long processId() { return static_cast<unsigned long>(::getpid()); }

}  // namespace tavrix::platform

namespace tavrix::platform {

bool fileNamesIgnoreCase() { return false; }

bool hasDriveLetters() { return false; }

}  // namespace tavrix::platform
