#include "terminal_view.h"

#include <algorithm>

#include "common/civil_time.h"
#include "platform/console.h"

namespace tavrix {

namespace {

// Erases the line the cursor is on and goes back to its start.
constexpr const char* kEraseLine = "\r\x1b[K";
// The live status is redrawn at most this often (wall time); lines, status
// changes and messages are written as they come.
constexpr auto kRedrawEvery = std::chrono::milliseconds(100);
constexpr Micros kRedrawTimer = 250 * 1000;

std::string OneLine(std::string_view text) {
  std::string line;
  for (char c : text) line += (c == '\r' || c == '\n') ? ' ' : c;
  return line;
}

const char* ReasonText(EndReason reason) {
  switch (reason) {
    case EndReason::kEndOfFile:
      return "end of the file";
    case EndReason::kStop:
      return "STOP";
    case EndReason::kError:
      return "a sequence error";
    case EndReason::kUnload:
      return "a command that ends the program";
    case EndReason::kAbort:
      return "stopped";
    case EndReason::kLimit:
      return "a limit of --stop-after or --max-lines";
    case EndReason::kNone:
      break;
  }
  return "not run";
}

}  // namespace

TerminalView::TerminalView(Operator& inner, std::FILE* out, std::FILE* summary, bool live)
    : inner_(inner), out_(out), summary_(summary), live_(live) {}

TerminalView::~TerminalView() = default;

bool TerminalView::IsTerminal(std::FILE* stream) {
  return stream != nullptr && platform::isTerminal(stream);
}

void TerminalView::attach(Engine& engine, bool virtualClock) {
  engine_ = &engine;
  start_ = engine.clock().now();
  subscription_ = engine.subscribe([this](const RunEvent& event) { runEvent(event); });
  if (live_ && !virtualClock) {
    redraw_ = std::make_unique<Timer>(engine.events(), kRedrawTimer, [this] { drawStatus(false); });
    redraw_->setEnabled(true);
  }
}

void TerminalView::detach() {
  subscription_.reset();
  redraw_.reset();
  engine_ = nullptr;
}

void TerminalView::runEvent(const RunEvent& event) {
  panel_.apply(event);
  switch (event.kind) {
    case RunEventKind::kLine:
      ++lines_;
      if (live_) print(clock() + "  " + std::to_string(event.line) + "  " + OneLine(event.text));
      break;
    case RunEventKind::kStatus:
      if (live_) print(clock() + "  -- " + event.text);
      break;
    case RunEventKind::kCommand:
    case RunEventKind::kTimeout:
      drawStatus(false);
      break;
    case RunEventKind::kUut:
      uut(event);
      break;
    default:
      break;
  }
}

void TerminalView::uut(const RunEvent& event) {
  ++(event.flag ? passed_ : failed_);
  for (const auto& file : event.items)
    if (std::find(files_.begin(), files_.end(), file) == files_.end()) files_.push_back(file);
  if (live_) print(clock() + "  UUT " + event.title + ": " + (event.flag ? "Pass" : "Fail"));
}

std::string TerminalView::clock() const {
  if (engine_ == nullptr) return "--:--:--";
  const CivilTime c = toCivil(engine_->clock().now());
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", c.hour, c.minute, c.second);
  return text;
}

int TerminalView::width() const {
  const int columns = platform::terminalColumns(out_);
  if (columns > 10) return columns;
  return 80;
}

void TerminalView::print(const std::string& text) {
  clearStatus();
  std::fprintf(out_, "%s\n", text.c_str());
  drawStatus(true);
}

void TerminalView::note(const std::string& text) {
  if (live_) {
    print(clock() + "  " + text);
  } else {
    std::fprintf(summary_, "%s\n", text.c_str());
    std::fflush(summary_);
  }
}

void TerminalView::setWatchLine(std::string text) {
  watchLine_ = std::move(text);
  if (!live_) {
    if (!watchLine_.empty()) note(watchLine_);
    return;
  }
  clearStatus();
  drawStatus(true);
}

void TerminalView::clearStatus() {
  if (!statusShown_) return;
  // The watch line under the status goes first.
  if (watchShown_) std::fputs("\x1b[1B\r\x1b[K\x1b[1A", out_);
  watchShown_ = false;
  std::fputs(kEraseLine, out_);
  std::fflush(out_);
  statusShown_ = false;
}

void TerminalView::drawStatus(bool force) {
  if (!live_ || asking_ || engine_ == nullptr || lines_ == 0) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - lastDraw_ < kRedrawEvery) return;
  lastDraw_ = now;
  std::string status = clock() + " | line " + std::to_string(panel_.lineNumber()) + ": " +
                       OneLine(panel_.currentCommand());
  if (engine_->sequencer().timeoutDeadline())
    status += " | time-out " + std::to_string(panel_.timeoutSeconds()) + " s";
  const double seconds = static_cast<double>(engine_->clock().now() - start_) / kMicrosPerSecond;
  if (seconds >= 1) {
    char rate[48];
    const double perSecond = static_cast<double>(lines_) / seconds;
    std::snprintf(rate, sizeof rate, perSecond >= 10 ? " | %.0f lines/s" : " | %.2f lines/s",
                  perSecond);
    status += rate;
  }
  const size_t room = static_cast<size_t>(width() - 1);
  if (status.size() > room) status.resize(room);
  std::fprintf(out_, "%s%s", kEraseLine, status.c_str());
  if (!watchLine_.empty()) {
    std::string watch = watchLine_;
    if (watch.size() > room) watch.resize(room);
    // Below the status; the cursor goes back to the status line's end.
    std::fprintf(out_, "\n%s%s\x1b[1A\r\x1b[%zuC", kEraseLine, watch.c_str(), status.size());
    watchShown_ = true;
  }
  std::fflush(out_);
  statusShown_ = true;
}

void TerminalView::ask(const Question& question, std::function<void(Answer)> answered) {
  clearStatus();
  if (live_ && !inner_.isPerson()) {
    std::string buttons;
    for (const auto& b : question.choices) buttons += (buttons.empty() ? " [" : "] [") + b;
    if (!buttons.empty()) buttons += "]";
    print(clock() + "  ? " + OneLine(question.text) + buttons);
  }
  std::fflush(out_);
  asking_ = true;
  const bool echo = live_ && !inner_.isPerson();
  inner_.ask(question, [this, echo, answered = std::move(answered)](Answer answer) {
    asking_ = false;
    // Scripted answers come at once, on the engine's thread: shown as given.
    if (echo) print("          -> " + (answer ? OneLine(*answer) : std::string("(no answer)")));
    answered(std::move(answer));
  });
}

void TerminalView::showMessage(std::string_view title, std::string_view text) {
  clearStatus();
  inner_.showMessage(title, text);
  drawStatus(true);
}

void TerminalView::finish(EndReason reason, int exitStatus) {
  clearStatus();
  detach();
  live_ = false;
  std::fprintf(summary_, "Run ended by %s: exit status %d\n", ReasonText(reason), exitStatus);
  if (passed_ + failed_ > 0)
    std::fprintf(summary_, "UUTs: %d passed, %d failed\n", passed_, failed_);
  for (const auto& file : files_) std::fprintf(summary_, "Written: %s\n", file.c_str());
  std::fflush(summary_);
}

}  // namespace tavrix
