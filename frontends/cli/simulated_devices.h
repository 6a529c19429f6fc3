// `tavrix-cli rig --simulate modbus|scpi --listen HOST:PORT`: serves one of
// the simulated devices of the tests (an oven over Modbus TCP, a power
// supply over SCPI) so that the I/O map examples run without hardware.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

namespace tavrix {

// Serves until `stop` (when given) becomes true or the console asks the
// program to stop; returns the exit status.
int ServeSimulatedDevice(const std::string& kind, const std::string& listen, std::FILE* out,
                         std::FILE* err, const std::atomic<bool>* stop);

}  // namespace tavrix
