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

int seekFile(FileHandle file, uint64_t offset) {
  LARGE_INTEGER to{};
  to.QuadPart = static_cast<LONGLONG>(offset);
  return SetFilePointerEx(asHandle(file), to, nullptr, FILE_BEGIN) ? 0 : lastErrorNumber();
}

int truncateFile(FileHandle file, uint64_t size) {
  FILE_END_OF_FILE_INFO end{};
  end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
  if (SetFileInformationByHandle(asHandle(file), FileEndOfFileInfo, &end, sizeof end)) return 0;
  if (GetLastError() != ERROR_ACCESS_DENIED) return lastErrorNumber();
  // A file opened for appending may not be cut back through that handle; a
  // second handle on the same file with write access may.
  const HANDLE writer = ReOpenFile(asHandle(file), GENERIC_WRITE, kShareAll, 0);
  if (writer == INVALID_HANDLE_VALUE) return lastErrorNumber();
  const bool ok = SetFileInformationByHandle(writer, FileEndOfFileInfo, &end, sizeof end);
  const int err = ok ? 0 : lastErrorNumber();
  CloseHandle(writer);
  return err;
}

// What `path` is; `ownEntry` looks at a link itself rather than where it
// leads (a link reads as kOther).
static int infoOf(const std::string& path, bool ownEntry, PathInfo& info) {
  info = PathInfo{};
  // Backup semantics let a folder be opened for its attributes.
  const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (ownEntry ? FILE_FLAG_OPEN_REPARSE_POINT : 0);
  const HANDLE h = CreateFileW(widen(path).c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                               OPEN_EXISTING, flags, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    const int err = lastErrorNumber();
    return err == ENOENT ? 0 : err;
  }
  BY_HANDLE_FILE_INFORMATION fi{};
  if (GetFileInformationByHandle(h, &fi)) {
    fillInfo(h, fi, info);
    if (ownEntry && (fi.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
      info.kind = PathKind::kOther;
  } else {
    info.kind = PathKind::kOther;
  }
  CloseHandle(h);
  return 0;
}

int pathInfo(const std::string& path, PathInfo& info) { return infoOf(path, false, info); }

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

const char* folderLockFileName() { return ".tavrix-lock"; }

int openFolderLock(const std::string& folder, FileHandle& file) {
  // A folder handle cannot carry a byte-range lock, so the lock lives on a
  // hidden file in the folder. It stays there: removing it while another
  // process waits on it would let two processes lock two different files.
  const std::wstring name =
      widen((folder.empty() ? std::string(".") : folder) + "\\" + folderLockFileName());
  HANDLE h = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll, nullptr,
                         OPEN_ALWAYS, FILE_ATTRIBUTE_HIDDEN, nullptr);
  if (h == INVALID_HANDLE_VALUE && GetLastError() == ERROR_ACCESS_DENIED) {
    // A read-only folder: an existing lock file still serves, read-only.
    h = CreateFileW(name.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  }
  if (h == INVALID_HANDLE_VALUE) return lastErrorNumber();
  file = reinterpret_cast<FileHandle>(h);
  return 0;
}

int removeFolder(const std::string& folder) {
  return RemoveDirectoryW(widen(folder).c_str()) ? 0 : lastErrorNumber();
}

int entryInfo(const std::string& path, PathInfo& info) { return infoOf(path, true, info); }

const char* pathSeparators() { return "/\\"; }

std::string currentFolder() {
  const DWORD n = GetCurrentDirectoryW(0, nullptr);
  std::wstring buf(n, L'\0');
  const DWORD got = GetCurrentDirectoryW(n, buf.data());
  if (got == 0 || got >= n) return ".";
  buf.resize(got);
  return narrow(buf);
}

int changeFolder(const std::string& folder) {
  return SetCurrentDirectoryW(widen(folder).c_str()) ? 0 : lastErrorNumber();
}

std::string tempFolder() {
  wchar_t buf[MAX_PATH + 2] = {};
  const DWORD n = GetTempPathW(MAX_PATH + 1, buf);
  std::string base = n > 0 && n <= MAX_PATH + 1 ? narrow(std::wstring(buf, n)) : "c:\\temp";
  while (base.size() > 3 && (base.back() == '\\' || base.back() == '/')) base.pop_back();
  return base;
}

int makeUniqueFolder(const std::string& prefix, std::string& path) {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  LARGE_INTEGER seed{};
  QueryPerformanceCounter(&seed);
  uint64_t state = static_cast<uint64_t>(seed.QuadPart) ^ (uint64_t{GetCurrentProcessId()} << 32);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = prefix;
    for (int i = 0; i < 6; ++i) {
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      name += kLetters[(state >> 33) % (sizeof kLetters - 1)];
    }
    if (CreateDirectoryW(widen(name).c_str(), nullptr)) {
      path = name;
      return 0;
    }
    if (GetLastError() != ERROR_ALREADY_EXISTS) return lastErrorNumber();
  }
  return EEXIST;
}

bool processRunning(unsigned long pid) {
  const HANDLE h = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
  if (h == nullptr) return GetLastError() != ERROR_INVALID_PARAMETER;
  const bool running = WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  CloseHandle(h);
  return running;
}

std::string allowedFileName(std::string name) {
  for (char& c : name) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || c == '<' || c == '>' || c == ':' || c == '"' || c == '|' || c == '?' ||
        c == '*') {
      c = '_';
    }
  }
  return name;
}

std::string errorText(int error) { return std::strerror(error); }

unsigned long processId() { return GetCurrentProcessId(); }

}  // namespace tavrix::platform

namespace tavrix::platform {

bool fileNamesIgnoreCase() { return true; }

bool hasDriveLetters() { return true; }

}  // namespace tavrix::platform
