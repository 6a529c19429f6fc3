// The simulated rig's devices 0-99: channels, offsets, error reports,
// alarms, monitor channels and the faults of real devices (replies that are
// slow or not ready, devices that never answer), driven by commands stamped
// with the run's time, so that the same model answers in process
// (sim_link.h) and over TCP (the rig server).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/name_index.h"
#include "instrument/link/link_library.h"
#include "instrument/simrig/rig_setup.h"

namespace tavrix {

// Error reports of the simulated devices (the answer to "REP").
namespace rig_error {
inline constexpr int kBadCommand = 11;
inline constexpr int kBadChannel = 12;
inline constexpr int kBadSetting = 13;
inline constexpr int kNotMonitor = 14;
inline constexpr int kDisabled = 15;
}  // namespace rig_error

// A result of the simulated link that no real exchange gives: a reply was
// asked for although no command was sent.
inline constexpr int32_t kRigNothingToFetch = 34;

// The version texts and number that the simulated libraries report.
inline constexpr std::string_view kRigInterfaceVersion = "TAVRIX simulated IML interface 1.0";
inline constexpr std::string_view kRigSetupLibVersion = "TAVRIX simulated setup library 6.0";
inline constexpr int32_t kRigSetupLibVersionNumber = 6;

// A number as the simulated devices write it: ten significant digits, as
// "%.10g" writes them.
std::string RigNumberText(double value);

class RigModel {
 public:
  void load(RigSetup setup);
  const std::string& setupName() const { return setup_.name; }
  bool loaded() const { return loaded_; }

  // Link-level exchange with a device at the run's time `now`.
  // send: 0 accepted, 17 the device takes no command, 33 no such device.
  int32_t send(int device, std::string_view command, Micros now);
  // reply: 0 with `text`, 17 not ready, 34 nothing was sent.
  int32_t reply(int device, Micros now, std::string& text);
  void abort(int device);
  // Whether the reply to the last command is ready without a further poll.
  bool replyReadyNow(int device, Micros now) const;
  // 0 and the new channel number, or 59 (not the loaded setup) or 76.
  int32_t requestMonitor(std::string_view setupName, int device, int16_t& channelNumber);

  // A command and its reply as one call, when the device answers at once
  // and the exchange goes through (see DirectExchanges); false with nothing
  // changed otherwise. readNow: "REA <name>", with the channel's reading
  // and the number its reply's text reads as. writeNow: "WRI <name>
  // <value>" followed by "REP".
  bool readNow(int device, std::string_view name, DirectHint& hint, Micros now, double& raw,
               double& value);
  bool writeNow(int device, std::string_view name, std::string_view value, DirectHint& hint,
                Micros now);

  // What a device answers to one command (executed at once).
  std::string execute(int device, std::string_view command, Micros now);
  // A channel's reading at `now` (raw value plus jitter plus offset).
  double reading(const SimChannel& channel, Micros now);
  SimChannel* find(int device, std::string_view nameOrHardware);
  SimChannel* findAnyDevice(std::string_view name);

 private:
  struct DeviceState {
    bool replyPending = false;
    std::string reply;
    int pollsLeft = 0;
    Micros readyAt = 0;
    std::string report = "0";
  };
  void advance(Micros now);
  // Any change of the channels or of a name.
  void tableChanged();
  bool answersAtOnce(int device) const;
  SimChannel* findHinted(int device, std::string_view name, DirectHint& hint);
  // What a command and the fetch of its reply leave when the command went
  // through.
  static void answered(DeviceState& state, Micros now);
  double followTarget(const SimChannel& channel);
  std::string fail(DeviceState& state, int code, std::string_view text);
  // Sets the error report to "0" (no error).
  static void reportOk(DeviceState& state);
  bool define(SimChannel& channel, std::string_view settings);
  std::string activeAlarms(int device, Micros now, int& count);
  // The answer to "ALA T" (how many alarms are active) or "ALA N" (their
  // names).
  std::string alarmAnswer(DeviceState& state, int device, std::string_view what, Micros now);

  // Channels by name and by hardware text, in table order; rebuilt after
  // any change of the table or of a name. Calls visit(position) for each
  // channel of that name or hardware text until it returns true.
  template <class Visit>
  bool visitIndexed(std::string_view key, Visit&& visit);
  NameIndex index_;
  bool indexValid_ = false;
  // Unique to the process; 0 before the first setup.
  uint64_t generation_ = 0;

  RigSetup setup_;
  bool loaded_ = false;
  std::array<DeviceState, 100> state_{};
  Micros lastAdvance_ = 0;
  bool anyFollow_ = false;
};

}  // namespace tavrix
