#include "engine/engine.h"

#include "sequencer/core_commands.h"

namespace tavrix {

Engine::Engine(std::unique_ptr<Clock> clock, Operator& op)
    : clock_(std::move(clock)), events_(*clock_), trace_(*clock_), sequencer_(events_, op, trace_) {
  RegisterSequencerCommands(sequencer_);
}

Engine::~Engine() = default;

}  // namespace tavrix
