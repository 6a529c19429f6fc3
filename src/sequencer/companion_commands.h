// The companion-program commands: DDE executes and pokes, key strokes,
// program starts, the streamer, and ICONISE.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

std::vector<KeywordEntry> CompanionKeywords();
class Companion;

// ICONISE, APPLOAD, SENDKEYS, LINKPOKE, LINKEXECUTE, STARTSTREAMER and
// WAITSTREAMER, through `companion` (which must outlive the sequencer).
void RegisterCompanionCommands(Sequencer& sequencer, Companion& companion);

}  // namespace tavrix
