// One device of an I/O map as the map link's device thread talks to it: a
// Modbus module (modbus_device.h) or an SCPI instrument (scpi_device.h).
// Every call blocks for at most the device's time-out and runs on the
// device's own thread, never on the run's.
#pragma once

#include <memory>
#include <string>

#include "instrument/iomap/io_map.h"

namespace tavrix {

class DeviceIo {
 public:
  enum class Status {
    kOk,
    // The device answered with an error of its own (a Modbus exception, an
    // SCPI error in its queue); `text` says which.
    kDeviceError,
    // Nothing usable came: no connection, no answer in time, the
    // connection reset, or bytes that are not a reply. The device is asked
    // again after a new connection; `text` says what happened.
    kNoAnswer,
  };

  virtual ~DeviceIo() = default;
  // Connects (or reconnects); false with the reason in `problem`.
  virtual bool connect(std::string& problem) = 0;
  virtual void disconnect() = 0;
  virtual bool connected() const = 0;
  virtual Status read(const MapChannel& channel, double& value, std::string& text) = 0;
  virtual Status write(const MapChannel& channel, double value, std::string& text) = 0;
  // What the device says it is, asked once after connecting ("" when the
  // protocol has no such question).
  virtual std::string identity() const { return {}; }
  // From another thread: ends an exchange in progress at once (it fails
  // with kNoAnswer); the link is closing.
  virtual void interrupt() {}
};

// The device that `device` of the map describes (Modbus or SCPI); nullptr
// with a reason when this build cannot reach it.
std::unique_ptr<DeviceIo> MakeDeviceIo(const MapDevice& device, std::string* why);

}  // namespace tavrix
