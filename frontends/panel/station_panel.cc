#include "panel/station_panel.h"

#include <algorithm>

namespace tavrix {

const char* SocketStateText(SocketState state) {
  switch (state) {
    case SocketState::kReady:
      return "READY";
    case SocketState::kRunning:
      return "RUNNING";
    case SocketState::kPass:
      return "PASS";
    case SocketState::kFail:
      return "FAIL";
    case SocketState::kStopped:
      return "STOPPED";
  }
  return "";
}

StationPanel::StationPanel(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    Socket socket;
    socket.name = name;
    sockets_.push_back(std::move(socket));
  }
}

bool StationPanel::apply(size_t socket, const RunEvent& event, const SocketUnit& unit) {
  Socket& s = sockets_.at(socket);
  const SocketTile before = tile(socket);
  s.panel.apply(event);
  s.lastEvent = event.time;
  if (event.kind == RunEventKind::kCommand && s.panel.wait())
    s.waitDue = event.time + static_cast<Micros>(s.panel.wait()->left * kMicrosPerSecond);
  // The unit fitted now; a finished one's serial number stays until the next
  // unit has one.
  if (unit.open && !unit.serial.empty()) s.serial = unit.serial;
  switch (event.kind) {
    case RunEventKind::kLine:
    case RunEventKind::kHold:
      // A held line is shown before it runs.
      s.line = std::to_string(event.line) + ": " + event.text;
      break;
    case RunEventKind::kStarted:
      s.line.clear();
      s.state = SocketState::kRunning;
      s.failedThisRun = false;
      break;
    case RunEventKind::kUut:
      if (!event.title.empty()) s.serial = event.title;
      ++(event.flag ? s.passed : s.failed);
      if (!event.flag) s.failedThisRun = true;
      break;
    case RunEventKind::kEnd:
      // A run that reached its end passes unless a unit of it failed; one
      // that ended in a sequence error proved nothing good; one that was
      // stopped (or cut short by a limit) gives no verdict.
      if (event.text == "eof" || event.text == "stop") {
        s.state = s.failedThisRun ? SocketState::kFail : SocketState::kPass;
      } else if (event.text == "error") {
        s.state = SocketState::kFail;
      } else {
        s.state = SocketState::kStopped;
      }
      break;
    default:
      break;
  }
  const SocketTile after = tile(socket);
  return after.serial != before.serial || after.line != before.line ||
         after.waitLeft != before.waitLeft || after.state != before.state ||
         after.endText != before.endText || after.passed != before.passed ||
         after.failed != before.failed || after.held != before.held ||
         after.runEnabled != before.runEnabled || after.stopEnabled != before.stopEnabled ||
         after.stepEnabled != before.stepEnabled;
}

bool StationPanel::mayRun(const Socket& s) { return s.panel.controls().runEnabled; }

bool StationPanel::mayStep(const Socket& s) {
  // A socket at rest starts a run held before its first line; a held run
  // runs its held line.
  const RunControls& c = s.panel.controls();
  return c.stepEnabled || (!s.panel.running() && c.runEnabled);
}

SocketTile StationPanel::tile(size_t socket, std::optional<Micros> now) const {
  const Socket& s = sockets_.at(socket);
  SocketTile tile;
  tile.name = s.name;
  tile.serial = s.serial;
  tile.line = s.line;
  if (s.panel.wait()) {
    const Micros at = std::max(now.value_or(s.lastEvent), s.lastEvent);
    tile.waitLeft = FormatCountDown(static_cast<double>(s.waitDue - std::min(at, s.waitDue)) /
                                    kMicrosPerSecond);
  }
  tile.state = s.state;
  tile.endText = s.state == SocketState::kRunning ? std::string() : s.panel.endText();
  tile.passed = s.passed;
  tile.failed = s.failed;
  tile.held = s.panel.held();
  tile.runEnabled = mayRun(s);
  tile.stopEnabled = s.panel.controls().stopEnabled;
  tile.stepEnabled = mayStep(s);
  return tile;
}

std::vector<size_t> StationPanel::runnable() const {
  std::vector<size_t> which;
  for (size_t i = 0; i < sockets_.size(); ++i)
    if (mayRun(sockets_[i])) which.push_back(i);
  return which;
}

std::vector<size_t> StationPanel::stoppable() const {
  std::vector<size_t> which;
  for (size_t i = 0; i < sockets_.size(); ++i)
    if (sockets_[i].panel.controls().stopEnabled) which.push_back(i);
  return which;
}

std::vector<size_t> StationPanel::steppable() const {
  std::vector<size_t> which;
  for (size_t i = 0; i < sockets_.size(); ++i)
    if (mayStep(sockets_[i])) which.push_back(i);
  return which;
}

bool StationPanel::anyRunning() const {
  for (const Socket& s : sockets_)
    if (s.state == SocketState::kRunning) return true;
  return false;
}

}  // namespace tavrix
