#include "engine/engine.h"

#include "instrument/channel_commands.h"
#include "instrument/output_commands.h"
#include "instrument/sim_rig.h"
#include "sequencer/core_commands.h"

namespace tavrix {

Engine::Engine(std::unique_ptr<Clock> clock, Operator& op)
    : Engine(std::move(clock), op, InstrumentSettings{}, nullptr) {}

Engine::Engine(std::unique_ptr<Clock> clock, Operator& op, InstrumentSettings settings,
               const BackendFactory& makeBackend)
    : clock_(std::move(clock)), events_(*clock_), trace_(*clock_), sequencer_(events_, op, trace_) {
  std::unique_ptr<LinkLibrary> backend =
      makeBackend ? makeBackend(*clock_) : nullptr;
  if (!backend) backend = std::make_unique<SimLink>(*clock_, settings.dataRoot);
  instrument_ = std::make_unique<Instrument>(events_, trace_, std::move(settings), std::move(backend));
  RegisterSequencerCommands(sequencer_);
  RegisterInstrumentCommands(sequencer_, *instrument_);
  RegisterOutputCommands(sequencer_, *instrument_);
}

Engine::~Engine() = default;

}  // namespace tavrix
