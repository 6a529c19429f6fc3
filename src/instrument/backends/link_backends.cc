#include "instrument/backends/link_backends.h"

#include "instrument/dll/dll_link.h"
#include "instrument/iomap/map_link.h"
#include "instrument/simrig/sim_link.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/tcp_link.h"

namespace tavrix {

std::unique_ptr<LinkLibrary> MakeLinkLibrary(std::string_view linkSpec, const Clock& clock,
                                             const InstrumentSettings& settings,
                                             const FileSystem& files, std::string* error) {
  if (linkSpec.empty() || linkSpec == kLinkSim) {
    return std::make_unique<SimLink>(clock, settings.dataRoot, files);
  }
  if (linkSpec.substr(0, kLinkTcpPrefix.size()) == kLinkTcpPrefix) {
    std::string host;
    uint16_t port = 0;
    if (!ParseHostPort(linkSpec.substr(kLinkTcpPrefix.size()), host, port)) {
      if (error) *error = "the link \"" + std::string(linkSpec) + "\" is not tcp://HOST:PORT";
      return nullptr;
    }
    auto link = std::make_unique<TcpLink>(clock, host, port, files);
    if (!settings.linkKeyFile.empty()) {
      std::string key;
      std::string why;
      if (!LoadLinkKey(files, settings.linkKeyFile, key, &why)) {
        if (error) *error = why;
        return nullptr;
      }
      link->setKey(std::move(key));
    }
    return link;
  }
  if (linkSpec == kLinkMap || linkSpec.substr(0, kLinkMapPrefix.size()) == kLinkMapPrefix) {
    return MakeMapLink(linkSpec, settings.ioMap, clock, files, error);
  }
  if (linkSpec == kLinkDll) {
    std::string why;
    auto link = MakeDllLink(settings, files, &why);
    if (!link && error) *error = why;
    return link;
  }
  if (error) {
    *error =
        "unknown link \"" + std::string(linkSpec) + "\": use sim, dll, tcp://HOST:PORT or map:FILE";
  }
  return nullptr;
}

std::unique_ptr<Instrument> MakeInstrument(EventLoop& events, Trace& trace,
                                           InstrumentSettings settings, std::string_view linkSpec,
                                           const FileSystem& files, const PathMap& paths,
                                           std::string* error) {
  auto backend = MakeLinkLibrary(linkSpec, events.clock(), settings, files, error);
  if (!backend) return nullptr;
  return std::make_unique<Instrument>(events, trace, std::move(settings), std::move(backend),
                                      paths);
}

}  // namespace tavrix
