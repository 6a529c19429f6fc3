#include "platform/console.h"

#include <io.h>
#include <windows.h>

#include <mutex>

namespace tavrix::platform {

bool isTerminal(std::FILE* stream) { return stream != nullptr && _isatty(_fileno(stream)); }

int terminalColumns(std::FILE* stream) {
  if (stream == nullptr) return 0;
  const HANDLE console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!GetConsoleScreenBufferInfo(console, &info)) return 0;
  return info.srWindow.Right - info.srWindow.Left + 1;
}

// Windows calls the console control handler on a thread of its own. The
// handler's state outlives any one StopRequests, since a close event may
// still be waiting in the handler when the object goes.
struct StopRequests::State {};

namespace {

struct Handler {
  std::mutex mutex;
  std::function<void(int)> onStop;
  HANDLE finished = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

Handler& handler() {
  static Handler* const h = new Handler;  // never destroyed: the handler may run at exit
  return *h;
}

// Windows gives a process about five seconds after a close, log-off or
// shut-down event before it ends it.
constexpr DWORD kEndingWaitMs = 4500;

BOOL WINAPI onConsoleControl(DWORD event) {
  int status = 0;
  bool ending = false;
  switch (event) {
    case CTRL_C_EVENT:
      status = 130;
      break;
    case CTRL_BREAK_EVENT:
      status = 149;
      break;
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      status = 129;
      ending = true;
      break;
    default:
      return FALSE;
  }
  Handler& h = handler();
  std::function<void(int)> onStop;
  {
    std::lock_guard guard(h.mutex);
    onStop = h.onStop;
  }
  if (!onStop) return FALSE;
  onStop(status);
  if (ending) WaitForSingleObject(h.finished, kEndingWaitMs);
  return TRUE;
}

}  // namespace

StopRequests::StopRequests(std::function<void(int exitStatus)> onStop)
    : state_(std::make_unique<State>()) {
  Handler& h = handler();
  {
    std::lock_guard guard(h.mutex);
    h.onStop = std::move(onStop);
  }
  ResetEvent(h.finished);
  SetConsoleCtrlHandler(onConsoleControl, TRUE);
}

StopRequests::~StopRequests() {
  Handler& h = handler();
  SetConsoleCtrlHandler(onConsoleControl, FALSE);
  {
    std::lock_guard guard(h.mutex);
    h.onStop = nullptr;
  }
  SetEvent(h.finished);
}

struct LineReader::State {
  std::FILE* stream = nullptr;
  std::mutex mutex;
  bool cancelled = false;
};

LineReader::LineReader(std::FILE* stream) : state_(std::make_unique<State>()) {
  state_->stream = stream;
}

LineReader::~LineReader() = default;

LineReader::Result LineReader::readLine(std::string& line) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->cancelled) {
      state_->cancelled = false;
      return Result::kCancelled;
    }
  }
  char buffer[4096];
  if (state_->stream == nullptr || std::fgets(buffer, sizeof buffer, state_->stream) == nullptr)
    return Result::kEnd;
  line = buffer;
  if (!line.empty() && line.back() == '\n') line.pop_back();
  return Result::kLine;
}

void LineReader::cancel() {
  std::lock_guard lock(state_->mutex);
  state_->cancelled = true;
}

void LineReader::clear() {
  std::lock_guard lock(state_->mutex);
  state_->cancelled = false;
}

}  // namespace tavrix::platform
