#include "common/paths.h"

#include "platform/files.h"

namespace tavrix {

namespace {

char driveKey(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool isDriveLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

void PathMap::setDrive(char letter, std::string folder) {
  drives_[driveKey(letter)] = std::move(folder);
}

std::string PathMap::driveFolder(char letter) const {
  const char key = driveKey(letter);
  const auto it = drives_.find(key);
  if (it != drives_.end()) return it->second;
  // Where drives are real, an unmapped drive is itself.
  if (platform::hasDriveLetters()) return std::string(1, key) + ":/";
  return join(root_, std::string(1, key));
}

std::string PathMap::toLocal(std::string_view path) const {
  std::string local(path);
  for (char& c : local) {
    if (c == '\\') c = '/';
  }
  if (local.size() < 2 || local[1] != ':' || !isDriveLetter(local[0])) return local;
  std::string rest = local.substr(2);
  while (!rest.empty() && rest.front() == '/') rest.erase(0, 1);
  const std::string folder = driveFolder(local[0]);
  return rest.empty() ? folder : join(folder, rest);
}

bool isAbsolutePath(std::string_view path) {
  if (path.empty()) return false;
  if (path[0] == '/') return true;
  if (!platform::hasDriveLetters()) return false;
  if (path[0] == '\\') return true;
  return path.size() >= 3 && isDriveLetter(path[0]) && path[1] == ':' &&
         (path[2] == '/' || path[2] == '\\');
}

std::string join(std::string_view dir, std::string_view name) {
  std::string out(dir);
  if (!out.empty() && out.back() != '/' && !name.empty()) out += '/';
  out += name;
  return out;
}

}  // namespace tavrix
