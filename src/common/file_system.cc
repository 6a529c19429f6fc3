// The machine's file system: the one place that calls the operating system
// for files.
#include "common/file_system.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "platform/files.h"
#include "platform/private_file.h"

namespace tavrix {

std::string parentFolder(const std::string& path) {
  const size_t slash = path.find_last_of(platform::pathSeparators());
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  const size_t slash = path.find_last_of(platform::pathSeparators());
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool FileSystem::writeAtomically(const std::string& path, std::string_view bytes,
                                 std::string* error) {
  auto file = rewrite(path, error);
  return file && file->write(bytes, error) && file->commit(error);
}

namespace {

using platform::FileHandle;
using platform::kNoFile;
using platform::OpenMode;
using platform::PathInfo;
using platform::PathKind;

bool fail(std::string* error, std::string_view what, const std::string& path, int err) {
  if (error) *error = std::string(what) + " \"" + path + "\": " + platform::errorText(err);
  return false;
}

int writeAll(FileHandle file, std::string_view bytes) {
  return platform::writeAll(file, bytes.data(), bytes.size());
}

// The folder part of `path` followed by a separator, or "" for a bare name.
std::string folderPrefixOf(const std::string& path) {
  return path.find_first_of(platform::pathSeparators()) == std::string::npos
             ? ""
             : parentFolder(path) + "/";
}

// The marker of an append in progress: ".<name>.appending" beside the file,
// holding the file's length before the append.
std::string appendMarkerOf(const std::string& path) {
  return folderPrefixOf(path) + "." + baseName(path) + ".appending";
}

// A marker left behind means the process that wrote it died in the middle of
// that append (the kernel may stop a large write at a page boundary when the
// process is killed): the file is cut back to its length before that append.
// The marker names the file it was written for (device and node); a marker
// of a file since replaced by a rewrite says nothing of the new one.
std::string appendMarkerText(uint64_t size, const PathInfo& file) {
  return std::to_string(static_cast<unsigned long long>(size)) + " " +
         std::to_string(static_cast<unsigned long long>(file.device)) + " " +
         std::to_string(static_cast<unsigned long long>(file.inode)) + "\n";
}

void finishInterruptedAppend(const std::string& marker, FileHandle file, const PathInfo& info,
                             uint64_t& size) {
  FileHandle in = kNoFile;
  if (platform::openFile(marker, OpenMode::kRead, in) != 0) return;
  char text[80] = {};
  size_t n = 0;
  platform::readSome(in, text, sizeof text - 1, n);
  platform::closeFile(in);
  unsigned long long before = 0;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  // A marker of an earlier version holds the length alone.
  const int fields = n > 0 ? std::sscanf(text, "%llu %llu %llu", &before, &device, &inode) : 0;
  const bool same = fields == 1 || (fields == 3 && device == info.device && inode == info.inode);
  if (same && before < size && platform::truncateFile(file, before) == 0) size = before;
  platform::removeFile(marker);
}

// Temporary files of a rewrite: ".<name>.<pid>-<n>.tmp" beside the target.
std::string tempPrefixOf(const std::string& path) { return "." + baseName(path) + "."; }
constexpr std::string_view kTempSuffix = ".tmp";

// Removes the temporary files of rewrites of `path` whose writer has died.
void removeStaleTemps(const std::string& path) {
  const std::string folder = parentFolder(path);
  const std::string prefix = tempPrefixOf(path);
  std::vector<std::string> names;
  if (platform::listFolder(folder, names) != 0) return;
  for (const std::string& name : names) {
    if (name.size() <= prefix.size() + kTempSuffix.size() || !name.starts_with(prefix) ||
        !name.ends_with(kTempSuffix)) {
      continue;
    }
    const std::string middle =
        name.substr(prefix.size(), name.size() - prefix.size() - kTempSuffix.size());
    char* end = nullptr;
    const long pid = std::strtol(middle.c_str(), &end, 10);
    if (end == middle.c_str() || *end != '-' || pid <= 0) continue;
    if (platform::processRunning(static_cast<unsigned long>(pid))) continue;
    platform::removeFile(folder + "/" + name);
  }
}

class LocalInputFile final : public InputFile {
 public:
  LocalInputFile(FileHandle file, std::string path, uint64_t size)
      : file_(file), path_(std::move(path)), size_(size) {}
  ~LocalInputFile() override { platform::closeFile(file_); }
  uint64_t size() const override { return size_; }
  bool read(void* bytes, size_t size, size_t& got, std::string* error) override {
    const int err = platform::readSome(file_, bytes, size, got);
    return err == 0 || fail(error, "Cannot read", path_, err);
  }
  bool skipTo(uint64_t offset, uint64_t, std::string* error) override {
    const int err = platform::seekFile(file_, offset);
    return err == 0 || fail(error, "Cannot read", path_, err);
  }

 private:
  FileHandle file_;
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

// The rewrite of something that is not a regular file: written straight
// into, never renamed over.
class LocalWriteInto final : public AtomicFile {
 public:
  LocalWriteInto(FileHandle file, std::string path) : file_(file), path_(std::move(path)) {}
  ~LocalWriteInto() override { platform::closeFile(file_); }
  bool write(std::string_view bytes, std::string* error) override {
    const int err = platform::writeAll(file_, bytes.data(), bytes.size());
    return err == 0 || fail(error, "Cannot write", path_, err);
  }
  bool commit(std::string*) override { return true; }

 private:
  FileHandle file_;
  std::string path_;
};

class LocalAtomicFile final : public AtomicFile {
 public:
  LocalAtomicFile(FileHandle file, std::string temp, std::string path)
      : file_(file), temp_(std::move(temp)), path_(std::move(path)) {
    std::lock_guard guard(gTempMutex);
    gPendingTemps.insert(temp_);
  }
  ~LocalAtomicFile() override {
    platform::closeFile(file_);
    if (!temp_.empty()) {
      platform::removeFile(temp_);
      forgetTemp(temp_);
    }
  }
  bool write(std::string_view bytes, std::string* error) override {
    if (file_ == kNoFile) return fail(error, "Cannot write", path_, EBADF);
    const int err = writeAll(file_, bytes);
    return err == 0 || fail(error, "Cannot write", path_, err);
  }
  bool commit(std::string* error) override {
    if (file_ == kNoFile) return fail(error, "Cannot write", path_, EBADF);
    int err = platform::syncFile(file_);
    platform::closeFile(file_);
    file_ = kNoFile;
    if (err == 0) err = platform::replaceFile(temp_, path_);
    if (err != 0) return fail(error, "Cannot write", path_, err);
    forgetTemp(temp_);
    temp_.clear();
    // An append to the file this one replaced that was cut off is of no
    // concern any more.
    platform::removeFile(appendMarkerOf(path_));
    // Make the rename itself durable; a failure here no longer loses data.
    platform::syncFolder(parentFolder(path_));
    return true;
  }

 private:
  FileHandle file_;
  std::string temp_;
  std::string path_;
};

class LocalOutputFile final : public OutputFile {
 public:
  LocalOutputFile(FileHandle file, std::string path) : file_(file), path_(std::move(path)) {}
  ~LocalOutputFile() override { platform::closeFile(file_); }
  bool write(std::string_view bytes, std::string* error) override {
    const int err = writeAll(file_, bytes);
    return err == 0 || fail(error, "Cannot write", path_, err);
  }
  // A write is one system call on the file's own handle.
  bool writableFromAnyThread() const override { return true; }

 private:
  FileHandle file_;
  std::string path_;
};

// Folder locks. A lock conflicts between two handles of one process as
// between two processes (flock on POSIX systems, byte-range locks on
// Windows), so a process takes each folder's lock once and shares it out:
// the thread that holds it may take it again (on the same stack), other
// threads wait their turn.
struct LockOwner {
  std::thread::id thread;
  const void* stack = nullptr;
  bool operator==(const LockOwner& other) const {
    return thread == other.thread && stack == other.stack;
  }
};
thread_local const void* tStack = nullptr;

struct HeldFolder {
  FileHandle file = kNoFile;
  int count = 0;
  LockOwner owner;
  unsigned long process = 0;  // a forked child inherits the table, not the locks
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
    platform::closeFile(it->second.file);  // lets go of the lock
    gHeld.erase(it);
    gLockFreed.notify_all();
  }

 private:
  std::pair<uint64_t, uint64_t> key_;
};

}  // namespace

bool InputFile::skipTo(uint64_t offset, uint64_t readSoFar, std::string* error) {
  char buf[4096];
  while (readSoFar < offset) {
    size_t got = 0;
    if (!read(buf, static_cast<size_t>(std::min<uint64_t>(sizeof buf, offset - readSoFar)), got,
              error)) {
      return false;
    }
    if (got == 0) break;
    readSoFar += got;
  }
  return true;
}

void removeUnfinishedRewrites() {
  std::lock_guard guard(gTempMutex);
  for (const auto& temp : gPendingTemps) platform::removeFile(temp);
  gPendingTemps.clear();
}

LocalFileSystem::LocalFileSystem(std::string dataRoot) : dataRoot_(std::move(dataRoot)) {}

std::string LocalFileSystem::currentFolder() const { return platform::currentFolder(); }

FileInfo LocalFileSystem::info(const std::string& path) const {
  FileInfo info;
  PathInfo found;
  if (platform::pathInfo(path, found) != 0 || found.kind == PathKind::kMissing) return info;
  info.kind = found.kind == PathKind::kFile     ? FileKind::kFile
              : found.kind == PathKind::kFolder ? FileKind::kFolder
                                                : FileKind::kOther;
  info.size = found.size;
  info.modifiedNs = found.modifiedNs;
  info.device = found.device;
  info.inode = found.inode;
  return info;
}

namespace {

// Opens `path` for reading when it is a regular file; otherwise false with
// the reason. A pipe without a writer is refused at once.
bool openRegular(const std::string& path, FileHandle& file, uint64_t& size, std::string* error,
                 bool sayNotRegularInFull) {
  int err = platform::openFile(path, OpenMode::kRead, file);
  if (err != 0) return fail(error, "Cannot open", path, err);
  PathInfo st;
  err = platform::fileInfo(file, st);
  if (err == 0 && st.kind == PathKind::kFile) {
    size = st.size;
    return true;
  }
  platform::closeFile(file);
  file = kNoFile;
  if (err != 0) return fail(error, "Cannot read", path, err);
  if (st.kind == PathKind::kFolder) {
    if (!sayNotRegularInFull) return fail(error, "Cannot read", path, EISDIR);
    if (error) *error = "Cannot read \"" + path + "\": it is a folder";
    return false;
  }
  if (error) {
    *error = "Cannot read \"" + path + "\": " +
             (sayNotRegularInFull ? "it is not a regular file (a device, FIFO or socket)"
                                  : "it is not a regular file");
  }
  return false;
}

}  // namespace

bool LocalFileSystem::readFile(const std::string& path, std::string& bytes,
                               std::string* error) const {
  FileHandle file = kNoFile;
  uint64_t size = 0;
  if (!openRegular(path, file, size, error, true)) return false;
  bytes.clear();
  char buf[65536];
  for (;;) {
    size_t n = 0;
    const int err = platform::readSome(file, buf, sizeof buf, n);
    if (err != 0) {
      platform::closeFile(file);
      return fail(error, "Cannot read", path, err);
    }
    if (n == 0) break;
    bytes.append(buf, n);
  }
  platform::closeFile(file);
  return true;
}

std::unique_ptr<InputFile> LocalFileSystem::openInput(const std::string& path,
                                                      std::string* error) const {
  FileHandle file = kNoFile;
  uint64_t size = 0;
  if (!openRegular(path, file, size, error, false)) return nullptr;
  return std::make_unique<LocalInputFile>(file, path, size);
}

std::unique_ptr<AtomicFile> LocalFileSystem::rewrite(const std::string& path, std::string* error) {
  static std::atomic<unsigned> counter{0};
  PathInfo target;
  if (platform::pathInfo(path, target) == 0 && target.kind == PathKind::kOther) {
    // Not a regular file: a device, a FIFO, standard output through a link.
    // Renaming over it would replace the system's node with a file of ours;
    // what is written goes into it instead.
    FileHandle file = kNoFile;
    const int err = platform::openFile(path, OpenMode::kCreateOrTruncate, file);
    if (err != 0) {
      fail(error, "Cannot write", path, err);
      return nullptr;
    }
    return std::make_unique<LocalWriteInto>(file, path);
  }
  removeStaleTemps(path);
  const std::string folder = folderPrefixOf(path);
  std::string temp;
  FileHandle file = kNoFile;
  int err = 0;
  for (int attempt = 0; attempt < 100 && file == kNoFile; ++attempt) {
    temp = folder + tempPrefixOf(path) + std::to_string(platform::processId()) + "-" +
           std::to_string(counter++) + std::string(kTempSuffix);
    err = platform::openFile(temp, OpenMode::kCreateNew, file);
    if (err != 0 && err != EEXIST) break;
  }
  if (file == kNoFile) {
    fail(error, "Cannot write", path, err);
    return nullptr;
  }
  PathInfo old;
  if (platform::pathInfo(path, old) == 0 && old.kind != PathKind::kMissing)
    platform::copyPermissions(old, file);
  return std::make_unique<LocalAtomicFile>(file, temp, path);
}

bool LocalFileSystem::createPrivate(const std::string& path, std::string* error) {
  if (info(path).kind != FileKind::kMissing) return true;
  const std::string why = platform::writeNewPrivateFile(path, "");
  // Another process may have made it meanwhile.
  if (why.empty() || info(path).kind != FileKind::kMissing) return true;
  if (error) *error = "Cannot create \"" + path + "\": " + why;
  return false;
}

bool LocalFileSystem::append(const std::string& path, std::string_view bytes, std::string* error) {
  FileHandle file = kNoFile;
  int err = platform::openFile(path, OpenMode::kAppend, file);
  if (err != 0) return fail(error, "Cannot append to", path, err);
  PathInfo before;
  err = platform::fileInfo(file, before);
  if (err != 0) {
    platform::closeFile(file);
    return fail(error, "Cannot append to", path, err);
  }
  const std::string marker = appendMarkerOf(path);
  uint64_t size = before.size;
  finishInterruptedAppend(marker, file, before, size);
  bool marked = false;
  if (!bytes.empty()) {
    // Where the file cannot have a marker beside it, the append goes on
    // without one.
    FileHandle out = kNoFile;
    if (platform::openFile(marker, OpenMode::kCreateOrTruncate, out) == 0) {
      marked = writeAll(out, appendMarkerText(size, before)) == 0;
      platform::closeFile(out);
      if (!marked) platform::removeFile(marker);
    }
  }
  err = writeAll(file, bytes);
  if (err == 0) err = platform::syncFile(file);
  if (err != 0 && platform::truncateFile(file, size) != 0) {
    // Nothing more can be done; the write's error is the one reported.
  }
  platform::closeFile(file);
  if (marked) platform::removeFile(marker);
  if (err != 0 && size == 0 && before.size == 0) {
    // The append created the file and nothing of it is left: no empty file
    // stays where there was none. (A file that was already there but empty
    // goes too; it held nothing.)
    platform::removeFile(path);
  }
  if (err != 0) return fail(error, "Cannot append to", path, err);
  return true;
}

bool LocalFileSystem::truncate(const std::string& path, uint64_t size, std::string* error) {
  PathInfo st;
  if (platform::pathInfo(path, st) == 0 && st.kind == PathKind::kMissing)
    return fail(error, "Cannot cut back", path, ENOENT);
  FileHandle file = kNoFile;
  int err = platform::openFile(path, OpenMode::kReadWrite, file);
  if (err == 0) {
    err = platform::truncateFile(file, size);
    platform::closeFile(file);
  }
  return err == 0 || fail(error, "Cannot cut back", path, err);
}

std::unique_ptr<OutputFile> LocalFileSystem::create(const std::string& path, std::string* error) {
  FileHandle file = kNoFile;
  const int err = platform::openFile(path, OpenMode::kCreateOrTruncate, file);
  if (err != 0) {
    fail(error, "Cannot write", path, err);
    return nullptr;
  }
  return std::make_unique<LocalOutputFile>(file, path);
}

bool LocalFileSystem::list(const std::string& folder, std::vector<std::string>& names,
                           std::string* error) const {
  const int err = platform::listFolder(folder, names);
  return err == 0 || fail(error, "Cannot list", folder, err);
}

bool LocalFileSystem::makeFolders(const std::string& folder, std::string* error) {
  if (folder.empty()) return true;
  const char* separators = platform::pathSeparators();
  std::string part;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = folder.find_first_of(separators, pos + 1);
    part = folder.substr(0, pos);
    // ".", "..", and a bare drive ("c:") exist already.
    if (part.empty() || part == "." || part == ".." ||
        (platform::hasDriveLetters() && part.size() == 2 && part[1] == ':')) {
      continue;
    }
    const int err = platform::makeFolder(part);
    if (err != 0 && err != EEXIST) {
      // A folder that exists but may not be created again (a share's root,
      // a drive) answers with a refusal rather than EEXIST.
      PathInfo st;
      if (platform::pathInfo(part, st) == 0 && st.kind == PathKind::kFolder) continue;
      return fail(error, "Cannot create", part, err);
    }
  }
  PathInfo st;
  const int err = platform::pathInfo(folder, st);
  if (err != 0) return fail(error, "Cannot create", folder, err);
  if (st.kind == PathKind::kMissing) return fail(error, "Cannot create", folder, ENOENT);
  if (st.kind != PathKind::kFolder) return fail(error, "Cannot create", folder, ENOTDIR);
  return true;
}

bool LocalFileSystem::remove(const std::string& path, std::string* error) {
  PathInfo st;
  platform::entryInfo(path, st);
  if (st.kind == PathKind::kMissing) return true;
  const int err =
      st.kind == PathKind::kFolder ? platform::removeFolder(path) : platform::removeFile(path);
  if (err == 0 || err == ENOENT) return true;
  return fail(error, "Cannot delete", path, err);
}

void SetFolderLockStack(const void* stack) { tStack = stack; }

std::unique_ptr<FileLock> LocalFileSystem::lock(const std::string& path, std::string* error) {
  const std::string folder = parentFolder(path);
  FileHandle file = kNoFile;
  int err = platform::openFolderLock(folder, file);
  if (err != 0) {
    fail(error, "Cannot lock", path, err);
    return nullptr;
  }
  PathInfo st;
  platform::pathInfo(folder, st);
  const std::pair<uint64_t, uint64_t> key{st.device, st.inode};
  const unsigned long me = platform::processId();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(lockWaitMs_);
  const LockOwner self{std::this_thread::get_id(), tStack};
  // How long to wait before looking again at a lock another process holds:
  // short at first, longer while the wait goes on.
  std::chrono::milliseconds poll(1);
  std::unique_lock guard(gLockMutex);
  for (;;) {
    auto it = gHeld.find(key);
    if (it != gHeld.end() && it->second.process != me) {
      platform::closeFile(it->second.file);
      gHeld.erase(it);
      it = gHeld.end();
    }
    if (it != gHeld.end() && it->second.owner == self) {
      ++it->second.count;
      platform::closeFile(file);
      return std::make_unique<LocalFolderLock>(key);
    }
    if (it == gHeld.end()) {
      err = platform::tryLockFile(file);
      if (err == 0) {
        gHeld[key] = HeldFolder{file, 1, self, me};
        return std::make_unique<LocalFolderLock>(key);
      }
      if (err != EWOULDBLOCK && err != EINTR) {
        platform::closeFile(file);
        fail(error, "Cannot lock", path, err);
        return nullptr;
      }
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      platform::closeFile(file);
      if (error) {
        *error = "Cannot lock \"" + path + "\": another program kept it locked for " +
                 std::to_string(lockWaitMs_ / 1000) + " s";
      }
      return nullptr;
    }
    if (it != gHeld.end()) {
      // Another thread of this process holds it: it says when it lets go.
      gLockFreed.wait_until(guard, deadline);
    } else {
      // Another process holds it: look again shortly.
      gLockFreed.wait_for(guard, poll);
      poll = std::min(poll * 2, std::chrono::milliseconds(16));
    }
  }
}

}  // namespace tavrix

namespace tavrix {

ScratchFolder::ScratchFolder(bool withoutDots) {
  std::string base = platform::tempFolder();
  if (withoutDots && base.find('.') != std::string::npos)
    base = platform::hasDriveLetters() ? "c:" : "/tmp";
  const int err = platform::makeUniqueFolder(base + "/tavrix-test-", path_);
  if (err != 0) {
    std::fprintf(stderr, "cannot create a scratch folder in %s: %s\n", base.c_str(),
                 platform::errorText(err).c_str());
    std::abort();
  }
}

ScratchFolder::~ScratchFolder() { removeTree(path_); }

bool removeTree(const std::string& path) {
  platform::PathInfo st;
  if (platform::entryInfo(path, st) != 0) return false;
  if (st.kind == platform::PathKind::kMissing) return true;
  if (st.kind == platform::PathKind::kFolder) {
    bool ok = true;
    std::vector<std::string> names;
    if (platform::listFolder(path, names) == 0) {
      for (const auto& name : names) ok = removeTree(path + "/" + name) && ok;
    }
    return platform::removeFolder(path) == 0 && ok;
  }
  return platform::removeFile(path) == 0;
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
    if (error) *error = std::string("Cannot write to the output: ") + platform::errorText(errno);
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

bool changeCurrentFolder(const std::string& folder) { return platform::changeFolder(folder) == 0; }

}  // namespace tavrix
