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
#include "engine/run_record.h"

namespace tavrix {

class ControlSocket;
class TerminalKeys;
class TerminalView;

// The record of a run of tavrix-cli in the data root. A record that cannot
// be made is told to `err` as a warning and the run goes on. A run refused
// before it ends as a run does (a bad breakpoint, a setup that does not
// load) is recorded as "refused" with exit status 2.
class RunRecording {
 public:
  RunRecording(Engine& engine, const RunRecord::Start& start, const RunRecordLimits& limits,
               std::FILE* err);
  ~RunRecording();
  RunRecording(const RunRecording&) = delete;
  RunRecording& operator=(const RunRecording&) = delete;

  // Empty without a record.
  std::string id() const { return record_ ? record_->id() : std::string(); }
  void finish(EndReason reason, int status);

 private:
  Engine& engine_;
  std::unique_ptr<RunRecord> record_;
};

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
  // `testSocket` names the station's test socket the run belongs to. With a
  // `runId` the socket goes into that run's folder (its record's).
  void openSocket(const std::string& sequence, const std::string& testSocket = {},
                  const std::string& runId = {});

  // Questions may be answered through the socket (ctl RUN answer CAPTION).
  void setAnswers(AnswerRelay& relay);

  // Reads keys from the terminal `in` until the run control goes.
  void takeKeys(TerminalKeys& keys, std::FILE* in, TerminalView& view);

  Breakpoints& breakpoints() { return breakpoints_; }
  // Empty without a socket.
  std::string runId() const;

 private:
  // Says which breakpoint held the run, and how to go on from elsewhere.
  void noteHold(const RunEvent& event);

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
