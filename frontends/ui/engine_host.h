// Runs one engine on a thread of its own. The engine's state is touched by
// nothing else: the window reaches it only by posting tasks, which the
// engine runs at its next event check, exactly where a running command
// tests its flags.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "engine/engine.h"

namespace tavrix {

// Posts a task to the engine thread: what the window's parts are given
// instead of the engine.
using EngineTasks = std::function<void(std::function<void(Engine&)>)>;

class EngineHost {
 public:
  using Factory = std::function<std::unique_ptr<Engine>()>;

  // Builds the engine with `factory` on the engine thread and waits until it
  // is ready.
  explicit EngineHost(Factory factory);
  // Stops a run in progress and ends the thread.
  ~EngineHost();
  EngineHost(const EngineHost&) = delete;
  EngineHost& operator=(const EngineHost&) = delete;

  // Runs `task` on the engine thread. Safe from any thread.
  void post(std::function<void(Engine&)> task);
  // The engine, for its commands and subscribe(), which are safe from the
  // window's thread; everything else of it only through post().
  Engine& engine() { return *engine_; }

 private:
  std::unique_ptr<Engine> engine_;
  std::thread thread_;
  bool quit_ = false;  // engine thread only
};

}  // namespace tavrix
