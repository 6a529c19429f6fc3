#include "run_control.h"

#include "control_socket.h"
#include "terminal_keys.h"
#include "terminal_view.h"

namespace tavrix {

RunRecording::RunRecording(Engine& engine, const RunRecord::Start& start,
                           const RunRecordLimits& limits, std::FILE* err)
    : engine_(engine) {
  std::string error;
  record_ = RunRecord::Begin(engine.files(), engine.trace(), start, limits, &error);
  if (!record_)
    std::fprintf(err, "tavrix-cli: warning: this run keeps no record (it goes on): %s\n",
                 error.c_str());
}

RunRecording::~RunRecording() {
  if (record_) record_->finish(engine_.clock().now(), "refused", 2);
}

void RunRecording::finish(EndReason reason, int status) {
  if (record_) record_->finish(engine_.clock().now(), EndReasonName(reason), status);
}

RunControl::RunControl(Engine& engine, std::FILE* err)
    : engine_(engine), err_(err), breakpoints_(engine) {
  holds_ = engine.subscribe([this](const RunEvent& event) { noteHold(event); });
}

void RunControl::noteHold(const RunEvent& event) {
  if (event.kind != RunEventKind::kHold) return;
  if (event.title != "break") {
    // At the terminal the keys go on from here.
    if (view_ != nullptr)
      view_->note("held before line " + std::to_string(event.line) + " (" + event.title + ")");
    return;
  }
  std::string what = "breakpoint " + std::to_string(event.number);
  for (const Breakpoint& b : breakpoints_.list())
    if (b.id == event.number) what += " (" + DescribeBreakpoint(b) + ")";
  const std::string id = runId();
  const std::string text = "held before line " + std::to_string(event.line) + " by " + what +
                           (id.empty() ? "" : "; go on with: tavrix-cli ctl " + id + " resume");
  // At the terminal it goes above the live status, which it would
  // otherwise run into.
  if (view_ != nullptr) return view_->note(text);
  std::fprintf(err_, "tavrix-cli: %s\n", text.c_str());
  std::fflush(err_);
}

RunControl::~RunControl() {
  if (keys_ != nullptr) keys_->stop();
  holds_.reset();
  socket_.reset();
}

bool RunControl::setBreakpoints(const std::vector<std::string>& lines,
                                const std::vector<std::string>& conditions, std::string* error) {
  for (const std::string& spec : lines)
    if (!breakpoints_.add(spec, false, error)) return false;
  for (const std::string& spec : conditions)
    if (!breakpoints_.add(spec, true, error)) return false;
  return true;
}

void RunControl::openSocket(const std::string& sequence, const std::string& testSocket,
                            const std::string& runId) {
  std::string error;
  socket_ = ControlSocket::Open(engine_, breakpoints_, engine_.files().dataRoot(), sequence,
                                engine_.clock().now(), &error, testSocket, runId);
  if (socket_ && answers_ != nullptr) socket_->setAnswers(answers_);
  // The note of a hold comes after the socket has heard of it, so that a
  // client that reads the note and asks finds the run held.
  if (socket_) {
    holds_.reset();
    holds_ = engine_.subscribe([this](const RunEvent& event) { noteHold(event); });
  }
  if (!socket_)
    std::fprintf(err_, "tavrix-cli: warning: no control socket (the run goes on): %s\n",
                 error.c_str());
}

void RunControl::setAnswers(AnswerRelay& relay) {
  answers_ = &relay;
  if (socket_) socket_->setAnswers(&relay);
}

void RunControl::takeKeys(TerminalKeys& keys, std::FILE* in, TerminalView& view) {
  keys_ = &keys;
  view_ = &view;
  keys.start(in, engine_, breakpoints_, view);
}

std::string RunControl::runId() const {
  if (socket_) return socket_->runId();
  return {};
}

}  // namespace tavrix
