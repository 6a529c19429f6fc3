// The stations of a plant in its store: each running station publishes what
// it runs every few seconds, so one page can watch every station through
// the store alone, without a message hub of its own.
#pragma once

#include <string>
#include <vector>

#include "resultsdb/results_store.h"

namespace tavrix {

// A station that has not published for this long is offline.
inline constexpr long long kStationOfflineSeconds = 30;

struct StationStatus {
  std::string station;
  std::string runs;         // JSON: an array of the station's runs
  long long heartbeat = 0;  // when it last published, seconds since 1970
};

// Writes the station's status over its last one.
bool PublishStationStatus(SqlResultsStore& store, const StationStatus& status, std::string* error);
// Every station's last status, by name.
bool ReadStationStatus(SqlResultsStore& store, std::vector<StationStatus>& out, std::string* error);

}  // namespace tavrix
