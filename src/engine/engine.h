// One engine: the clock, the event loop, the trace and the run engine with
// every subsystem's commands registered. The front ends build one, plug in
// their operator, and go.
#pragma once

#include <memory>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/trace.h"
#include "instrument/instrument.h"
#include "sequencer/sequencer.h"

namespace tavrix {

class Engine {
 public:
  // An engine on the simulated rig with the default instrument settings.
  Engine(std::unique_ptr<Clock> clock, Operator& op);
  // An engine on the link library backend that `makeBackend` builds over the
  // engine's clock (nullptr: the simulated rig).
  using BackendFactory = std::function<std::unique_ptr<LinkLibrary>(const Clock&)>;
  Engine(std::unique_ptr<Clock> clock, Operator& op, InstrumentSettings settings,
         const BackendFactory& makeBackend);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  Clock& clock() { return *clock_; }
  EventLoop& events() { return events_; }
  Trace& trace() { return trace_; }
  Sequencer& sequencer() { return sequencer_; }
  Instrument& instrument() { return *instrument_; }

 private:
  std::unique_ptr<Clock> clock_;
  EventLoop events_;
  Trace trace_;
  Sequencer sequencer_;
  std::unique_ptr<Instrument> instrument_;
};

}  // namespace tavrix
