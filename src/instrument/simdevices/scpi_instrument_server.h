// An SCPI instrument simulator on a raw TCP socket, for the tests and the
// examples (tavrix-cli rig --simulate scpi): a power supply with a built-in
// meter and an error queue. Commands end with a line feed; queries are
// answered with one line.
//
//   *IDN?                 TAVRIX,SIM-PSU,0,1.0
//   *CLS                  empties the error queue
//   VOLT <v> / VOLT?      output voltage setting, 0 to 30 V
//   CURR <a> / CURR?      current limit, 0 to 5 A
//   OUTP ON|OFF / OUTP?   output on or off (1 or 0)
//   MEAS:VOLT?            the output voltage (0 while off)
//   MEAS:CURR?            the current into a 10 ohm load, at most the limit
//   SYST:ERR?             the oldest error, or 0,"No error"
// A setting out of range queues -222,"Data out of range"; an unknown
// command -113,"Undefined header"; a malformed number -104,"Data type error".
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace tavrix {

class ScpiInstrumentServer {
 public:
  ScpiInstrumentServer();
  ~ScpiInstrumentServer();
  ScpiInstrumentServer(const ScpiInstrumentServer&) = delete;
  ScpiInstrumentServer& operator=(const ScpiInstrumentServer&) = delete;

  // Listens on the IPv4 address `host` (port 0: a free one); false with a
  // message.
  bool start(const std::string& host, uint16_t port, std::string* error);
  uint16_t port() const { return port_; }
  void stop();

  // What one line of input makes the instrument answer ("" for none): the
  // instrument itself, without a socket.
  std::string handle(std::string_view line);

  // --- Faults ---------------------------------------------------------------
  void garbageNextReply() { garbageNext_ = true; }
  void resetNextQuery() { resetNext_ = true; }
  void setReplyDelayMs(int ms) { delayMs_ = ms; }
  void setSilent(bool silent) { silent_ = silent; }
  // Puts an error in the queue, as a fault of the instrument's own would.
  void queueError(std::string entry);

  // --- What it saw ----------------------------------------------------------
  double voltage() const;
  bool outputOn() const;
  int64_t commands() const { return commands_; }

 private:
  struct State;
  void serve();

  std::unique_ptr<State> state_;
  std::thread thread_;
  uint16_t port_ = 0;
  std::atomic<bool> quit_{false};
  std::atomic<bool> garbageNext_{false};
  std::atomic<bool> resetNext_{false};
  std::atomic<bool> silent_{false};
  std::atomic<int> delayMs_{0};
  std::atomic<int64_t> commands_{0};
};

}  // namespace tavrix
