// The running program: the machine it runs on and its threads' standing.
#pragma once

#include <string>

namespace tavrix::platform {

// The machine's network name; empty when the system will not say.
std::string hostName();
// Lets every other thread of the program go first when the cores are busy:
// for background work that must not delay the run's timed waits.
void lowerThisThreadPriority();
// Seconds of CPU the program has used, in user and system mode together.
double cpuSeconds();
// The bytes of memory the program holds in RAM; -1 when unknown.
long long residentBytes();

}  // namespace tavrix::platform
