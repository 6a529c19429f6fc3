#include "resultsdb/station_status.h"

#include <cstdlib>

namespace tavrix {

bool PublishStationStatus(SqlResultsStore& store, const StationStatus& status, std::string* error) {
  return store.connection().exec(
      "INSERT INTO station_status (station, runs, heartbeat) VALUES ($1, $2, $3) ON CONFLICT "
      "(station) DO UPDATE SET runs = excluded.runs, heartbeat = excluded.heartbeat",
      {status.station, status.runs, std::to_string(status.heartbeat)}, nullptr, nullptr, error);
}

bool ReadStationStatus(SqlResultsStore& store, std::vector<StationStatus>& out,
                       std::string* error) {
  SqlRows rows;
  if (!store.connection().exec("SELECT station, runs, heartbeat FROM station_status ORDER BY "
                               "station",
                               {}, &rows, nullptr, error)) {
    return false;
  }
  out.clear();
  for (const auto& row : rows) out.push_back({row[0], row[1], std::atoll(row[2].c_str())});
  return true;
}

}  // namespace tavrix
