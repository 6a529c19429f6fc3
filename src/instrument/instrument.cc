#include "instrument/instrument.h"

#include "instrument/sim_rig.h"
#include "instrument/tcp_link.h"

namespace tavrix {

std::unique_ptr<LinkLibrary> MakeLinkLibrary(std::string_view linkSpec, const Clock& clock,
                                             const InstrumentSettings& settings,
                                             std::string* error) {
  if (linkSpec.empty() || linkSpec == kLinkSim) {
    return std::make_unique<SimLink>(clock, settings.dataRoot);
  }
  if (linkSpec.substr(0, kLinkTcpPrefix.size()) == kLinkTcpPrefix) {
    std::string host;
    uint16_t port = 0;
    if (!ParseHostPort(linkSpec.substr(kLinkTcpPrefix.size()), host, port)) {
      if (error) *error = "the link \"" + std::string(linkSpec) + "\" is not tcp://HOST:PORT";
      return nullptr;
    }
    return std::make_unique<TcpLink>(clock, host, port);
  }
  if (error) {
    *error = "unknown link \"" + std::string(linkSpec) + "\": use sim or tcp://HOST:PORT";
  }
  return nullptr;
}

Instrument::Instrument(EventLoop& events, Trace& trace, InstrumentSettings settings,
                       std::unique_ptr<LinkLibrary> backend)
    : events_(events),
      settings_(std::move(settings)),
      backend_(std::move(backend)),
      link_(*backend_, events, &trace),
      channels_(link_) {
  link_.noHardware = settings_.noHardware;
  link_.useReplyTimeout = settings_.useReplyTimeout;
  link_.replyTimeoutSecs = static_cast<int16_t>(settings_.replyTimeoutSecs);
  link_.pollInterval = settings_.replyPollInterval;
}

Instrument::~Instrument() {
  if (open_) link_.CloseLink();
}

std::unique_ptr<Instrument> Instrument::Create(EventLoop& events, Trace& trace,
                                               InstrumentSettings settings,
                                               std::string_view linkSpec, std::string* error) {
  auto backend = MakeLinkLibrary(linkSpec, events.clock(), settings, error);
  if (!backend) return nullptr;
  return std::make_unique<Instrument>(events, trace, std::move(settings), std::move(backend));
}

bool Instrument::ensureOpen() {
  if (open_ || link_.noHardware) return true;
  open_ = link_.OpenLink();
  return open_;
}

bool Instrument::selectSetupFile(std::string_view path) {
  if (open_) link_.CloseLink();
  open_ = false;
  events_.processPendingEvents();
  if (!ensureOpen()) return false;
  return channels_.LoadSetup(MapPath(path, settings_));
}

}  // namespace tavrix
