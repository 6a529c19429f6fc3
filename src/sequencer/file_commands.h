// The file commands (COPYFILE, FILEDELETE, LOGONCE) and the recorder wait
// (WAIT580).
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

std::vector<KeywordEntry> FileCommandKeywords();

void RegisterFileCommands(Sequencer& sequencer);

}  // namespace tavrix
