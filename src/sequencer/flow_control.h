// GOTO, STOP, NONSTOP, ABORTTEST, ENDTAVRIX and the loop counter commands.
#pragma once

namespace tavrix {

class Sequencer;

void RegisterFlowControlCommands(Sequencer& sequencer);

}  // namespace tavrix
