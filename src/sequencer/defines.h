// The define table (EXECUTEDEFINE) and the sequence time-out (ONTIMEOUT).
#pragma once

namespace tavrix {

class Sequencer;

void RegisterDefineCommands(Sequencer& sequencer);

}  // namespace tavrix
