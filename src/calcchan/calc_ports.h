// What the calculated channels need from the rest of the program, injected so
// that the cycle is tested against a fake rig and the engine connects the real
// one: channel reads and writes by name, message boxes, the companion
// programs' DDE execute, and the resolution of file specifications.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/file_system.h"
#include "instrument/link/channels.h"

namespace tavrix {

class Channels;
class Instrument;
class Trace;

// Reading and writing channels by name.
class CalcChannelPort {
 public:
  virtual ~CalcChannelPort() = default;
  // The channel's value as text; false (with `value` holding a text that
  // contains "ERROR") when it cannot be read.
  virtual bool read(std::string_view name, std::string& value) = 0;
  // False when the channel does not exist or is not enabled.
  virtual bool write(std::string_view name, std::string_view value) = 0;
  // The same for a channel read or written on every pass: `ref` keeps the
  // port's lookup of `name` (always the same name) from one call to the next.
  virtual bool read(std::string_view name, std::string& value, ChannelRef& /*ref*/) {
    return read(name, value);
  }
  virtual bool write(std::string_view name, std::string_view value, ChannelRef& /*ref*/) {
    return write(name, value);
  }
  // A read that may give the number alone (see ChannelReading); a port
  // without that gives the text.
  virtual bool read(std::string_view name, ChannelReading& reading, ChannelRef& ref) {
    reading.isNumber = false;
    return read(name, reading.text, ref);
  }
  virtual bool read(std::string_view name, ChannelReading& reading) {
    reading.isNumber = false;
    return read(name, reading.text);
  }
};

// The channel operations of an Instrument; the link is opened on first use.
class InstrumentChannelPort final : public CalcChannelPort {
 public:
  explicit InstrumentChannelPort(Instrument& instrument) : instrument_(instrument) {}
  bool read(std::string_view name, std::string& value) override;
  bool write(std::string_view name, std::string_view value) override;
  bool read(std::string_view name, std::string& value, ChannelRef& ref) override;
  bool write(std::string_view name, std::string_view value, ChannelRef& ref) override;
  bool read(std::string_view name, ChannelReading& reading, ChannelRef& ref) override;
  bool read(std::string_view name, ChannelReading& reading) override;

 private:
  bool readInto(std::string_view name, ChannelReading& reading, ChannelRef* ref);
  Instrument& instrument_;
};

// A DDE execute of `text` on link `topic` ("App|Topic") and `item`; false
// with a reason when it cannot be delivered.
using CompanionExecute = std::function<bool(std::string_view topic, std::string_view item,
                                            std::string_view text, std::string* error)>;

// A companion that delivers nothing and records each execute in the trace as
//   {"ev":"companion","kind":"execute","topic":...,"item":...,"text":...}
// used until the engine connects a companion port.
CompanionExecute TracingCompanion(Trace& trace);

struct CalcPorts {
  CalcChannelPort* channels = nullptr;
  // The door to the setup, waveform, summary and alarm files; the machine's
  // own when not given.
  FileSystem* files = nullptr;
  // Set by whoever builds the ports; every file goes through it.
  FileSystem& fileSystem() const { return *files; }
  // A message the operator acknowledges, after which work goes on.
  std::function<void(std::string_view)> showMessage;
  CompanionExecute companion;
  // A file specification as written in sequence and setup files
  // ("c:\corvane\data\x.wl") as a path of this computer.
  std::function<std::string(std::string_view)> resolvePath;
  // The instrument link's data folder and summary folder (Windows form).
  std::function<std::string()> dataFolder;
  std::function<std::string()> summaryFolder;
  // Asked before a channel for a value in an expression; by default declines.
  std::function<bool(std::string_view channel, double& value)> userValue;
};

}  // namespace tavrix
