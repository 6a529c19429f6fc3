// The operator message panel (CONTINUEOK, ENTEROKCANCEL), the error display
// switch and the help text section.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

std::vector<KeywordEntry> OperatorPanelKeywords();

void RegisterOperatorPanelCommands(Sequencer& sequencer);

}  // namespace tavrix
