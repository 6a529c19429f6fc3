// A Modbus TCP server that simulates an oven, for the tests and the
// examples (tavrix-cli rig --simulate modbus): a heater output that the
// oven's temperature follows with a lag, on a clock it is given (the run's
// clock in tests, so a virtual run sees the oven warm in virtual time).
// It can be told to misbehave as real devices do: reset a connection in
// the middle of an exchange, send garbage, answer slowly, stop answering.
//
// The registers (addresses on the wire, 0-based):
//   holding registers 10-11  HEATER   float32, low word first, percent
//   input register 3         OVEN     int16, tenths of a degree C
//   coil 0                   FAN      on/off
//   discrete input 4         DOOR     1 while the door is closed
//   holding register 20-21   CYCLES   int32, high word first
// Everything else answers with exception 2 (illegal data address).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/clock.h"

namespace tavrix {

struct OvenModel {
  double ambient = 20;  // degrees C with the heater off
  double gain = 0.8;    // degrees per percent of heater, when settled
  double lagSeconds = 30;
};

class ModbusOvenServer {
 public:
  ModbusOvenServer(const Clock& clock, OvenModel model = {});
  ~ModbusOvenServer();
  ModbusOvenServer(const ModbusOvenServer&) = delete;
  ModbusOvenServer& operator=(const ModbusOvenServer&) = delete;

  // Listens on the IPv4 address `host` (port 0: a free one) and serves in a
  // thread of its own; false with a message.
  bool start(const std::string& host, uint16_t port, std::string* error);
  uint16_t port() const { return port_; }
  void stop();

  // --- Faults ---------------------------------------------------------------
  // The next request is read and the connection closed without a reply.
  void resetNextRequest() { resetNext_ = true; }
  // The next reply is bytes that are not Modbus.
  void garbageNextReply() { garbageNext_ = true; }
  // Every reply waits this long first (real time).
  void setReplyDelayMs(int ms) { delayMs_ = ms; }
  // Requests are read and never answered.
  void setSilent(bool silent) { silent_ = silent; }

  // --- What it saw ----------------------------------------------------------
  int64_t requests() const { return requests_; }
  int64_t writes() const { return writes_; }
  double heater() const;
  double temperature() const;
  bool fan() const;
  void setDoorClosed(bool closed);

 private:
  struct State;
  void serve();

  const Clock& clock_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  uint16_t port_ = 0;
  std::atomic<bool> quit_{false};
  std::atomic<bool> resetNext_{false};
  std::atomic<bool> garbageNext_{false};
  std::atomic<bool> silent_{false};
  std::atomic<int> delayMs_{0};
  std::atomic<int64_t> requests_{0};
  std::atomic<int64_t> writes_{0};
};

}  // namespace tavrix
