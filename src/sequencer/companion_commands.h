// The companion-program commands: DDE executes and pokes, key strokes,
// program starts, the streamer, and ICONISE.
#pragma once

namespace tavrix {

class Sequencer;
class Companion;

// ICONISE, APPLOAD, SENDKEYS, LINKPOKE, LINKEXECUTE, STARTSTREAMER and
// WAITSTREAMER, through `companion` (which must outlive the sequencer).
void RegisterCompanionCommands(Sequencer& sequencer, Companion& companion);

}  // namespace tavrix
