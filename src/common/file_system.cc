// The machine's file system: the one place that calls the operating system
// for files.
#include "common/file_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace tavrix {

std::string parentFolder(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool FileSystem::writeAtomically(const std::string& path, std::string_view bytes,
                                 std::string* error) {
  auto file = rewrite(path, error);
  return file && file->write(bytes, error) && file->commit(error);
}

namespace {

bool fail(std::string* error, std::string_view what, const std::string& path, int err) {
  if (error) *error = std::string(what) + " \"" + path + "\": " + std::strerror(err);
  return false;
}

// Writes all of `bytes`, going on after short writes and interruptions.
// Returns 0 or the error number.
int writeAll(int fd, std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

void syncFolder(const std::string& folder) {
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
}

// The marker of an append in progress: ".<name>.appending" beside the file,
// holding the file's length before the append.
std::string appendMarkerOf(const std::string& path) {
  const std::string folder = path.find('/') == std::string::npos ? "" : parentFolder(path) + "/";
  return folder + "." + baseName(path) + ".appending";
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
  if (end != nullptr && *end == '\n' && before >= 0 && before < size &&
      ::ftruncate(fd, before) == 0) {
    size = static_cast<off_t>(before);
  }
  ::unlink(marker.c_str());
}

// Temporary files of a rewrite: ".<name>.<pid>-<n>.tmp" beside the target.
std::string tempPrefixOf(const std::string& path) { return "." + baseName(path) + "."; }
constexpr std::string_view kTempSuffix = ".tmp";

// Removes the temporary files of rewrites of `path` whose writer has died.
void removeStaleTemps(const std::string& path) {
  const std::string folder = parentFolder(path);
  const std::string prefix = tempPrefixOf(path);
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name.size() <= prefix.size() + kTempSuffix.size() || !name.starts_with(prefix) ||
        !name.ends_with(kTempSuffix)) {
      continue;
    }
    const std::string middle(
        name.substr(prefix.size(), name.size() - prefix.size() - kTempSuffix.size()));
    char* end = nullptr;
    const long pid = std::strtol(middle.c_str(), &end, 10);
    if (end == middle.c_str() || *end != '-' || pid <= 0) continue;
    if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    ::unlink((folder + "/" + std::string(name)).c_str());
  }
  ::closedir(dir);
}

class LocalInputFile final : public InputFile {
 public:
  LocalInputFile(int fd, std::string path, uint64_t size)
      : fd_(fd), path_(std::move(path)), size_(size) {}
  ~LocalInputFile() override { ::close(fd_); }
  uint64_t size() const override { return size_; }
  bool read(void* bytes, size_t size, size_t& got, std::string* error) override {
    for (;;) {
      const ssize_t n = ::read(fd_, bytes, size);
      if (n >= 0) {
        got = static_cast<size_t>(n);
        return true;
      }
      if (errno != EINTR) return fail(error, "Cannot read", path_, errno);
    }
  }

 private:
  int fd_;
  std::string path_;
  uint64_t size_;
};

// The temporary files of the rewrites under way in this process.
std::mutex gTempMutex;
std::set<std::string> gPendingTemps;

void forgetTemp(const std::string& temp) {
  std::lock_guard guard(gTempMutex);
  gPendingTemps.erase(temp);
}

class LocalAtomicFile final : public AtomicFile {
 public:
  LocalAtomicFile(int fd, std::string temp, std::string path)
      : fd_(fd), temp_(std::move(temp)), path_(std::move(path)) {
    std::lock_guard guard(gTempMutex);
    gPendingTemps.insert(temp_);
  }
  ~LocalAtomicFile() override {
    if (fd_ >= 0) ::close(fd_);
    if (!temp_.empty()) {
      ::unlink(temp_.c_str());
      forgetTemp(temp_);
    }
  }
  bool write(std::string_view bytes, std::string* error) override {
    if (fd_ < 0) return fail(error, "Cannot write", path_, EBADF);
    const int err = writeAll(fd_, bytes);
    return err == 0 || fail(error, "Cannot write", path_, err);
  }
  bool commit(std::string* error) override {
    if (fd_ < 0) return fail(error, "Cannot write", path_, EBADF);
    int err = 0;
    if (::fsync(fd_) != 0) err = errno;
    if (::close(fd_) != 0 && err == 0) err = errno;
    fd_ = -1;
    if (err == 0 && ::rename(temp_.c_str(), path_.c_str()) != 0) err = errno;
    if (err != 0) return fail(error, "Cannot write", path_, err);
    forgetTemp(temp_);
    temp_.clear();
    // Make the rename itself durable; a failure here no longer loses data.
    syncFolder(parentFolder(path_));
    return true;
  }

 private:
  int fd_;
  std::string temp_;
  std::string path_;
};

class LocalOutputFile final : public OutputFile {
 public:
  LocalOutputFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~LocalOutputFile() override { ::close(fd_); }
  bool write(std::string_view bytes, std::string* error) override {
    const int err = writeAll(fd_, bytes);
    return err == 0 || fail(error, "Cannot write", path_, err);
  }

 private:
  int fd_;
  std::string path_;
};

// Folder locks. flock() conflicts between two descriptors of one process as
// between two processes, so a process takes each folder's lock once and
// shares it out: the thread that holds it may take it again, other threads
// wait their turn.
struct HeldFolder {
  int fd = -1;
  int count = 0;
  std::thread::id owner;
  pid_t process = 0;  // a forked child inherits the table, not the locks
};

std::mutex gLockMutex;
std::condition_variable gLockFreed;
std::map<std::pair<uint64_t, uint64_t>, HeldFolder> gHeld;

class LocalFolderLock final : public FileLock {
 public:
  explicit LocalFolderLock(std::pair<uint64_t, uint64_t> key) : key_(key) {}
  ~LocalFolderLock() override {
    std::lock_guard guard(gLockMutex);
    auto it = gHeld.find(key_);
    if (it == gHeld.end() || --it->second.count > 0) return;
    ::flock(it->second.fd, LOCK_UN);
    ::close(it->second.fd);
    gHeld.erase(it);
    gLockFreed.notify_all();
  }

 private:
  std::pair<uint64_t, uint64_t> key_;
};

}  // namespace

void removeUnfinishedRewrites() {
  std::lock_guard guard(gTempMutex);
  for (const auto& temp : gPendingTemps) ::unlink(temp.c_str());
  gPendingTemps.clear();
}

LocalFileSystem::LocalFileSystem(std::string dataRoot) : dataRoot_(std::move(dataRoot)) {}

std::string LocalFileSystem::currentFolder() const {
  char buf[4096];
  return ::getcwd(buf, sizeof buf) != nullptr ? std::string(buf) : std::string(".");
}

FileInfo LocalFileSystem::info(const std::string& path) const {
  FileInfo info;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return info;
  info.kind = S_ISREG(st.st_mode)   ? FileKind::kFile
              : S_ISDIR(st.st_mode) ? FileKind::kFolder
                                    : FileKind::kOther;
  info.size = static_cast<uint64_t>(st.st_size);
  info.modifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
  info.device = static_cast<uint64_t>(st.st_dev);
  info.inode = static_cast<uint64_t>(st.st_ino);
  return info;
}

bool LocalFileSystem::readFile(const std::string& path, std::string& bytes,
                               std::string* error) const {
  // Non-blocking, so that opening a FIFO with no writer returns at once; it
  // is refused below as not a regular file.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return fail(error, "Cannot open", path, errno);
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    const int err = errno;
    const bool folder = S_ISDIR(st.st_mode);
    ::close(fd);
    if (error && err == 0) {
      *error = "Cannot read \"" + path + "\": " +
               (folder ? "it is a folder" : "it is not a regular file (a device, FIFO or socket)");
      return false;
    }
    return fail(error, "Cannot read", path, err);
  }
  bytes.clear();
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
    bytes.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

std::unique_ptr<InputFile> LocalFileSystem::openInput(const std::string& path,
                                                      std::string* error) const {
  // Non-blocking, so that a FIFO with no writer is refused at once below.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    fail(error, "Cannot open", path, errno);
    return nullptr;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    fail(error, "Cannot read", path, errno);
    ::close(fd);
    return nullptr;
  }
  if (S_ISDIR(st.st_mode)) {
    fail(error, "Cannot read", path, EISDIR);
    ::close(fd);
    return nullptr;
  }
  if (!S_ISREG(st.st_mode)) {
    if (error) *error = "Cannot read \"" + path + "\": it is not a regular file";
    ::close(fd);
    return nullptr;
  }
  // Reads block again: a regular file never waits.
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return std::make_unique<LocalInputFile>(fd, path, static_cast<uint64_t>(st.st_size));
}

std::unique_ptr<AtomicFile> LocalFileSystem::rewrite(const std::string& path, std::string* error) {
  static std::atomic<unsigned> counter{0};
  removeStaleTemps(path);
  const std::string folder = path.find('/') == std::string::npos ? "" : parentFolder(path) + "/";
  std::string temp;
  int fd = -1;
  int err = 0;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temp = folder + tempPrefixOf(path) + std::to_string(::getpid()) + "-" +
           std::to_string(counter++) + std::string(kTempSuffix);
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    err = errno;
    if (fd < 0 && err != EEXIST) break;
  }
  if (fd < 0) {
    fail(error, "Cannot write", path, err);
    return nullptr;
  }
  struct stat old {};
  if (::stat(path.c_str(), &old) == 0) ::fchmod(fd, old.st_mode & 07777);
  return std::make_unique<LocalAtomicFile>(fd, temp, path);
}

bool LocalFileSystem::append(const std::string& path, std::string_view bytes, std::string* error) {
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
  bool marked = false;
  if (!bytes.empty()) {
    // Where the file cannot have a marker beside it, the append goes on
    // without one.
    const int out = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (out >= 0) {
      marked = writeAll(out, std::to_string(static_cast<long long>(size)) + "\n") == 0;
      ::close(out);
      if (!marked) ::unlink(marker.c_str());
    }
  }
  int err = writeAll(fd, bytes);
  if (err == 0 && ::fdatasync(fd) != 0) err = errno;
  if (err != 0 && ::ftruncate(fd, size) != 0) {
    // Nothing more can be done; the write's error is the one reported.
  }
  if (::close(fd) != 0 && err == 0) err = errno;
  if (marked) ::unlink(marker.c_str());
  if (err != 0 && size == 0 && before.st_size == 0) {
    // The append created the file and nothing of it is left: no empty file
    // stays where there was none. (A file that was already there but empty
    // goes too; it held nothing.)
    ::unlink(path.c_str());
  }
  if (err != 0) return fail(error, "Cannot append to", path, err);
  return true;
}

bool LocalFileSystem::truncate(const std::string& path, uint64_t size, std::string* error) {
  if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0)
    return fail(error, "Cannot cut back", path, errno);
  return true;
}

std::unique_ptr<OutputFile> LocalFileSystem::create(const std::string& path, std::string* error) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    fail(error, "Cannot write", path, errno);
    return nullptr;
  }
  return std::make_unique<LocalOutputFile>(fd, path);
}

bool LocalFileSystem::list(const std::string& folder, std::vector<std::string>& names,
                           std::string* error) const {
  names.clear();
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return fail(error, "Cannot list", folder, errno);
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  ::closedir(dir);
  return true;
}

bool LocalFileSystem::makeFolders(const std::string& folder, std::string* error) {
  if (folder.empty()) return true;
  std::string part;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = folder.find('/', pos + 1);
    part = folder.substr(0, pos);
    if (part.empty() || part == "." || part == "..") continue;
    if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
      return fail(error, "Cannot create", part, errno);
  }
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0) return fail(error, "Cannot create", folder, errno);
  if (!S_ISDIR(st.st_mode)) return fail(error, "Cannot create", folder, ENOTDIR);
  return true;
}

bool LocalFileSystem::remove(const std::string& path, std::string* error) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  if (errno == EISDIR || errno == EPERM) {
    if (::rmdir(path.c_str()) == 0) return true;
  }
  return fail(error, "Cannot delete", path, errno);
}

std::unique_ptr<FileLock> LocalFileSystem::lock(const std::string& path, std::string* error) {
  const std::string folder = parentFolder(path);
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    fail(error, "Cannot lock", path, errno);
    return nullptr;
  }
  struct stat st {};
  ::fstat(fd, &st);
  const std::pair<uint64_t, uint64_t> key{st.st_dev, st.st_ino};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(lockWaitMs_);
  const auto self = std::this_thread::get_id();
  std::unique_lock guard(gLockMutex);
  for (;;) {
    auto it = gHeld.find(key);
    if (it != gHeld.end() && it->second.process != ::getpid()) {
      ::close(it->second.fd);
      gHeld.erase(it);
      it = gHeld.end();
    }
    if (it != gHeld.end() && it->second.owner == self) {
      ++it->second.count;
      ::close(fd);
      return std::make_unique<LocalFolderLock>(key);
    }
    if (it == gHeld.end()) {
      if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        gHeld[key] = HeldFolder{fd, 1, self, ::getpid()};
        return std::make_unique<LocalFolderLock>(key);
      }
      if (errno != EWOULDBLOCK && errno != EINTR) {
        const int err = errno;
        ::close(fd);
        fail(error, "Cannot lock", path, err);
        return nullptr;
      }
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      ::close(fd);
      if (error) {
        *error = "Cannot lock \"" + path + "\": another program kept it locked for " +
                 std::to_string(lockWaitMs_ / 1000) + " s";
      }
      return nullptr;
    }
    // Another process holds the folder: look again shortly. Another thread
    // of this one: wait until it lets go.
    gLockFreed.wait_for(guard, std::chrono::milliseconds(2));
  }
}

}  // namespace tavrix

namespace tavrix {

ScratchFolder::ScratchFolder(bool withoutDots) {
  const char* tmp = std::getenv("TMPDIR");
  std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  if (withoutDots && base.find('.') != std::string::npos) base = "/tmp";
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  std::string pattern = base + "/tavrix-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::fprintf(stderr, "cannot create a scratch folder in %s: %s\n", base.c_str(),
                 std::strerror(errno));
    std::abort();
  }
  path_ = pattern;
}

ScratchFolder::~ScratchFolder() { removeTree(path_); }

bool removeTree(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
  if (S_ISDIR(st.st_mode)) {
    bool ok = true;
    if (DIR* dir = ::opendir(path.c_str())) {
      std::vector<std::string> names;
      while (const dirent* entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
      }
      ::closedir(dir);
      for (const auto& name : names) ok = removeTree(path + "/" + name) && ok;
    }
    return ::rmdir(path.c_str()) == 0 && ok;
  }
  return ::unlink(path.c_str()) == 0;
}

}  // namespace tavrix

namespace tavrix {

FileSystem& localFiles() {
  static LocalFileSystem files;
  return files;
}

}  // namespace tavrix

namespace tavrix {

namespace {

class StreamOutput final : public OutputFile {
 public:
  explicit StreamOutput(std::FILE* stream) : stream_(stream) {}
  bool write(std::string_view bytes, std::string* error) override {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stream_) == bytes.size() &&
        std::fflush(stream_) == 0) {
      return true;
    }
    if (error) *error = std::string("Cannot write to the output: ") + std::strerror(errno);
    return false;
  }

 private:
  std::FILE* stream_;
};

}  // namespace

std::unique_ptr<OutputFile> streamOutput(std::FILE* stream) {
  return std::make_unique<StreamOutput>(stream);
}

}  // namespace tavrix

namespace tavrix {

bool copyTree(FileSystem& files, const std::string& from, const std::string& to) {
  std::vector<std::string> names;
  if (!files.list(from, names, nullptr) || !files.makeFolders(to, nullptr)) return false;
  for (const auto& name : names) {
    const std::string source = from + "/" + name;
    const std::string target = to + "/" + name;
    const FileKind kind = files.info(source).kind;
    std::string bytes;
    const bool copied = kind == FileKind::kFolder
                            ? copyTree(files, source, target)
                            : files.readFile(source, bytes, nullptr) &&
                                  files.writeAtomically(target, bytes, nullptr);
    if (!copied) return false;
  }
  return true;
}

bool changeCurrentFolder(const std::string& folder) { return ::chdir(folder.c_str()) == 0; }

}  // namespace tavrix
