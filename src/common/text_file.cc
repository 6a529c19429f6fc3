#include "common/text_file.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "platform/files.h"

namespace tavrix {

namespace {

namespace os = platform;

bool fail(std::string* error, std::string_view what, const std::string& path, int err) {
  if (error) *error = std::string(what) + " \"" + path + "\": " + os::errorText(err);
  return false;
}

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) {
    text += line;
    text += kLineEnd;
  }
  return text;
}

int writeAll(os::FileHandle file, const std::string& text) {
  return os::writeAll(file, text.data(), text.size());
}

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// The marker of an append in progress: ".<name>.appending" beside the file,
// holding the file's length before the append.
std::string appendMarkerOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, name) + "." + path.substr(name) + ".appending";
}

// A marker left behind means the process that wrote it died in the middle of
// that append (the kernel may stop a large write at a page boundary when the
// process is killed): the file is cut back to its length before that append.
void finishInterruptedAppend(const std::string& marker, os::FileHandle file, uint64_t& size) {
  os::FileHandle in = os::kNoFile;
  if (os::openFile(marker, os::OpenMode::kRead, in) != 0) return;
  char text[32] = {};
  size_t n = 0;
  os::readSome(in, text, sizeof text - 1, n);
  os::closeFile(in);
  char* end = nullptr;
  const long long before = n > 0 ? std::strtoll(text, &end, 10) : -1;
  if (end != nullptr && *end == '\n' && before >= 0 && static_cast<uint64_t>(before) < size &&
      os::truncateFile(file, static_cast<uint64_t>(before)) == 0) {
    size = static_cast<uint64_t>(before);
  }
  os::removeFile(marker);
}

}  // namespace

bool readTextFile(const std::string& path, std::string& text, std::string* error) {
  os::FileHandle file = os::kNoFile;
  if (const int err = os::openFile(path, os::OpenMode::kRead, file); err != 0) {
    return fail(error, "Cannot open", path, err);
  }
  text.clear();
  char buf[65536];
  for (;;) {
    size_t n = 0;
    if (const int err = os::readSome(file, buf, sizeof buf, n); err != 0) {
      os::closeFile(file);
      return fail(error, "Cannot read", path, err);
    }
    if (n == 0) break;
    text.append(buf, n);
  }
  os::closeFile(file);
  return true;
}

bool writeTextFileAtomically(const std::string& path, const std::vector<std::string>& lines,
                             std::string* error) {
  static std::atomic<unsigned> counter{0};
  std::string temp;
  os::FileHandle file = os::kNoFile;
  int err = 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    temp = path + ".tmp" + std::to_string(os::processId()) + "-" + std::to_string(counter++);
    err = os::openFile(temp, os::OpenMode::kCreateNew, file);
    if (err != EEXIST) break;
  }
  if (err != 0) return fail(error, "Cannot write", path, err);

  os::PathInfo old;
  if (os::pathInfo(path, old) == 0 && old.kind == os::PathKind::kFile)
    os::copyPermissions(old, file);

  err = writeAll(file, joinLines(lines));
  if (err == 0) err = os::syncFile(file);
  os::closeFile(file);
  if (err == 0) err = os::replaceFile(temp, path);
  if (err != 0) {
    os::removeFile(temp);
    return fail(error, "Cannot write", path, err);
  }
  // Make the rename itself durable; a failure here no longer loses data.
  os::syncFolder(folderOf(path));
  return true;
}

bool appendLines(const std::string& path, const std::vector<std::string>& lines,
                 std::string* error) {
  os::FileHandle file = os::kNoFile;
  if (const int err = os::openFile(path, os::OpenMode::kAppend, file); err != 0) {
    return fail(error, "Cannot append to", path, err);
  }
  os::PathInfo before;
  if (const int err = os::fileInfo(file, before); err != 0) {
    os::closeFile(file);
    return fail(error, "Cannot append to", path, err);
  }
  const std::string marker = appendMarkerOf(path);
  uint64_t size = before.size;
  finishInterruptedAppend(marker, file, size);
  const std::string text = joinLines(lines);
  bool marked = false;
  if (!text.empty()) {
    // Where the file cannot have a marker beside it, the append goes on
    // without one.
    os::FileHandle out = os::kNoFile;
    if (os::openFile(marker, os::OpenMode::kCreateOrTruncate, out) == 0) {
      marked = writeAll(out, std::to_string(static_cast<long long>(size)) + "\n") == 0;
      os::closeFile(out);
    }
  }
  const int err = writeAll(file, text);
  if (err != 0) {
    // Nothing more can be done if the cut-back fails; the write's error is
    // the one reported.
    os::truncateFile(file, size);
  }
  os::closeFile(file);
  if (marked) os::removeFile(marker);
  if (err != 0) return fail(error, "Cannot append to", path, err);
  return true;
}

}  // namespace tavrix
