// One engine: the clock, the event loop, the trace and the run engine with
// every subsystem's commands registered. The front ends build one, plug in
// their operator, and go.
#pragma once

#include <memory>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/trace.h"
#include "sequencer/sequencer.h"

namespace tavrix {

class Engine {
 public:
  Engine(std::unique_ptr<Clock> clock, Operator& op);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  Clock& clock() { return *clock_; }
  EventLoop& events() { return events_; }
  Trace& trace() { return trace_; }
  Sequencer& sequencer() { return sequencer_; }

 private:
  std::unique_ptr<Clock> clock_;
  EventLoop events_;
  Trace trace_;
  Sequencer sequencer_;
};

}  // namespace tavrix
