#include "testing/dde_test_server_process.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/windows/wide.h"

namespace tavrix::platform {

NamedEvent::NamedEvent(const std::string& role) {
  static int made = 0;
  name_ = "tavrix-test-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++made) +
          "-" + role;
  handle_ = CreateEventW(nullptr, TRUE, FALSE, widen(name_).c_str());
}

NamedEvent::~NamedEvent() { CloseHandle(handle_); }

void NamedEvent::set() { SetEvent(handle_); }

bool NamedEvent::waitFor(void* process) const {
  HANDLE handles[] = {handle_, process};
  return WaitForMultipleObjects(process != nullptr ? 2 : 1, handles, FALSE, 30000) == WAIT_OBJECT_0;
}

std::string DdeTestServerProcess::path() {
  wchar_t self[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring folder(self, n);
  folder.resize(folder.find_last_of(L"\\/") + 1);
  return narrow(folder) + "dde_test_server.exe";
}

DdeTestServerProcess::DdeTestServerProcess(const std::string& logPath, const std::string& arguments)
    : log_(logPath) {
  NamedEvent ready("ready");
  std::wstring line = widen("\"" + path() + "\" --log \"" + logPath + "\" --ready " + ready.name() +
                            " --stop " + stop_.name() + " " + arguments);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                      &process)) {
    return;
  }
  CloseHandle(process.hThread);
  process_ = process.hProcess;
  started_ = ready.waitFor(process_);
}

DdeTestServerProcess::~DdeTestServerProcess() {
  if (process_ == nullptr) return;
  stop_.set();
  if (WaitForSingleObject(process_, 30000) != WAIT_OBJECT_0) TerminateProcess(process_, 1);
  CloseHandle(process_);
}

std::vector<std::string> DdeTestServerProcess::received() {
  std::ifstream in(std::filesystem::path(widen(log_)), std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::vector<std::string> fresh(lines.begin() + static_cast<long>(std::min(seen_, lines.size())),
                                 lines.end());
  seen_ = lines.size();
  return fresh;
}

}  // namespace tavrix::platform
