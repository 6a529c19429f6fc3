// The operator entry commands: ENTERSEND, SELECTMENU, DOWITHSHOW and
// MANUALADJUST.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class ChannelAccess;
class Sequencer;

std::vector<KeywordEntry> OperatorEntryKeywords();

// Without `channels` (nullptr) the commands that touch a channel report that
// they are not available.
void RegisterOperatorEntryCommands(Sequencer& sequencer, ChannelAccess* channels);

}  // namespace tavrix
