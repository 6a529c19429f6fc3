#include "platform/shared_library.h"

#include <windows.h>

#include "platform/windows/wide.h"

namespace tavrix::platform {

namespace {

std::string lastErrorText() {
  const DWORD err = GetLastError();
  wchar_t* text = nullptr;
  FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, err, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string out = text != nullptr ? narrow(text) : std::string();
  if (text != nullptr) LocalFree(text);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ')) {
    out.pop_back();
  }
  return out.empty() ? "Windows error " + std::to_string(err) : out;
}

}  // namespace

std::unique_ptr<SharedLibrary> SharedLibrary::open(const std::string& path, std::string* error) {
  // No "cannot find the library" message from the system: the caller reports it.
  const UINT previous = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  // A library named with its folder finds the libraries it needs in that
  // folder first, as a rig's vendor libraries expect.
  std::wstring name = widen(path);
  const bool inFolder = name.find_first_of(L"/\\") != std::wstring::npos;
  for (wchar_t& c : name) {
    if (c == L'/') c = L'\\';
  }
  HMODULE module = inFolder ? LoadLibraryExW(name.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH)
                            : LoadLibraryW(name.c_str());
  if (module == nullptr && error) *error = lastErrorText();
  SetErrorMode(previous);
  if (module == nullptr) return nullptr;
  return std::unique_ptr<SharedLibrary>(new SharedLibrary(module));
}

SharedLibrary::~SharedLibrary() { FreeLibrary(static_cast<HMODULE>(handle_)); }

void* SharedLibrary::function(const std::string& name) const {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name.c_str()));
}

}  // namespace tavrix::platform
