// WAITRANDOM, WAITTIMEOFDAY and WAITDATETIME: waits for a random length, a
// time of day and a date and time.
#pragma once

namespace tavrix {

class Sequencer;

void RegisterClockWaitCommands(Sequencer& sequencer);

}  // namespace tavrix
