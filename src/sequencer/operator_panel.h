// The operator message panel (CONTINUEOK, ENTEROKCANCEL), the error display
// switch and the help text section.
#pragma once

namespace tavrix {

class Sequencer;

void RegisterOperatorPanelCommands(Sequencer& sequencer);

}  // namespace tavrix
