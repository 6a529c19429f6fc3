// CHAIN and RETURN: a sequence continues in another file and comes back.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

std::vector<KeywordEntry> ChainKeywords();

void RegisterChainCommands(Sequencer& sequencer);

}  // namespace tavrix
