#include "common/text_file.h"

namespace tavrix {

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) {
    text += line;
    text += kLineEnd;
  }
  return text;
}

bool readTextFile(const FileSystem& files, const std::string& path, std::string& text,
                  std::string* error) {
  return files.readFile(path, text, error);
}

bool writeTextFileAtomically(FileSystem& files, const std::string& path,
                             const std::vector<std::string>& lines, std::string* error) {
  return files.writeAtomically(path, joinLines(lines), error);
}

bool appendLines(FileSystem& files, const std::string& path, const std::vector<std::string>& lines,
                 std::string* error) {
  return files.append(path, joinLines(lines), error);
}

}  // namespace tavrix
