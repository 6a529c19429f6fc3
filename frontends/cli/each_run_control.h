// The control socket of each run of an engine that runs many times (the
// window's): a socket opens as a run starts, in the folder of the run's
// record, and goes when the run ends, so `tavrix-cli ctl` and the plant
// view reach the window's runs as they reach those of `tavrix-cli run`.
// Breakpoints set through a run's socket stay for the runs after it, as the
// file they name stays prepared; they are the front end's (the window sets
// them on its view of the file too).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "engine/breakpoints.h"
#include "engine/engine.h"

namespace tavrix {

class ControlSocket;

class EachRunControl {
 public:
  // Engine thread, after the engine's records began (recordEveryRun), so
  // that each socket goes into its run's record. A socket that cannot be
  // made leaves that run without one; `onProblem` is told why.
  // `breakpoints` outlive this. `testSocket` names a station's test socket
  // the runs belong to (their status tells it).
  EachRunControl(Engine& engine, Breakpoints& breakpoints,
                 std::function<void(const std::string&)> onProblem, std::string testSocket = {});
  // Engine thread.
  ~EachRunControl();
  EachRunControl(const EachRunControl&) = delete;
  EachRunControl& operator=(const EachRunControl&) = delete;

  Breakpoints& breakpoints() { return breakpoints_; }
  // Told the run id of each socket as it opens (a station's publisher of its
  // runs). Engine thread.
  void onOpened(std::function<void(const std::string&)> told) { onOpened_ = std::move(told); }
  // The run id of the open socket; empty between runs. Engine thread.
  std::string runId() const;

 private:
  void event(const RunEvent& event);

  Engine& engine_;
  std::function<void(const std::string&)> onProblem_;
  std::function<void(const std::string&)> onOpened_;
  Breakpoints& breakpoints_;
  std::string testSocket_;
  std::shared_ptr<ControlSocket> socket_;
  // Tells the tasks posted for a run's end whether this is still here.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  RunEventBus::Subscription subscription_;
};

// The run control of one test socket of a station whose engine runs many
// times (the window's station): breakpoints of its own and a control socket
// for each of its runs in the run's record, named for the socket, as each
// socket of tavrix-cli run --station has one for its run. Engine thread,
// after the socket's records began.
class SocketRunControl {
 public:
  SocketRunControl(Engine& engine, const std::string& testSocket,
                   std::function<void(const std::string&)> onProblem)
      : breakpoints_(engine), control_(engine, breakpoints_, std::move(onProblem), testSocket) {}

  EachRunControl& control() { return control_; }

 private:
  Breakpoints breakpoints_;
  EachRunControl control_;
};

}  // namespace tavrix
