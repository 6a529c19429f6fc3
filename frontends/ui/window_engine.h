// The engine the window runs: the simulated rig until a setup names
// hardware, the companion programs of this computer where it has them
// (Windows), and the results store fed as tavrix-cli run feeds it - the
// database file in the data root unless the settings name another store,
// the same journal, this computer's name as the station.
#pragma once

#include <memory>
#include <string>

#include "engine/engine.h"

namespace tavrix {

// The run's files are this computer's, below `dataRoot` (which the
// program's main decides). Problems of the link and of the results store's
// journal are written to standard error; the window opens all the same,
// without an instrument when its link names no backend.
// `link`: the link specification, as tavrix-cli run's --link takes it.
std::unique_ptr<Engine> MakeWindowEngine(Operator& op, const std::string& dataRoot,
                                         InstrumentSettings settings = {},
                                         const std::string& link = "sim");

}  // namespace tavrix
