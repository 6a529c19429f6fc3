#include "engine/engine.h"

#include "indexing/indexing_commands.h"
#include "sequencer/core_commands.h"

namespace tavrix {

Engine::Engine(std::unique_ptr<Clock> clock, Operator& op)
    : clock_(std::move(clock)), events_(*clock_), trace_(*clock_), companion_(&trace_),
      sequencer_(events_, op, trace_) {
  RegisterSequencerCommands(sequencer_);
  RegisterCompanionCommands(sequencer_, companion_);
  RegisterOperatorEntryCommands(sequencer_, nullptr);
  RegisterIndexingCommands(sequencer_, companion_);
}

Engine::~Engine() = default;

}  // namespace tavrix
