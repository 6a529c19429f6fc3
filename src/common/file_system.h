// The single door to files and folders. Every subsystem reads and writes
// through a FileSystem, so that a run can be pointed at an in-memory one in
// tests (src/testing/memory_file_system.h) and so that the rules for writing safely live in
// one place: a rewrite goes through a temporary file that is flushed to the
// disk and renamed over the target, and an append either lands whole or is
// cut back. The real implementation is LocalFileSystem.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix {

enum class FileKind { kMissing, kFile, kFolder, kOther };

struct FileInfo {
  FileKind kind = FileKind::kMissing;
  uint64_t size = 0;
  // Modification time and identity: together with the size they tell that a
  // file is the one read before.
  int64_t modifiedNs = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
};

// A file open for reading a piece at a time.
class InputFile {
 public:
  virtual ~InputFile() = default;
  virtual uint64_t size() const = 0;
  // Reads up to `size` bytes into `bytes`; `got` is 0 at the end of the file.
  virtual bool read(void* bytes, size_t size, size_t& got, std::string* error) = 0;
  // Goes on reading from `offset` bytes after the start of a file that has
  // only been read from its start so far, that far or less.
  virtual bool skipTo(uint64_t offset, uint64_t readSoFar, std::string* error);
};

// A file being written under a temporary name beside its target. commit()
// flushes it to the disk, renames it over the target and makes the rename
// durable; without a commit the temporary file is removed.
class AtomicFile {
 public:
  virtual ~AtomicFile() = default;
  virtual bool write(std::string_view bytes, std::string* error) = 0;
  virtual bool commit(std::string* error) = 0;
};

// A file written from its start as a stream (the trace): every write goes out
// at once.
class OutputFile {
 public:
  virtual ~OutputFile() = default;
  virtual bool write(std::string_view bytes, std::string* error) = 0;
  // True when write() may be called on a thread other than the one that
  // made the file, one call at a time (a run's record writes its gathered
  // lines on a thread of its own when its file allows it).
  virtual bool writableFromAnyThread() const { return false; }
};

// An operating-system lock on a file, held until destroyed.
class FileLock {
 public:
  virtual ~FileLock() = default;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The folder under which the sequencer keeps its data by default.
  virtual const std::string& dataRoot() const = 0;
  // The folder relative paths start from.
  virtual std::string currentFolder() const = 0;

  virtual FileInfo info(const std::string& path) const = 0;
  bool isFile(const std::string& path) const { return info(path).kind == FileKind::kFile; }
  bool isFolder(const std::string& path) const { return info(path).kind == FileKind::kFolder; }

  // The whole file. On failure false, and `error` (when given) names the file
  // and the reason.
  virtual bool readFile(const std::string& path, std::string& bytes, std::string* error) const = 0;
  virtual std::unique_ptr<InputFile> openInput(const std::string& path,
                                               std::string* error) const = 0;

  // Starts an atomic rewrite of `path`. A replaced file keeps its
  // permissions. A path that names something other than a regular file (a
  // device, a FIFO, standard output through a link) is never replaced: what
  // is written goes into it, and commit() has nothing more to do. A temporary file of an earlier
  // writer of the same target that was killed outright is removed first.
  virtual std::unique_ptr<AtomicFile> rewrite(const std::string& path, std::string* error) = 0;
  // Replaces the file by `bytes` in one atomic rewrite.
  bool writeAtomically(const std::string& path, std::string_view bytes, std::string* error);

  // Appends `bytes`, creating the file if needed, durably and in one piece:
  // a failed append cuts the file back to its former length, and an append
  // cut short by the death of the process is cut back by the next append.
  virtual bool append(const std::string& path, std::string_view bytes, std::string* error) = 0;
  // Cuts the file back to `size` bytes.
  virtual bool truncate(const std::string& path, uint64_t size, std::string* error) = 0;
  // Creates `path` empty, for its owner alone to read and write (a results
  // database, its journal); a file that is there already is left as it is.
  virtual bool createPrivate(const std::string& path, std::string* error) {
    return append(path, "", error);
  }

  // Creates or empties `path` for writing from its start.
  virtual std::unique_ptr<OutputFile> create(const std::string& path, std::string* error) = 0;

  // The names (not paths) of the entries of `folder`.
  virtual bool list(const std::string& folder, std::vector<std::string>& names,
                    std::string* error) const = 0;
  // Creates `folder` and the folders above it as needed.
  virtual bool makeFolders(const std::string& folder, std::string* error) = 0;
  // Removes a file (or an empty folder). A missing file is not an error.
  virtual bool remove(const std::string& path, std::string* error) = 0;

  // Takes an exclusive lock that guards `path` against other processes and
  // threads, waiting at most a bounded time for it; nullptr with a message
  // when it cannot be had. The file itself is never changed by the lock.
  virtual std::unique_ptr<FileLock> lock(const std::string& path, std::string* error) = 0;
};

// Work that runs on stacks of its own and switches between them on one
// thread (test sockets taking turns) names the stack that runs now, so that
// a folder lock taken on one stack is not taken again as the same holder's
// on another. nullptr: the thread's own stack.
void SetFolderLockStack(const void* stack);

// Removes the temporary files of every rewrite of this process that is not
// finished, for a program about to end at a signal.
void removeUnfinishedRewrites();

// The machine's file system. `dataRoot` is decided by the front end.
class LocalFileSystem final : public FileSystem {
 public:
  explicit LocalFileSystem(std::string dataRoot = "");
  const std::string& dataRoot() const override { return dataRoot_; }
  std::string currentFolder() const override;
  FileInfo info(const std::string& path) const override;
  bool readFile(const std::string& path, std::string& bytes, std::string* error) const override;
  std::unique_ptr<InputFile> openInput(const std::string& path, std::string* error) const override;
  std::unique_ptr<AtomicFile> rewrite(const std::string& path, std::string* error) override;
  bool append(const std::string& path, std::string_view bytes, std::string* error) override;
  bool truncate(const std::string& path, uint64_t size, std::string* error) override;
  bool createPrivate(const std::string& path, std::string* error) override;
  std::unique_ptr<OutputFile> create(const std::string& path, std::string* error) override;
  bool list(const std::string& folder, std::vector<std::string>& names,
            std::string* error) const override;
  bool makeFolders(const std::string& folder, std::string* error) override;
  bool remove(const std::string& path, std::string* error) override;
  std::unique_ptr<FileLock> lock(const std::string& path, std::string* error) override;

  // How long lock() waits before it gives up (milliseconds).
  void setLockWait(int milliseconds) { lockWaitMs_ = milliseconds; }

 private:
  std::string dataRoot_;
  int lockWaitMs_ = 30000;
};

// The folder part of `path` ("." for a bare name).
std::string parentFolder(const std::string& path);
// The name part of `path`.
std::string baseName(const std::string& path);

}  // namespace tavrix

namespace tavrix {

// A fresh folder of its own under $TMPDIR (or /tmp), removed with everything
// in it when the object goes. For tests and tools that need a real folder.
class ScratchFolder {
 public:
  // `withoutDots`: for names whose first "." must be the extension's (the
  // counterpart names of encrypted files); under a $TMPDIR with a dot in
  // its path the folder goes to /tmp instead.
  explicit ScratchFolder(bool withoutDots = false);
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::string& path() const { return path_; }
  // `name` inside the folder.
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

// Removes `path` and everything below it; false when something stays.
bool removeTree(const std::string& path);

}  // namespace tavrix

namespace tavrix {

// An output that goes to an open stream (standard output), not owned.
std::unique_ptr<OutputFile> streamOutput(std::FILE* stream);

}  // namespace tavrix

namespace tavrix {

// Copies the folder `from` with everything below it to `to`.
bool copyTree(FileSystem& files, const std::string& from, const std::string& to);
// Makes `folder` the process's current folder; false when it cannot be.
bool changeCurrentFolder(const std::string& folder);

}  // namespace tavrix
