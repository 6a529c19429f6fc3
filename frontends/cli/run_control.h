// Run control for `tavrix-cli run`: the breakpoints of the command line
// (--break, --break-if), the note of which one held the run, and the run's
// control socket, through which `tavrix-cli ctl` reaches it.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "answer_relay.h"
#include "engine/breakpoints.h"
#include "engine/engine.h"

namespace tavrix {

class ControlSocket;
class TerminalKeys;
class TerminalView;

class RunControl {
 public:
  RunControl(Engine& engine, std::FILE* err);
  ~RunControl();
  RunControl(const RunControl&) = delete;
  RunControl& operator=(const RunControl&) = delete;

  // Sets the command line's breakpoints on the prepared file; false with
  // the message of the first bad one.
  bool setBreakpoints(const std::vector<std::string>& lines,
                      const std::vector<std::string>& conditions, std::string* error);
  // Opens the control socket in the data root (where the system has one);
  // a socket that cannot be made is told to `err` and the run goes on.
  void openSocket(const std::string& sequence);

  // Questions may be answered through the socket (ctl RUN answer CAPTION).
  void setAnswers(AnswerRelay& relay);

  // Reads keys from the terminal `in` until the run control goes.
  void takeKeys(TerminalKeys& keys, std::FILE* in, TerminalView& view);

  Breakpoints& breakpoints() { return breakpoints_; }
  // Empty without a socket.
  std::string runId() const;

 private:
  Engine& engine_;
  std::FILE* err_;
  Breakpoints breakpoints_;
  std::unique_ptr<ControlSocket> socket_;
  RunEventBus::Subscription holds_;
  TerminalKeys* keys_ = nullptr;
  TerminalView* view_ = nullptr;
  AnswerRelay* answers_ = nullptr;
};

}  // namespace tavrix
