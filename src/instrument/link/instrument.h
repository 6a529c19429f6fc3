// The instrument subsystem of one engine: the link library backend, the IML
// link over it, the channel table and the module-wide settings. Which backend
// a link spec names is decided outside this layer (instrument/backends), so
// that a program links only the backends it uses.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/trace.h"
#include "instrument/link/channels.h"
#include "instrument/link/iml_link.h"
#include "instrument/link/instrument_settings.h"
#include "instrument/link/link_library.h"

namespace tavrix {

class Instrument {
 public:
  // `paths` is the run's drive map, through which setup files are found.
  Instrument(EventLoop& events, Trace& trace, InstrumentSettings settings,
             std::unique_ptr<LinkLibrary> backend, const PathMap& paths);
  ~Instrument();
  Instrument(const Instrument&) = delete;
  Instrument& operator=(const Instrument&) = delete;

  LinkLibrary& backend() { return *backend_; }
  ImlLink& link() { return link_; }
  Channels& channels() { return channels_; }
  const InstrumentSettings& settings() const { return settings_; }
  EventLoop& events() { return events_; }

  // Opens the link unless it is open already (or there is no hardware).
  bool ensureOpen();
  bool isOpen() const { return open_; }
  // What choosing a setup file does: close the link, let events run, open it
  // again and load the setup. `path` is written as in sequence files and is
  // mapped through the drive map. On failure the link's last error tells why.
  bool selectSetupFile(std::string_view path);
  // The setup file chosen last, as written (empty: none was chosen).
  const std::string& setupFile() const { return setupFile_; }

  // Writes one value of a ramp, a sine output or a pulse, and remembers
  // whether it went through (lastOutputStatus()). False with the link's last
  // error set when it did not.
  bool writeOutput(std::string_view channel, std::string_view value);
  bool lastOutputStatus() const { return lastOutputStatus_; }
  // Called with each output value that went through (the engine publishes
  // it as a run event).
  using OutputWatcher = std::function<void(std::string_view channel, std::string_view value)>;
  void watchOutputs(OutputWatcher watcher) { outputWatcher_ = std::move(watcher); }

  // A WAIT on a condition compared after `seconds` of waiting.
  void recordWaitDuration(float seconds) { lastWaitDuration_ = seconds; }
  // How long the last WAIT on a condition had waited when it last compared,
  // in seconds.
  float lastWaitDuration() const { return lastWaitDuration_; }

 private:
  EventLoop& events_;
  InstrumentSettings settings_;
  const PathMap& paths_;
  std::unique_ptr<LinkLibrary> backend_;
  ImlLink link_;
  Channels channels_;
  bool open_ = false;
  float lastWaitDuration_ = 0;
  bool lastOutputStatus_ = true;
  OutputWatcher outputWatcher_;
  std::string setupFile_;
};

}  // namespace tavrix
