// WAITSECONDS with its delay timer, STARTTIMECOUNT and AFTERTIMECOUNT.
#pragma once

namespace tavrix {

class Sequencer;

void RegisterWaitCommands(Sequencer& sequencer);

}  // namespace tavrix
