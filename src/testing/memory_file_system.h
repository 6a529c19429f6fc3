// A file system held in memory, for tests: a run pointed at it writes
// nothing to the disk, and a chosen write can be made to fail.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

// A file system held in memory, for tests. Paths are taken as written; a
// file's folders exist once a file is written in them or they are made.
// failWrite() makes a chosen write fail as a full disk or an I/O error would.
class MemoryFileSystem final : public FileSystem {
 public:
  explicit MemoryFileSystem(std::string dataRoot = "/data");
  const std::string& dataRoot() const override { return dataRoot_; }
  std::string currentFolder() const override { return "/"; }
  FileInfo info(const std::string& path) const override;
  bool readFile(const std::string& path, std::string& bytes, std::string* error) const override;
  std::unique_ptr<InputFile> openInput(const std::string& path, std::string* error) const override;
  std::unique_ptr<AtomicFile> rewrite(const std::string& path, std::string* error) override;
  bool append(const std::string& path, std::string_view bytes, std::string* error) override;
  bool truncate(const std::string& path, uint64_t size, std::string* error) override;
  std::unique_ptr<OutputFile> create(const std::string& path, std::string* error) override;
  bool list(const std::string& folder, std::vector<std::string>& names,
            std::string* error) const override;
  bool makeFolders(const std::string& folder, std::string* error) override;
  bool remove(const std::string& path, std::string* error) override;
  std::unique_ptr<FileLock> lock(const std::string& path, std::string* error) override;

  // Puts a file in place directly (test set-up; no write is counted).
  void put(const std::string& path, std::string bytes);
  // Every file, path -> contents.
  const std::map<std::string, std::string>& files() const { return files_; }

  enum class Fault { kNoSpace, kIoError };
  // Makes the `n`th write from now (1 = the next) fail with `fault`: an
  // append, a rewrite's commit and an output write each count as one write
  // (a cut-back does not). A write that fails writes nothing.
  void failWrite(int n, Fault fault);
  // Writes counted so far.
  int writes() const { return writes_; }

 private:
  friend class MemoryAtomicFile;
  friend class MemoryOutputFile;
  // Counts one write; false (with the fault's message) when it is the one to fail.
  bool countWrite(const std::string& path, std::string* error,
                  std::string_view what = "Cannot write");
  bool folderExists(const std::string& folder) const;
  // Marks the file changed (its modification time in info()).
  void touch(const std::string& path);

  std::string dataRoot_;
  std::map<std::string, std::string> files_;
  std::set<std::string> folders_;
  std::map<std::string, int64_t> stamps_;
  int64_t clock_ = 0;
  int writes_ = 0;
  int failAt_ = 0;
  Fault fault_ = Fault::kNoSpace;
};

}  // namespace tavrix
