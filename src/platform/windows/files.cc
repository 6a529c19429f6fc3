#include "platform/files.h"

#include <windows.h>

#include <cerrno>
#include <cstring>

#include "platform/windows/wide.h"

namespace tavrix::platform {

namespace {

HANDLE asHandle(FileHandle file) { return reinterpret_cast<HANDLE>(file); }

// 100-ns intervals from 1601 to 1970.
constexpr int64_t kEpochOffset = 116444736000000000LL;

int64_t toUnixNs(const FILETIME& t) {
  const int64_t ticks = (static_cast<int64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
  return (ticks - kEpochOffset) * 100;
}

void fillInfo(HANDLE h, const BY_HANDLE_FILE_INFORMATION& fi, PathInfo& info) {
  if (fi.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
    info.kind = PathKind::kFolder;
  } else {
    // Devices such as NUL and CON open like files but are none.
    info.kind = GetFileType(h) == FILE_TYPE_DISK ? PathKind::kFile : PathKind::kOther;
  }
  info.size = (static_cast<uint64_t>(fi.nFileSizeHigh) << 32) | fi.nFileSizeLow;
  info.modifiedNs = toUnixNs(fi.ftLastWriteTime);
  info.device = fi.dwVolumeSerialNumber;
  info.inode = (static_cast<uint64_t>(fi.nFileIndexHigh) << 32) | fi.nFileIndexLow;
  info.mode = (fi.dwFileAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
  if (info.kind == PathKind::kFolder) info.mode |= 0111;
}

// Open files may be renamed over and deleted by others, as on POSIX systems.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

}  // namespace

int openFile(const std::string& path, OpenMode mode, FileHandle& file) {
  DWORD access = GENERIC_WRITE;
  DWORD disposition = OPEN_ALWAYS;
  switch (mode) {
    case OpenMode::kRead:
      access = GENERIC_READ;
      disposition = OPEN_EXISTING;
      break;
    case OpenMode::kCreateNew:
      disposition = CREATE_NEW;
      break;
    case OpenMode::kCreateOrTruncate:
      disposition = CREATE_ALWAYS;
      break;
    case OpenMode::kAppend:
      // Append-only access makes every write land at the end, whoever else
      // writes the file.
      access = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
      break;
    case OpenMode::kReadWrite:
      access = GENERIC_READ | GENERIC_WRITE;
      break;
  }
  const HANDLE h = CreateFileW(widen(path).c_str(), access, kShareAll, nullptr, disposition,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return lastErrorNumber();
  file = reinterpret_cast<FileHandle>(h);
  return 0;
}

void closeFile(FileHandle file) {
  if (file != kNoFile) CloseHandle(asHandle(file));
}

int readSome(FileHandle file, void* bytes, size_t size, size_t& got) {
  DWORD n = 0;
  const DWORD want = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
  if (!ReadFile(asHandle(file), bytes, want, &n, nullptr)) {
    if (GetLastError() == ERROR_BROKEN_PIPE || GetLastError() == ERROR_HANDLE_EOF) {
      got = 0;
      return 0;
    }
    return lastErrorNumber();
  }
  got = n;
  return 0;
}

int writeAll(FileHandle file, const void* bytes, size_t size) {
  size_t done = 0;
  while (done < size) {
    const size_t left = size - done;
    const DWORD chunk = left > 0x40000000 ? 0x40000000 : static_cast<DWORD>(left);
    DWORD n = 0;
    if (!WriteFile(asHandle(file), static_cast<const char*>(bytes) + done, chunk, &n, nullptr)) {
      return lastErrorNumber();
    }
    if (n == 0) return EIO;
    done += n;
  }
  return 0;
}

int syncFile(FileHandle file) { return FlushFileBuffers(asHandle(file)) ? 0 : lastErrorNumber(); }

int truncateFile(FileHandle file, uint64_t size) {
  FILE_END_OF_FILE_INFO end{};
  end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
  return SetFileInformationByHandle(asHandle(file), FileEndOfFileInfo, &end, sizeof end)
             ? 0
             : lastErrorNumber();
}

int pathInfo(const std::string& path, PathInfo& info) {
  info = PathInfo{};
  // Backup semantics let a folder be opened for its attributes.
  const HANDLE h = CreateFileW(widen(path).c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                               OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    const int err = lastErrorNumber();
    return err == ENOENT ? 0 : err;
  }
  BY_HANDLE_FILE_INFORMATION fi{};
  if (GetFileInformationByHandle(h, &fi)) {
    fillInfo(h, fi, info);
  } else {
    info.kind = PathKind::kOther;
  }
  CloseHandle(h);
  return 0;
}

int fileInfo(FileHandle file, PathInfo& info) {
  info = PathInfo{};
  BY_HANDLE_FILE_INFORMATION fi{};
  if (!GetFileInformationByHandle(asHandle(file), &fi)) return lastErrorNumber();
  fillInfo(asHandle(file), fi, info);
  return 0;
}

// A new file takes the access rules of its folder on Windows; only the
// read-only attribute travels.
void copyPermissions(const PathInfo& info, FileHandle file) {
  if (info.mode & 0200) return;
  FILE_BASIC_INFO basic{};
  if (GetFileInformationByHandleEx(asHandle(file), FileBasicInfo, &basic, sizeof basic)) {
    basic.FileAttributes |= FILE_ATTRIBUTE_READONLY;
    SetFileInformationByHandle(asHandle(file), FileBasicInfo, &basic, sizeof basic);
  }
}

int replaceFile(const std::string& from, const std::string& to) {
  return MoveFileExW(widen(from).c_str(), widen(to).c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
             ? 0
             : lastErrorNumber();
}

int removeFile(const std::string& path) {
  const std::wstring wide = widen(path);
  if (DeleteFileW(wide.c_str())) return 0;
  const int err = lastErrorNumber();
  if (err == EACCES && RemoveDirectoryW(wide.c_str())) return 0;
  return err;
}

// MOVEFILE_WRITE_THROUGH already made the rename durable.
void syncFolder(const std::string& /*folder*/) {}

int listFolder(const std::string& folder, std::vector<std::string>& names) {
  names.clear();
  WIN32_FIND_DATAW found{};
  const HANDLE h = FindFirstFileW(widen(folder + "\\*").c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) {
    const int err = lastErrorNumber();
    return GetLastError() == ERROR_FILE_NOT_FOUND ? 0 : err;
  }
  do {
    const std::string name = narrow(found.cFileName);
    if (name != "." && name != "..") names.push_back(name);
  } while (FindNextFileW(h, &found));
  FindClose(h);
  return 0;
}

int makeFolder(const std::string& folder) {
  return CreateDirectoryW(widen(folder).c_str(), nullptr) ? 0 : lastErrorNumber();
}

// Windows byte-range locks are mandatory; the lock covers a range far past
// any real data, so holding it never blocks a read or write of the file.
int tryLockFile(FileHandle file) {
  OVERLAPPED at{};
  at.Offset = 0;
  at.OffsetHigh = 0x7fffffff;
  if (LockFileEx(asHandle(file), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                 &at)) {
    return 0;
  }
  return GetLastError() == ERROR_LOCK_VIOLATION ? EWOULDBLOCK : lastErrorNumber();
}

std::string errorText(int error) { return std::strerror(error); }

unsigned long processId() { return GetCurrentProcessId(); }

}  // namespace tavrix::platform

namespace tavrix::platform {

bool fileNamesIgnoreCase() { return true; }

bool hasDriveLetters() { return true; }

}  // namespace tavrix::platform
