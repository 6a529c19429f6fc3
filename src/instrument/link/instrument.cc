#include "instrument/link/instrument.h"


namespace tavrix {

Instrument::Instrument(EventLoop& events, Trace& trace, InstrumentSettings settings,
                       std::unique_ptr<LinkLibrary> backend, const PathMap& paths)
    : events_(events),
      settings_(std::move(settings)),
      paths_(paths),
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
  return channels_.LoadSetup(paths_.toLocal(path));
}

}  // namespace tavrix
