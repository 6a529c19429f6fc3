#include "station_rig.h"

#include "instrument/backends/link_backends.h"
#include "resultsdb/uut_capture.h"

namespace tavrix {

std::unique_ptr<StationRig> StationRig::Open(const Station& station,
                                             const InstrumentSettings& settings,
                                             const FileSystem& files, StationTime* time,
                                             std::string* error) {
  std::unique_ptr<StationRig> rig(new StationRig(station, time));
  if (time != nullptr) {
    rig->rigClock_ = time->sharedClock();
  } else {
    rig->rigClock_ = std::make_unique<SystemClock>();
  }
  if (station.link == kLinkSim) {
    auto sim = MakeLinkLibrary(station.link, *rig->rigClock_, settings, files, error);
    if (!sim) return nullptr;
    rig->simRig_ = std::make_unique<SharedBackend>(std::move(sim));
  }
  return rig;
}

void StationRig::configure(size_t index, EngineConfig& config) {
  if (time_ != nullptr) {
    config.clock = time_->clockFor(index);
  } else {
    config.clock = std::make_unique<SystemClock>();
  }
  config.link = station_.linkOf(station_.sockets[index]);
  const int id = static_cast<int>(index);
  config.linkFactory = [this, id](std::string_view spec, const Clock& clock,
                                  const InstrumentSettings& settings, const FileSystem& files,
                                  std::string* why) -> std::unique_ptr<LinkLibrary> {
    if (simRig_) return std::make_unique<SocketLink>(id, gate_, *simRig_);
    auto own = MakeLinkLibrary(spec, clock, settings, files, why);
    if (!own) return nullptr;
    return std::make_unique<SocketLink>(id, gate_, setup_, std::move(own));
  };
  config.channelMap = SocketChannelMap(station_, index);
}

std::string SocketRecordName(const Station& station, const StationSocket& socket) {
  return (station.name.empty() ? DefaultStationName() : station.name) + "/" + socket.name;
}

}  // namespace tavrix
