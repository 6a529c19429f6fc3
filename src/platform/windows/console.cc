#include "platform/console.h"

#include <io.h>
#include <windows.h>

#include <atomic>

namespace tavrix::platform {

bool isTerminal(std::FILE* stream) { return stream != nullptr && _isatty(_fileno(stream)); }

int terminalColumns(std::FILE* stream) {
  if (stream == nullptr) return 0;
  const HANDLE console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!GetConsoleScreenBufferInfo(console, &info)) return 0;
  return info.srWindow.Right - info.srWindow.Left + 1;
}

// Windows calls the console control handler on a thread of its own.
struct StopRequests::State {
  std::function<void()> onStop;
};

namespace {

std::atomic<StopRequests::State*> current{nullptr};

BOOL WINAPI onConsoleControl(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
      if (StopRequests::State* state = current.load()) {
        state->onStop();
        return TRUE;
      }
      return FALSE;
    default:
      return FALSE;
  }
}

}  // namespace

StopRequests::StopRequests(std::function<void()> onStop)
    : state_(std::make_unique<State>(State{std::move(onStop)})) {
  current.store(state_.get());
  SetConsoleCtrlHandler(onConsoleControl, TRUE);
}

StopRequests::~StopRequests() {
  SetConsoleCtrlHandler(onConsoleControl, FALSE);
  current.store(nullptr);
}

}  // namespace tavrix::platform
