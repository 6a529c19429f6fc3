// The operator entry commands: ENTERSEND, SELECTMENU, DOWITHSHOW and
// MANUALADJUST.
#pragma once

namespace tavrix {

class Sequencer;
class ChannelAccess;

// Without `channels` (nullptr) the commands that touch a channel report that
// they are not available.
void RegisterOperatorEntryCommands(Sequencer& sequencer, ChannelAccess* channels);

}  // namespace tavrix
