// The tiles of a station's test sockets, as the window shows them: each
// socket's name, the serial number of its unit, its current line, the time
// left in a timed wait and a large state (READY before its first run,
// RUNNING, then PASS, FAIL or STOPPED), with the buttons that may be pressed
// for it and for all the sockets. Kept from each socket's run events alone;
// it knows no toolkit and is tested without one.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/clock.h"
#include "panel/run_panel.h"

namespace tavrix {

enum class SocketState { kReady, kRunning, kPass, kFail, kStopped };
// "READY", "RUNNING", "PASS", "FAIL", "STOPPED".
const char* SocketStateText(SocketState state);

// The unit in the socket as its engine holds it when an event is told (read
// on the engine's thread, with the event).
struct SocketUnit {
  bool open = false;
  std::string serial;
};

struct SocketTile {
  std::string name;
  // The unit in the socket, else the one tested last; empty when none has
  // a serial number.
  std::string serial;
  // "12: WAITSECONDS 5": the line being run (or held, or last run).
  std::string line;
  // "00:04" while the run is in a timed wait, else empty.
  std::string waitLeft;
  SocketState state = SocketState::kReady;
  // How the last run ended ("Ended: sequence error at line 4"); empty while
  // one runs.
  std::string endText;
  int passed = 0;  // units passed and failed in this socket since it opened
  int failed = 0;
  bool held = false;
  bool runEnabled = false;
  bool stopEnabled = false;
  bool stepEnabled = false;
};

class StationPanel {
 public:
  explicit StationPanel(const std::vector<std::string>& names);

  size_t size() const { return sockets_.size(); }
  // Takes one run event of socket `socket`; true when its tile changed.
  bool apply(size_t socket, const RunEvent& event, const SocketUnit& unit);
  // The tile as it stands at `now` on the socket's clock (the time left in
  // a wait counts down from the instant the wait told its length); without
  // `now`, as the socket's last event left it.
  SocketTile tile(size_t socket, std::optional<Micros> now = std::nullopt) const;

  // The sockets that Run all, Stop all and Step all act on: those whose own
  // button may be pressed. A socket that has finished is started for its
  // next unit by Run all as by its own Run, whatever the others do.
  std::vector<size_t> runnable() const;
  std::vector<size_t> stoppable() const;
  std::vector<size_t> steppable() const;
  // Whether a run goes in any socket (the station may not be closed or
  // replaced without asking).
  bool anyRunning() const;

 private:
  struct Socket {
    std::string name;
    RunPanel panel;
    std::string serial;
    std::string line;
    Micros waitDue = 0;
    Micros lastEvent = 0;
    bool failedThisRun = false;
    SocketState state = SocketState::kReady;
    int passed = 0;
    int failed = 0;
  };
  static bool mayRun(const Socket& s);
  static bool mayStep(const Socket& s);

  std::vector<Socket> sockets_;
};

}  // namespace tavrix
