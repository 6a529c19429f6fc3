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

// `files`: the run's file system (the machine's, below defaultDataRoot(),
// when none is given). Problems of the results store's journal are written
// to standard error; the run goes on.
// `link`: the link specification, as tavrix-cli run's --link takes it.
std::unique_ptr<Engine> MakeWindowEngine(Operator& op, std::unique_ptr<FileSystem> files = nullptr,
                                         InstrumentSettings settings = {},
                                         const std::string& link = "sim");

}  // namespace tavrix
