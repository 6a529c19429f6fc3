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

// `uniform` is WAITRANDOM's source of random draws (the system's when empty);
// `loopCount` is where INCREMENTLOOPCOUNT writes to a channel.
inline void RegisterSequencerCommands(Sequencer& sequencer, UniformSource uniform = {},
                                      LoopCountOutput* loopCount = nullptr) {
  RegisterFlowControlCommands(sequencer, loopCount);
  RegisterDefineCommands(sequencer);
  RegisterChainCommands(sequencer);
  RegisterWaitCommands(sequencer);
  RegisterClockWaitCommands(sequencer, std::move(uniform));
  RegisterOperatorPanelCommands(sequencer);
  RegisterFileCommands(sequencer);
}

// The keywords of every family of the sequencer core, the port-bound ones
// (companion program, operator entry) included.
inline std::vector<KeywordEntry> SequencerKeywords() {
  std::vector<KeywordEntry> all;
  for (auto family :
       {FlowControlKeywords, DefineKeywords, ChainKeywords, WaitKeywords, ClockWaitKeywords,
        OperatorPanelKeywords, FileCommandKeywords, CompanionKeywords, OperatorEntryKeywords}) {
    for (auto& entry : family()) all.push_back(std::move(entry));
  }
  return all;
}

}  // namespace tavrix
