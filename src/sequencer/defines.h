// The define table (EXECUTEDEFINE) and the sequence time-out (ONTIMEOUT).
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

std::vector<KeywordEntry> DefineKeywords();

void RegisterDefineCommands(Sequencer& sequencer);

}  // namespace tavrix
