// Registers every command family of the sequencer core that needs no port:
// flow control, defines and the sequence time-out, CHAIN and RETURN, waits
// and time counts, the operator message panel and the help text section, and
// the file commands. The companion-program and operator-entry commands need
// their ports and are registered by the engine.
#pragma once

#include "sequencer/chain.h"
#include "sequencer/clock_waits.h"
#include "sequencer/companion_commands.h"
#include "sequencer/defines.h"
#include "sequencer/file_commands.h"
#include "sequencer/flow_control.h"
#include "sequencer/operator_entry.h"
#include "sequencer/operator_panel.h"
#include "sequencer/waits.h"

namespace tavrix {

inline void RegisterSequencerCommands(Sequencer& sequencer) {
  RegisterFlowControlCommands(sequencer);
  RegisterDefineCommands(sequencer);
  RegisterChainCommands(sequencer);
  RegisterWaitCommands(sequencer);
  RegisterClockWaitCommands(sequencer);
  RegisterOperatorPanelCommands(sequencer);
  RegisterFileCommands(sequencer);
}

}  // namespace tavrix
