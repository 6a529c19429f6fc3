// The commands of the sequencer core: flow control, defines and the sequence
// time-out, CHAIN and RETURN, waits and time counts, the operator message
// panel and the help text section, the file commands, and (given their
// ports) the companion-program and operator-entry commands.
#pragma once

namespace tavrix {

class Sequencer;
class Companion;
class ChannelAccess;

void RegisterFlowControlCommands(Sequencer& sequencer);
void RegisterDefineCommands(Sequencer& sequencer);
void RegisterChainCommands(Sequencer& sequencer);
void RegisterWaitCommands(Sequencer& sequencer);
void RegisterClockWaitCommands(Sequencer& sequencer);
void RegisterOperatorPanelCommands(Sequencer& sequencer);
void RegisterFileCommands(Sequencer& sequencer);

// ICONISE, APPLOAD, SENDKEYS, LINKPOKE, LINKEXECUTE, STARTSTREAMER and
// WAITSTREAMER, through `companion` (which must outlive the sequencer).
void RegisterCompanionCommands(Sequencer& sequencer, Companion& companion);
// ENTERSEND, SELECTMENU, DOWITHSHOW and MANUALADJUST. Without `channels`
// (nullptr) the commands that touch a channel report that they are not
// available.
void RegisterOperatorEntryCommands(Sequencer& sequencer, ChannelAccess* channels);

// The commands that need no port.
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
