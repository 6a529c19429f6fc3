// The file commands (COPYFILE, FILEDELETE, LOGONCE) and the recorder wait
// (WAIT580).
#pragma once

namespace tavrix {

class Sequencer;

void RegisterFileCommands(Sequencer& sequencer);

}  // namespace tavrix
