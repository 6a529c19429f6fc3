#include "platform/windows/wide.h"

#include <windows.h>

#include <cerrno>

namespace tavrix::platform {

std::wstring widen(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int n =
      MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), out.data(), n);
  return out;
}

std::string narrow(const std::wstring& utf16) {
  if (utf16.empty()) return {};
  const int n = WideCharToMultiByte(CP_UTF8, 0, utf16.data(), static_cast<int>(utf16.size()),
                                    nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, utf16.data(), static_cast<int>(utf16.size()), out.data(), n,
                      nullptr, nullptr);
  return out;
}

int lastErrorNumber() {
  switch (GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_PATHNAME:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_WRITE_PROTECT:
      return EACCES;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return EEXIST;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
      return ENOSPC;
    case ERROR_INVALID_NAME:
    case ERROR_DIRECTORY:
    case ERROR_INVALID_PARAMETER:
      return EINVAL;
    case ERROR_LOCK_VIOLATION:
    case ERROR_IO_PENDING:
      return EWOULDBLOCK;
    case ERROR_DIR_NOT_EMPTY:
      return ENOTEMPTY;
    case ERROR_FILENAME_EXCED_RANGE:
      return ENAMETOOLONG;
    default:
      return EIO;
  }
}

}  // namespace tavrix::platform
