// A temporary folder for the test database's files, removed afterwards.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "common/file_system.h"
#include "common/text_file.h"
#include "platform/files.h"
#include "testing/test_files.h"

namespace tavrix::testing_support {

class TempFolder {
 public:
  const std::string& path() const { return scratch_.path(); }
  FileSystem& files() const { return testFiles(); }

  // Writes `lines`, each ended by CR LF, and returns the file's path.
  std::string Write(const std::string& name, const std::vector<std::string>& lines) const {
    return WriteRaw(name, joinLines(lines));
  }
  std::string WriteRaw(const std::string& name, const std::string& bytes) const {
    const std::string file = scratch_.file(name);
    files().makeFolders(parentFolder(file), nullptr);
    files().writeAtomically(file, bytes, nullptr);
    return file;
  }
  std::string Read(const std::string& name) const {
    std::string text;
    files().readFile(scratch_.file(name), text, nullptr);
    return text;
  }
  bool Exists(const std::string& name) const {
    return files().info(scratch_.file(name)).kind != FileKind::kMissing;
  }
  // Every file below the folder, as paths relative to it, in order.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    Collect("", names);
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  void Collect(const std::string& relative, std::vector<std::string>& out) const {
    std::vector<std::string> entries;
    const std::string folder = relative.empty() ? path() : scratch_.file(relative);
    if (!files().list(folder, entries, nullptr)) return;
    for (const auto& entry : entries) {
      // The lock file Windows keeps in a shared folder holds no results.
      if (entry == platform::folderLockFileName()) continue;
      const std::string name = relative.empty() ? entry : relative + "/" + entry;
      const FileKind kind = files().info(scratch_.file(name)).kind;
      if (kind == FileKind::kFolder) Collect(name, out);
      if (kind == FileKind::kFile) out.push_back(name);
    }
  }
  ScratchFolder scratch_;
};

}  // namespace tavrix::testing_support
