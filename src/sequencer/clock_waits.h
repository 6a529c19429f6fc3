// WAITRANDOM, WAITTIMEOFDAY and WAITDATETIME: waits for a random length, a
// time of day and a date and time.
#pragma once

#include <functional>
#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

// Where WAITRANDOM's lengths come from: each call a number drawn evenly from
// [0, 1). The wait is low + (high - low) x the draw.
using UniformSource = std::function<double()>;

// A source seeded from the system's entropy.
UniformSource SystemUniformSource();

std::vector<KeywordEntry> ClockWaitKeywords();
// Without a source, WAITRANDOM draws from SystemUniformSource().
void RegisterClockWaitCommands(Sequencer& sequencer, UniformSource uniform = {});

}  // namespace tavrix
