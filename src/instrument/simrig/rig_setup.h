// A simulated rig's setup: its devices and their channels, read from a setup
// file (".ims"; the format is described in docs/simulated-rig.md). The
// model (rig_model.h) runs them; a channel's settings here are the ones a
// device's DEF command changes.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

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
                   std::string* error);
// Reads the file at `path` (false with a message when it cannot be read).
bool LoadRigSetupFile(const FileSystem& files, const std::string& path, RigSetup& setup,
                      std::string* error);
// Applies blank-separated KEY=VALUE settings to `channel` in turn; returns
// the reason the first one that cannot be applied fails, or "" when all are.
std::string ApplyChannelSettings(SimChannel& channel, std::string_view settings);

}  // namespace tavrix
