// The control socket of each run of an engine that runs many times (the
// window's): a socket opens as a run starts, in the folder of the run's
// record, and goes when the run ends, so `tavrix-cli ctl` and the plant
// view reach the window's runs as they reach those of `tavrix-cli run`.
// Breakpoints set through a run's socket stay for the runs after it, as the
// file they name stays prepared.
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
  EachRunControl(Engine& engine, std::function<void(const std::string&)> onProblem);
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
  Breakpoints breakpoints_;
  std::shared_ptr<ControlSocket> socket_;
  // Tells the tasks posted for a run's end whether this is still here.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  RunEventBus::Subscription subscription_;
};

}  // namespace tavrix
