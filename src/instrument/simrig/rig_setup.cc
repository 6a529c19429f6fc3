#include "instrument/simrig/rig_setup.h"

#include <cmath>
#include <cstdlib>

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/text_items.h"
#include "instrument/link/link_library.h"

namespace tavrix {
namespace {

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> out;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    size_t j = i;
    while (j < text.size() && text[j] != ' ' && text[j] != '\t') ++j;
    if (j > i) out.push_back(text.substr(i, j - i));
    i = j;
  }
  return out;
}

bool parseNumber(std::string_view text, double& out) {
  if (text.empty()) return false;
  std::string s(text);
  char* end = nullptr;
  out = std::strtod(s.c_str(), &end);
  return end != s.c_str() && *end == '\0' && std::isfinite(out);
}

bool parseInt(std::string_view text, int& out) {
  if (text.empty() || text.size() > 9) return false;
  int v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  out = v;
  return true;
}

// Applies one KEY=VALUE setting; returns a reason when it cannot.
std::string applySetting(SimChannel& channel, std::string_view token) {
  const size_t eq = token.find('=');
  if (eq == std::string_view::npos || eq == 0) {
    std::string reason(1, '"');
    reason.append(token).append("\" is not a KEY=VALUE field");
    return reason;
  }
  const std::string_view key = token.substr(0, eq);
  const std::string_view value = token.substr(eq + 1);
  auto number = [&](double& out) -> std::string {
    if (!parseNumber(value, out)) return "the value of " + std::string(key) + "= is not a number";
    return {};
  };
  double n = 0;
  if (key == "E") {
    if (auto e = number(n); !e.empty()) return e;
    channel.enabled = std::string(value);
  } else if (key == "M") {
    channel.mode = std::string(value);
  } else if (key == "N") {
    channel.name = std::string(value);
  } else if (key == "U") {
    channel.units = std::string(value);
  } else if (key == "O") {
    if (auto e = number(channel.offset); !e.empty()) return e;
  } else if (key == "V") {
    if (auto e = number(channel.value); !e.empty()) return e;
  } else if (key == "FOLLOW") {
    channel.follow = std::string(value);
  } else if (key == "LAG") {
    if (auto e = number(channel.lag); !e.empty()) return e;
    if (channel.lag < 0) return "LAG= must not be negative";
  } else if (key == "K") {
    if (auto e = number(channel.gain); !e.empty()) return e;
  } else if (key == "BIAS") {
    if (auto e = number(channel.bias); !e.empty()) return e;
  } else if (key == "JITTER") {
    if (auto e = number(channel.jitter); !e.empty()) return e;
  } else if (key == "HIGH") {
    if (auto e = number(n); !e.empty()) return e;
    channel.high = n;
  } else if (key == "LOW") {
    if (auto e = number(n); !e.empty()) return e;
    channel.low = n;
  } else if (key == "TAG") {
    channel.tag = std::string(value);
  } else {
    return "unknown field \"" + std::string(key) + "=\"";
  }
  return {};
}

std::string lineError(std::string_view file, size_t line, std::string_view reason) {
  return std::string(file) + " line " + std::to_string(line) + ": " + std::string(reason);
}

std::string fileStem(std::string_view path) {
  const size_t slash = path.find_last_of("/\\");
  if (slash != std::string_view::npos) path = path.substr(slash + 1);
  const size_t dot = path.rfind('.');
  if (dot != std::string_view::npos && dot > 0) path = path.substr(0, dot);
  return std::string(path.substr(0, kSetupNameLength));
}

// A device line: "D", the device number, then NOTREADY=, LATENCY=, SILENT=
// and MONITORS= fields.
bool parseDeviceLine(std::string_view line, std::string_view fileName, size_t lineNo,
                     RigSetup& setup, std::string* error) {
  const auto fields = words(line.substr(1));
  int device = 0;
  if (fields.empty() || !parseInt(fields[0], device) || device > 99) {
    *error = lineError(fileName, lineNo, "a device line needs a device number 0-99");
    return false;
  }
  SimDeviceConfig& config = setup.devices[device];
  config.present = true;
  for (size_t i = 1; i < fields.size(); ++i) {
    const std::string_view f = fields[i];
    const size_t eq = f.find('=');
    int n = 0;
    const std::string_view key = eq == std::string_view::npos ? f : f.substr(0, eq);
    if (eq == std::string_view::npos || !parseInt(f.substr(eq + 1), n)) {
      *error = lineError(fileName, lineNo, "\"" + std::string(f) + "\" is not KEY=number");
      return false;
    }
    if (key == "NOTREADY") {
      config.notReadyPolls = n;
    } else if (key == "LATENCY") {
      config.latencyMs = n;
    } else if (key == "SILENT") {
      config.silent = n != 0;
    } else if (key == "MONITORS") {
      config.monitors = n;
    } else {
      *error = lineError(fileName, lineNo, "unknown device field \"" + std::string(key) + "=\"");
      return false;
    }
  }
  setup.summary.append(line).append("\r\n");
  return true;
}

// A channel line: two characters, the hardware channel text, a blank, then
// the fields.
bool parseChannelLine(std::string_view line, std::string_view fileName, size_t lineNo,
                      RigSetup& setup, std::string* error) {
  if (line.size() < 8) {
    *error = lineError(fileName, lineNo, "not a channel line (too short)");
    return false;
  }
  const size_t hwLength = line[7] != ' ' ? 6 : 5;
  const std::string_view hw = line.substr(2, hwLength);
  int device = 0;
  int number = 0;
  if (!parseInt(hw.substr(0, hw.size() - 4), device) ||
      !parseInt(hw.substr(hw.size() - 4), number) ||
      (line.size() > 2 + hwLength && line[2 + hwLength] != ' ')) {
    *error = lineError(fileName, lineNo,
                       "a channel line starts with two characters, then the device number and "
                       "four-digit channel number, then a blank");
    return false;
  }
  SimChannel channel;
  channel.device = device;
  channel.number = number;
  channel.hardwareText = std::string(hw);
  if (auto reason = ApplyChannelSettings(channel, line.substr(2 + hwLength)); !reason.empty()) {
    *error = lineError(fileName, lineNo, reason);
    return false;
  }
  for (const auto& other : setup.channels) {
    if (other.hardwareText == channel.hardwareText) {
      *error = lineError(fileName, lineNo, "channel " + channel.hardwareText + " is defined twice");
      return false;
    }
  }
  setup.devices[device].present = true;
  setup.channels.push_back(std::move(channel));
  setup.summary.append(line).append("\r\n");
  return true;
}

// A channel may only follow a channel of the setup.
bool checkFollowedChannels(const RigSetup& setup, std::string_view fileName, std::string* error) {
  for (const auto& channel : setup.channels) {
    if (channel.follow.empty()) continue;
    bool found = false;
    for (const auto& other : setup.channels) {
      found = found || other.name == channel.follow || other.hardwareText == channel.follow;
    }
    if (!found) {
      *error = std::string(fileName) + ": channel " + channel.hardwareText + " follows \"" +
               channel.follow + "\", which is not a channel of the setup";
      return false;
    }
  }
  return true;
}

}  // namespace

std::string ApplyChannelSettings(SimChannel& channel, std::string_view settings) {
  for (const auto token : words(settings)) {
    if (auto reason = applySetting(channel, token); !reason.empty()) return reason;
  }
  return {};
}

bool ParseRigSetup(std::string_view text, std::string_view fileName, RigSetup& setup,
                   std::string* error) {
  std::string unused;
  if (error == nullptr) error = &unused;
  setup = RigSetup{};
  setup.name = fileStem(fileName);
  size_t lineNo = 0;
  for (const std::string& text_line : splitLines(text)) {
    ++lineNo;
    const std::string_view line = text_line;
    const std::string_view content = trim(line);
    if (content.empty() || content[0] == ';' || content[0] == '#') continue;
    const bool parsed = line[0] == 'D' ? parseDeviceLine(line, fileName, lineNo, setup, error)
                                       : parseChannelLine(line, fileName, lineNo, setup, error);
    if (!parsed) return false;
  }
  return checkFollowedChannels(setup, fileName, error);
}

bool LoadRigSetupFile(const FileSystem& files, const std::string& path, RigSetup& setup,
                      std::string* error) {
  std::string text;
  std::string readError;
  if (!readTextFile(files, path, text, &readError)) {
    if (error != nullptr)
      *error = "cannot read the setup file " + path + ": " + readFailureReason(readError);
    return false;
  }
  return ParseRigSetup(text, path, setup, error);
}

}  // namespace tavrix
