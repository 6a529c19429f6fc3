// The commands of the sequencer core: flow control, waits and time counts,
// the operator message panel and the help text section.
#pragma once

namespace tavrix {

class Sequencer;

void RegisterFlowControlCommands(Sequencer& sequencer);
void RegisterWaitCommands(Sequencer& sequencer);
void RegisterOperatorPanelCommands(Sequencer& sequencer);

inline void RegisterSequencerCommands(Sequencer& sequencer) {
  RegisterFlowControlCommands(sequencer);
  RegisterWaitCommands(sequencer);
  RegisterOperatorPanelCommands(sequencer);
}

}  // namespace tavrix
