#include "common/watched_file_system.h"

namespace tavrix {

namespace {

class WatchedAtomicFile final : public AtomicFile {
 public:
  WatchedAtomicFile(WatchedFileSystem& files, std::string path, std::unique_ptr<AtomicFile> inner)
      : files_(files), path_(std::move(path)), inner_(std::move(inner)) {}
  bool write(std::string_view bytes, std::string* error) override {
    return check(inner_->write(bytes, error ? error : &scratch_), error);
  }
  bool commit(std::string* error) override {
    if (failed_) return false;
    return check(inner_->commit(error ? error : &scratch_), error);
  }

 private:
  bool check(bool ok, std::string* error) {
    if (!ok && !failed_) {
      failed_ = true;
      files_.recordLoss(path_, error ? *error : scratch_);
    }
    return ok;
  }
  WatchedFileSystem& files_;
  std::string path_;
  std::unique_ptr<AtomicFile> inner_;
  std::string scratch_;
  bool failed_ = false;
};

class WatchedOutputFile final : public OutputFile {
 public:
  WatchedOutputFile(WatchedFileSystem& files, std::string path, std::unique_ptr<OutputFile> inner)
      : files_(files), path_(std::move(path)), inner_(std::move(inner)) {}
  bool write(std::string_view bytes, std::string* error) override {
    std::string why;
    if (inner_->write(bytes, &why)) return true;
    files_.recordLoss(path_, why);
    if (error) *error = why;
    return false;
  }
  // A loss is noted under the file system's lock.
  bool writableFromAnyThread() const override { return inner_->writableFromAnyThread(); }

 private:
  WatchedFileSystem& files_;
  std::string path_;
  std::unique_ptr<OutputFile> inner_;
};

}  // namespace

std::vector<WatchedFileSystem::Loss> WatchedFileSystem::losses() const {
  std::lock_guard guard(mutex_);
  return losses_;
}

void WatchedFileSystem::recordLoss(const std::string& path, const std::string& error) {
  std::function<void(const Loss&)> report;
  Loss first;
  {
    std::lock_guard guard(mutex_);
    for (auto& loss : losses_) {
      if (loss.path == path) {
        ++loss.writes;
        return;
      }
    }
    losses_.push_back({path, 1, error});
    first = losses_.back();
    report = onFirstLoss_;
  }
  if (report) report(first);
}

std::unique_ptr<AtomicFile> WatchedFileSystem::rewrite(const std::string& path,
                                                       std::string* error) {
  // A file made whole where there was none counts as appended from nothing:
  // a summary's first row comes with its head, and the rows after it are
  // appended. A run that goes on from before it was made removes it.
  if (beforeFirstAppend_ && inner_.info(path).kind == FileKind::kMissing) noteAppend(path);
  std::string why;
  auto inner = inner_.rewrite(path, &why);
  if (!inner) {
    recordLoss(path, why);
    if (error) *error = why;
    return nullptr;
  }
  return std::make_unique<WatchedAtomicFile>(*this, path, std::move(inner));
}

void WatchedFileSystem::noteAppend(const std::string& path) {
  bool first = false;
  {
    std::lock_guard guard(mutex_);
    first = appended_.insert(path).second;
  }
  if (first && beforeFirstAppend_) beforeFirstAppend_(path);
}

bool WatchedFileSystem::append(const std::string& path, std::string_view bytes,
                               std::string* error) {
  std::string why;
  noteAppend(path);
  if (inner_.append(path, bytes, &why)) return true;
  recordLoss(path, why);
  if (error) *error = why;
  return false;
}

std::vector<std::string> WatchedFileSystem::appendedFiles() const {
  std::lock_guard guard(mutex_);
  return {appended_.begin(), appended_.end()};
}

void WatchedFileSystem::clearAppended() {
  std::lock_guard guard(mutex_);
  appended_.clear();
}

bool WatchedFileSystem::createPrivate(const std::string& path, std::string* error) {
  std::string why;
  if (inner_.createPrivate(path, &why)) return true;
  recordLoss(path, why);
  if (error) *error = why;
  return false;
}

std::unique_ptr<OutputFile> WatchedFileSystem::create(const std::string& path, std::string* error) {
  auto inner = inner_.create(path, error);
  if (!inner) return nullptr;
  return std::make_unique<WatchedOutputFile>(*this, path, std::move(inner));
}

std::unique_ptr<FileLock> WatchedFileSystem::lock(const std::string& path, std::string* error) {
  std::string why;
  auto held = inner_.lock(path, &why);
  if (!held) {
    recordLoss(path, why);
    if (error) *error = why;
  }
  return held;
}

}  // namespace tavrix
