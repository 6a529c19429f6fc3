// A file system that passes everything on to another and keeps account of
// the writes that fail: which files, how many writes, and the first reason.
// The engine runs on one, so that output lost anywhere (trace, results,
// index, logger and calculated-channel files) is never lost in silence.
#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

class WatchedFileSystem final : public FileSystem {
 public:
  explicit WatchedFileSystem(FileSystem& inner) : inner_(inner) {}

  struct Loss {
    std::string path;
    int64_t writes = 0;  // failed writes (a trace line, a row, a rewrite)
    std::string firstError;
  };
  // The files that lost output, in the order of their first loss.
  std::vector<Loss> losses() const;
  // Called once for each file, when its first write fails (for a run's
  // record, possibly on the thread that writes the record's lines).
  void onFirstLoss(std::function<void(const Loss&)> report) { onFirstLoss_ = std::move(report); }

  const std::string& dataRoot() const override { return inner_.dataRoot(); }
  std::string currentFolder() const override { return inner_.currentFolder(); }
  FileInfo info(const std::string& path) const override { return inner_.info(path); }
  bool readFile(const std::string& path, std::string& bytes, std::string* error) const override {
    return inner_.readFile(path, bytes, error);
  }
  std::unique_ptr<InputFile> openInput(const std::string& path, std::string* error) const override {
    return inner_.openInput(path, error);
  }
  std::unique_ptr<AtomicFile> rewrite(const std::string& path, std::string* error) override;
  bool append(const std::string& path, std::string_view bytes, std::string* error) override;
  bool createPrivate(const std::string& path, std::string* error) override;
  bool truncate(const std::string& path, uint64_t size, std::string* error) override {
    return inner_.truncate(path, size, error);
  }
  std::unique_ptr<OutputFile> create(const std::string& path, std::string* error) override;
  bool list(const std::string& folder, std::vector<std::string>& names,
            std::string* error) const override {
    return inner_.list(folder, names, error);
  }
  bool makeFolders(const std::string& folder, std::string* error) override {
    return inner_.makeFolders(folder, error);
  }
  bool remove(const std::string& path, std::string* error) override {
    return inner_.remove(path, error);
  }
  std::unique_ptr<FileLock> lock(const std::string& path, std::string* error) override;

  // The files appended to since the last clearAppended(), in name order, and
  // those made whole where there was none: a run that goes on from a
  // checkpoint cuts them back to their length then, or removes them.
  std::vector<std::string> appendedFiles() const;
  void clearAppended();
  // Called on the appending thread before the first append to a file since
  // the last clearAppended(), or before it is made whole where there was
  // none, with the file's path.
  void beforeFirstAppend(std::function<void(const std::string&)> hook) {
    beforeFirstAppend_ = std::move(hook);
  }
  // Records a failed write of `path` (also used by the wrappers).
  void recordLoss(const std::string& path, const std::string& error);

 private:
  void noteAppend(const std::string& path);

  FileSystem& inner_;
  mutable std::mutex mutex_;
  std::vector<Loss> losses_;
  std::set<std::string, std::less<>> appended_;
  std::function<void(const std::string&)> beforeFirstAppend_;
  std::function<void(const Loss&)> onFirstLoss_;
};

}  // namespace tavrix
