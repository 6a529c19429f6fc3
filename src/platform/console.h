// The console a command-line program runs in.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>

namespace tavrix::platform {

// Whether `stream` is an interactive terminal.
bool isTerminal(std::FILE* stream);
// The width of the terminal `stream` shows in, in characters; 0 when unknown.
int terminalColumns(std::FILE* stream);

// While it lives, an operator's stop request from the console (Ctrl+C, and
// on Windows Ctrl+Break and closing the console window; on POSIX systems
// SIGINT and SIGTERM) calls `onStop` on a thread of its own instead of ending
// the process. At most one may live at a time.
class StopRequests {
 public:
  explicit StopRequests(std::function<void()> onStop);
  ~StopRequests();
  StopRequests(const StopRequests&) = delete;
  StopRequests& operator=(const StopRequests&) = delete;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace tavrix::platform
