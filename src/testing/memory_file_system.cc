#include "testing/memory_file_system.h"

#include <cstring>

namespace tavrix {

namespace {

bool fail(std::string* error, std::string_view what, const std::string& path,
          std::string_view reason) {
  if (error) *error = std::string(what) + " \"" + path + "\": " + std::string(reason);
  return false;
}

constexpr std::string_view kNoSuchFile = "No such file or directory";

class MemoryInputFile final : public InputFile {
 public:
  explicit MemoryInputFile(std::string bytes) : bytes_(std::move(bytes)) {}
  uint64_t size() const override { return bytes_.size(); }
  bool read(void* bytes, size_t size, size_t& got, std::string*) override {
    got = std::min(size, bytes_.size() - pos_);
    std::memcpy(bytes, bytes_.data() + pos_, got);
    pos_ += got;
    return true;
  }

 private:
  std::string bytes_;
  size_t pos_ = 0;
};

}  // namespace

class MemoryAtomicFile final : public AtomicFile {
 public:
  MemoryAtomicFile(MemoryFileSystem& files, std::string path)
      : files_(files), path_(std::move(path)) {}
  bool write(std::string_view bytes, std::string*) override {
    text_.append(bytes);
    return true;
  }
  bool commit(std::string* error) override {
    if (!files_.countWrite(path_, error)) return false;
    files_.files_[path_] = std::move(text_);
    files_.touch(path_);
    return true;
  }

 private:
  MemoryFileSystem& files_;
  std::string path_;
  std::string text_;
};

class MemoryOutputFile final : public OutputFile {
 public:
  MemoryOutputFile(MemoryFileSystem& files, std::string path)
      : files_(files), path_(std::move(path)) {}
  bool write(std::string_view bytes, std::string* error) override {
    if (!files_.countWrite(path_, error)) return false;
    files_.files_[path_].append(bytes);
    files_.touch(path_);
    return true;
  }

 private:
  MemoryFileSystem& files_;
  std::string path_;
};

MemoryFileSystem::MemoryFileSystem(std::string dataRoot) : dataRoot_(std::move(dataRoot)) {
  folders_.insert("/");
  folders_.insert(".");
  makeFolders(dataRoot_, nullptr);
}

bool MemoryFileSystem::folderExists(const std::string& folder) const {
  return folder.empty() || folders_.count(folder) > 0;
}

bool MemoryFileSystem::countWrite(const std::string& path, std::string* error,
                                  std::string_view what) {
  ++writes_;
  if (writes_ != failAt_) return true;
  return fail(error, what, path,
              fault_ == Fault::kNoSpace ? "No space left on device" : "Input/output error");
}

void MemoryFileSystem::failWrite(int n, Fault fault) {
  failAt_ = writes_ + n;
  fault_ = fault;
}

FileInfo MemoryFileSystem::info(const std::string& path) const {
  FileInfo info;
  if (const auto it = files_.find(path); it != files_.end()) {
    info.kind = FileKind::kFile;
    info.size = it->second.size();
    const auto stamp = stamps_.find(path);
    info.modifiedNs = stamp == stamps_.end() ? 0 : stamp->second;
  } else if (folders_.count(path) > 0) {
    info.kind = FileKind::kFolder;
  }
  return info;
}

bool MemoryFileSystem::readFile(const std::string& path, std::string& bytes,
                                std::string* error) const {
  const auto it = files_.find(path);
  if (it == files_.end()) return fail(error, "Cannot open", path, kNoSuchFile);
  bytes = it->second;
  return true;
}

std::unique_ptr<InputFile> MemoryFileSystem::openInput(const std::string& path,
                                                       std::string* error) const {
  std::string bytes;
  if (!readFile(path, bytes, error)) return nullptr;
  return std::make_unique<MemoryInputFile>(std::move(bytes));
}

std::unique_ptr<AtomicFile> MemoryFileSystem::rewrite(const std::string& path, std::string* error) {
  if (!folderExists(parentFolder(path))) {
    fail(error, "Cannot write", path, kNoSuchFile);
    return nullptr;
  }
  return std::make_unique<MemoryAtomicFile>(*this, path);
}

bool MemoryFileSystem::append(const std::string& path, std::string_view bytes, std::string* error) {
  if (!folderExists(parentFolder(path))) return fail(error, "Cannot append to", path, kNoSuchFile);
  if (!countWrite(path, error, "Cannot append to")) return false;
  files_[path].append(bytes);
  touch(path);
  return true;
}

bool MemoryFileSystem::truncate(const std::string& path, uint64_t size, std::string* error) {
  const auto it = files_.find(path);
  if (it == files_.end()) return fail(error, "Cannot cut back", path, kNoSuchFile);
  if (size < it->second.size()) it->second.resize(size);
  touch(path);
  return true;
}

std::unique_ptr<OutputFile> MemoryFileSystem::create(const std::string& path, std::string* error) {
  if (!folderExists(parentFolder(path))) {
    fail(error, "Cannot write", path, kNoSuchFile);
    return nullptr;
  }
  files_[path].clear();
  touch(path);
  return std::make_unique<MemoryOutputFile>(*this, path);
}

bool MemoryFileSystem::list(const std::string& folder, std::vector<std::string>& names,
                            std::string* error) const {
  if (!folderExists(folder)) return fail(error, "Cannot list", folder, kNoSuchFile);
  names.clear();
  for (const auto& [path, bytes] : files_) {
    if (parentFolder(path) == folder) names.push_back(baseName(path));
  }
  for (const auto& path : folders_) {
    if (path != folder && parentFolder(path) == folder) names.push_back(baseName(path));
  }
  return true;
}

bool MemoryFileSystem::makeFolders(const std::string& folder, std::string* error) {
  for (size_t pos = folder.find('/', 1);; pos = folder.find('/', pos + 1)) {
    const std::string part = folder.substr(0, pos);
    if (files_.count(part) > 0) return fail(error, "Cannot create", part, "Not a directory");
    folders_.insert(part);
    if (pos == std::string::npos) break;
  }
  return true;
}

bool MemoryFileSystem::remove(const std::string& path, std::string*) {
  files_.erase(path);
  folders_.erase(path);
  return true;
}

std::unique_ptr<FileLock> MemoryFileSystem::lock(const std::string&, std::string*) {
  return std::make_unique<FileLock>();
}

void MemoryFileSystem::put(const std::string& path, std::string bytes) {
  makeFolders(parentFolder(path), nullptr);
  files_[path] = std::move(bytes);
  touch(path);
}

void MemoryFileSystem::touch(const std::string& path) { stamps_[path] = ++clock_; }

}  // namespace tavrix
