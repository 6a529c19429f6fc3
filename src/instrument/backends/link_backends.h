// The link library backends a link spec can name: "sim" (or nothing) for the
// simulated rig built into the program, "tcp://HOST:PORT" for a rig server,
// "dll" for the rig PC's own link libraries (Windows), "map:FILE" (or "map"
// with the settings' io_map) for the Modbus and SCPI devices of an I/O map.
// Programs that offer every backend link this library; the engine alone
// knows only the simulated rig.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/trace.h"
#include "instrument/link/instrument.h"
#include "instrument/link/instrument_settings.h"
#include "instrument/link/link_library.h"

namespace tavrix {

inline constexpr std::string_view kLinkSim = "sim";
inline constexpr std::string_view kLinkTcpPrefix = "tcp://";

// The backend that a link spec names, or nullptr with a message.
// Setup files are read through `files`.
std::unique_ptr<LinkLibrary> MakeLinkLibrary(std::string_view linkSpec, const Clock& clock,
                                             const InstrumentSettings& settings,
                                             const FileSystem& files, std::string* error);

// An instrument over the backend that `linkSpec` names; nullptr with a
// message for a link that names none.
std::unique_ptr<Instrument> MakeInstrument(EventLoop& events, Trace& trace,
                                           InstrumentSettings settings, std::string_view linkSpec,
                                           const FileSystem& files, const PathMap& paths,
                                           std::string* error);

}  // namespace tavrix
