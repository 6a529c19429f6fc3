// WAITSECONDS with its delay timer, STARTTIMECOUNT and AFTERTIMECOUNT.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

std::vector<KeywordEntry> WaitKeywords();

void RegisterWaitCommands(Sequencer& sequencer);

}  // namespace tavrix
