// The simulated rig: acquisition devices 0-99 with channels, offsets, error
// reports, alarms, monitor channels and the faults of real devices (replies
// that are slow or not ready, devices that never answer). RigModel is the
// devices themselves, driven by commands stamped with the run's time, so the
// same model answers in process (SimLink) and over TCP (rig_server). The
// setup file format is described in docs/simulated-rig.md.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/clock.h"
#include "common/file_system.h"
#include "common/name_index.h"
#include "instrument/link/link_library.h"

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

struct SimChannel {
  int device = 0;
  int number = 0;
  std::string hardwareText;  // device, then the four-digit channel number
  // Settings the device reports with "SHO".
  std::string enabled = "1";
  std::string mode = "A";
  std::string name;
  std::string units;
  double offset = 0;
  // Simulation.
  double value = 0;  // raw value
  std::string follow;
  double lag = 0;
  double gain = 1;
  double bias = 0;  // added to the followed value times the gain
  double jitter = 0;
  std::optional<double> high;
  std::optional<double> low;
  std::string tag;
  std::string escape;  // the last ESC settings
  bool monitor = false;
};

struct SimDeviceConfig {
  bool present = false;
  int notReadyPolls = 0;  // NOTREADY=
  int latencyMs = 0;      // LATENCY=
  bool silent = false;    // SILENT=1
  int monitors = 4;       // MONITORS=
};

struct RigSetup {
  std::string name;  // the setup name (file name without folder and extension)
  std::vector<SimChannel> channels;
  std::array<SimDeviceConfig, 100> devices{};
  std::string summary;  // the channel and device lines, CR LF ended
};

// Reads a rig setup file's text. `fileName` names the file in messages. On a
// line that cannot be read returns false with "FILE line N: reason".
bool ParseRigSetup(std::string_view text, std::string_view fileName, RigSetup& setup,
                   std::string& error);
// Reads the file at `path` (false with a message when it cannot be read).
bool LoadRigSetupFile(const FileSystem& files, const std::string& path, RigSetup& setup,
                      std::string& error);

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

// The in-process rig behind the link library port, on the run's clock.
class SimLink final : public LinkLibrary, public DirectExchanges {
 public:
  // `files` holds the setup files and the data folder `dirPath`.
  SimLink(const Clock& clock, std::string dirPath, const FileSystem& files);
  RigModel& model() { return model_; }

  int32_t openInterface(int16_t& handle) override;
  int32_t closeInterface(int16_t handle) override;
  int32_t interfaceVersion(int16_t handle, std::string& text) override;
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command, bool wait) override;
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override;
  bool writesOnlyTheReply() const override { return true; }
  DirectExchanges* direct() override { return open_ ? this : nullptr; }
  bool readNumber(int16_t device, std::string_view name, DirectHint& hint, double& value,
                  std::string* text) override;
  bool writeChecked(int16_t device, std::string_view name, std::string_view value,
                    DirectHint& hint) override;
  std::string lastReadText() const override;
  int32_t abortReply(int16_t handle, int16_t device) override;
  int32_t millisecondCount() override;
  int32_t dirPath(std::string& path) override;
  int32_t setupLibVersion(std::string& text) override;
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override;
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override;
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override;

 private:
  const Clock& clock_;
  const FileSystem& files_;
  std::string dirPath_;
  RigModel model_;
  bool open_ = false;
  std::string reply_;
  double lastRead_ = 0;  // the raw reading of the last readNumber
};

// The version texts and number that the simulated libraries report.
inline constexpr std::string_view kRigInterfaceVersion = "TAVRIX simulated IML interface 1.0";
inline constexpr std::string_view kRigSetupLibVersion = "TAVRIX simulated setup library 6.0";
inline constexpr int32_t kRigSetupLibVersionNumber = 6;

}  // namespace tavrix
