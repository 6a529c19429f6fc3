// CHAIN and RETURN: a sequence continues in another file and comes back.
#pragma once

namespace tavrix {

class Sequencer;

void RegisterChainCommands(Sequencer& sequencer);

}  // namespace tavrix
