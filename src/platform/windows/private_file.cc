#include "platform/private_file.h"

#include <windows.h>

#include <string>

#include "platform/windows/wide.h"

namespace tavrix::platform {

namespace {

std::string windowsError(DWORD error) { return "Windows error " + std::to_string(error); }

}  // namespace

bool othersMayAccess(const std::string& /*path*/) { return false; }

std::string writeNewPrivateFile(const std::string& path, std::string_view content) {
  const HANDLE file = CreateFileW(widen(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return windowsError(GetLastError());
  DWORD written = 0;
  const bool done =
      content.size() <= MAXDWORD &&
      WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) &&
      written == content.size();
  const DWORD error = GetLastError();
  CloseHandle(file);
  if (done) return {};
  DeleteFileW(widen(path).c_str());
  return windowsError(error);
}

}  // namespace tavrix::platform
