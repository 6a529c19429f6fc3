// A temporary folder for the test database's files, removed afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tavrix::testing_support {

class TempFolder {
 public:
  TempFolder() {
    char name[] = "/tmp/testdbXXXXXX";
    path_ = mkdtemp(name);
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

  // Writes `lines`, each ended by CR LF, and returns the file's path.
  std::string Write(const std::string& name, const std::vector<std::string>& lines) const {
    const std::string file = path_ + "/" + name;
    std::ofstream out(file, std::ios::binary);
    for (const auto& line : lines) out << line << "\r\n";
    return file;
  }
  std::string WriteRaw(const std::string& name, const std::string& bytes) const {
    const std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << bytes;
    return file;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(path_ + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(path_ + "/" + name); }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
      if (entry.is_regular_file()) {
        names.push_back(std::filesystem::relative(entry.path(), path_).string());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string path_;
};

}  // namespace tavrix::testing_support
