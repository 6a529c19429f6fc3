// `tavrix-cli run --station FILE [SEQUENCE]`: every test socket of a station
// file (station_file.h) on an engine of its own, all at once, sharing the
// rig's link. On a virtual clock the sockets take turns on one clock
// (station_time.h), so a dry run is the same on every run; on the system's
// clock each runs freely on a thread of its own.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/host.h"
#include "run_command.h"

namespace tavrix {

// The worse of two exit statuses of sockets: 2, then 1 > 3 > 6 > 5 > 4 > 0.
int WorseExitStatus(int a, int b);

// Whether `--station VALUE` names a station file rather than the station's
// name in the UUT records: a value that ends in ".toml".
bool NamesStationFile(const std::string& value);

// Runs the station; the exit status is the worst of the sockets'. A station
// file that cannot be used is told on `err` with status 2 before anything
// runs.
int RunStation(const Host& host, const RunOptions& options, const std::string& stationFile,
               std::FILE* in, std::FILE* out, std::FILE* err);

// `tavrix-cli lint --station FILE [SEQUENCE]`: checks the station file as a
// run would before it starts anything (status 2 with the same message), then
// lints each socket's sequence once.
int LintStation(const Host& host, const std::string& stationFile,
                const std::vector<std::string>& sequences, std::FILE* out, std::FILE* err);

}  // namespace tavrix
