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

namespace {

// "64 MiB", "1 MiB", "512 bytes".
std::string sizeText(size_t bytes) {
  if (bytes >= (size_t{1} << 20) && bytes % (size_t{1} << 20) == 0)
    return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " bytes";
}

}  // namespace

bool readTextFile(const FileSystem& files, const std::string& path, std::string& text,
                  std::string* error) {
  return readTextFile(files, path, text, error, kMaxTextFileBytes, kMaxTextLineBytes);
}

bool readTextFile(const FileSystem& files, const std::string& path, std::string& text,
                  std::string* error, size_t maxBytes, size_t maxLineBytes) {
  const FileInfo info = files.info(path);
  if (info.kind == FileKind::kFolder || info.kind == FileKind::kOther) {
    if (error) {
      *error =
          "Cannot read \"" + path + "\": " +
          (info.kind == FileKind::kFolder ? "it is a folder"
                                          : "it is not a regular file (a device, FIFO or socket)");
    }
    return false;
  }
  const auto tooLarge = [&] {
    text.clear();
    if (error) {
      *error = "Cannot read \"" + path + "\": it is larger than " + sizeText(maxBytes) +
               ", the most a text file may hold";
    }
    return false;
  };
  if (info.kind == FileKind::kFile && info.size > maxBytes) return tooLarge();
  if (!files.readFile(path, text, error)) return false;
  // The file may have grown since it was looked at.
  if (text.size() > maxBytes) return tooLarge();
  size_t lineLength = 0;
  for (const char c : text) {
    if (c == '\r' || c == '\n') {
      lineLength = 0;
    } else if (++lineLength > maxLineBytes) {
      text.clear();
      if (error) {
        *error = "Cannot read \"" + path + "\": a line is longer than " + sizeText(maxLineBytes) +
                 ", the most a line may hold";
      }
      return false;
    }
  }
  return true;
}

std::string readFailureReason(const std::string& error) {
  const size_t reason = error.find("\": ");
  return reason == std::string::npos ? error : error.substr(reason + 3);
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
