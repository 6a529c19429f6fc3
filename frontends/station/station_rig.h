// What the test sockets of a station share while they run, and how each
// socket's engine is built on it: the station's clock, the gate of the rig's
// devices, the setup loaded once, and the simulated rig that is one for all.
// tavrix-cli run --station and the window build their sockets' engines
// through it.
#pragma once

#include <memory>
#include <string>

#include "engine/engine_config.h"
#include "instrument/link/instrument_settings.h"
#include "station_file.h"
#include "station_link.h"
#include "station_time.h"

namespace tavrix {

class StationRig {
 public:
  // `time`: the sockets' common virtual clock, or null for the system's
  // clock. Null with a message when the simulated rig cannot be made.
  static std::unique_ptr<StationRig> Open(const Station& station,
                                          const InstrumentSettings& settings,
                                          const FileSystem& files, StationTime* time,
                                          std::string* error);
  StationRig(const StationRig&) = delete;
  StationRig& operator=(const StationRig&) = delete;

  // Fills in socket `index`'s part of an engine's config: its clock, the
  // link it reaches the rig by (through the gate; the simulated rig is the
  // one of the station) and its channel mapping.
  void configure(size_t index, EngineConfig& config);
  StationTime* time() const { return time_; }

 private:
  StationRig(const Station& station, StationTime* time) : station_(station), time_(time) {}

  const Station& station_;
  StationTime* time_;
  std::unique_ptr<Clock> rigClock_;
  DeviceGate gate_;
  SetupOnce setup_;
  std::unique_ptr<SharedBackend> simRig_;
};

// The name a socket's units are recorded under: "STATION/SOCKET", the
// station's name being the host's when the file names none.
std::string SocketRecordName(const Station& station, const StationSocket& socket);

}  // namespace tavrix
