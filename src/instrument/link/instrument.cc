#include "instrument/link/instrument.h"

namespace tavrix {

Instrument::Instrument(EventLoop& events, Trace& trace, InstrumentSettings settings,
                       std::unique_ptr<LinkLibrary> backend, const PathMap& paths)
    : events_(events),
      settings_(std::move(settings)),
      paths_(paths),
      backend_(std::move(backend)),
      link_(*backend_, events, &trace,
            LinkOptions{.noHardware = settings_.noHardware,
                        .useReplyTimeout = settings_.useReplyTimeout,
                        .replyTimeoutSecs = static_cast<int16_t>(settings_.replyTimeoutSecs),
                        .pollInterval = settings_.replyPollInterval}),
      channels_(link_) {}

Instrument::~Instrument() {
  if (open_) link_.CloseLink();
}

bool Instrument::ensureOpen() {
  if (open_ || link_.noHardware()) return true;
  open_ = link_.OpenLink();
  // A library that brings its own channel table (an I/O map) loads it with
  // the link, unless a setup was loaded already.
  if (open_ && link_.setupName().empty() && !backend_->ownSetup().empty()) {
    open_ = channels_.LoadSetup(backend_->ownSetup());
    if (!open_) link_.CloseLink();
  }
  return open_;
}

bool Instrument::selectSetupFile(std::string_view path) {
  if (open_) link_.CloseLink();
  open_ = false;
  events_.processPendingEvents();
  setupFile_ = path;
  if (!ensureOpen()) return false;
  return channels_.LoadSetup(paths_.toLocal(path));
}

bool Instrument::writeOutput(std::string_view channel, std::string_view value) {
  lastOutputStatus_ = channels_.WriteChannel(channel, value);
  if (lastOutputStatus_ && outputWatcher_) outputWatcher_(channel, value);
  return lastOutputStatus_;
}

}  // namespace tavrix
