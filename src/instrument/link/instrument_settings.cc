#include "instrument/link/instrument_settings.h"

#include <cctype>
#include <sstream>
#include <string>
#include <utility>

#include "common/checked_numbers.h"
#include "common/paths.h"
#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/text_items.h"

namespace tavrix {
namespace {

bool parseFlag(std::string_view value, bool& out) {
  const std::string v = lowerCase(value);
  if (v == "1" || v == "true" || v == "yes" || v == "on") {
    out = true;
  } else if (v == "0" || v == "false" || v == "no" || v == "off") {
    out = false;
  } else {
    return false;
  }
  return true;
}

bool parseCount(std::string_view value, int minimum, int maximum, int& out) {
  if (value.empty() || value.size() > 9) return false;
  int n = 0;
  for (char c : value) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + (c - '0');
  }
  if (n < minimum || n > maximum) return false;
  out = n;
  return true;
}

// The settings that take their value as it is written.
std::string InstrumentSettings::*TextSetting(std::string_view key) {
  static constexpr std::pair<std::string_view, std::string InstrumentSettings::*> kTexts[] = {
      {"check_channel", &InstrumentSettings::checkChannel},
      {"data_root", &InstrumentSettings::dataRoot},
      {"results_store", &InstrumentSettings::resultsStore},
      {"station", &InstrumentSettings::station},
      {"safe_state", &InstrumentSettings::safeStateSequence},
      {"link", &InstrumentSettings::link},
      {"link_key", &InstrumentSettings::linkKeyFile},
      {"io_map", &InstrumentSettings::ioMap},
      {"bridge_program", &InstrumentSettings::bridgeProgram},
      {"library_folder", &InstrumentSettings::libraryFolder},
  };
  for (const auto& [name, member] : kTexts) {
    if (name == key) return member;
  }
  return nullptr;
}

}  // namespace

bool InstrumentSettings::set(std::string_view key, std::string_view value, std::string* error) {
  std::string why;
  const std::string k = lowerCase(key);
  if (std::string InstrumentSettings::*text = TextSetting(k)) {
    this->*text = std::string(value);
    return true;
  }
  int n = 0;
  if (k == "no_hardware") {
    if (!parseFlag(value, noHardware)) why = "no_hardware takes 0 or 1";
  } else if (k == "use_reply_timeout") {
    if (!parseFlag(value, useReplyTimeout)) why = "use_reply_timeout takes 0 or 1";
  } else if (k == "reply_timeout_secs") {
    if (parseCount(value, 0, 32767, n)) {
      replyTimeoutSecs = n;
    } else {
      why = "reply_timeout_secs takes whole seconds 0-32767";
    }
  } else if (k == "records_max_age") {
    if (lowerCase(value) == "off") {
      recordsMaxAge.reset();
    } else if (const auto age = parseDuration(value)) {
      recordsMaxAge = *age;
    } else {
      why = "records_max_age takes an age such as 30d or 12h, or off";
    }
  } else if (k == "records_max_size") {
    if (lowerCase(value) == "off") {
      recordsMaxBytes.reset();
    } else if (const auto bytes = parseByteSize(value)) {
      recordsMaxBytes = *bytes;
    } else {
      why = "records_max_size takes a size such as 1GiB, 500MiB or 200MB, or off";
    }
  } else if (k.size() == 7 && k.rfind("drive.", 0) == 0 &&
             std::isalpha(static_cast<unsigned char>(k[6]))) {
    driveMap[k[6]] = std::string(value);
  } else if (k == "bridge_port") {
    if (parseCount(value, 1, 65535, n)) {
      bridgePort = static_cast<int>(n);
    } else {
      why = "bridge_port takes a port number 1-65535";
    }
  } else if (k == "link_library") {
    if (value.empty()) why = "link_library takes a file name";
    linkLibraryName = std::string(value);
  } else if (k == "setup_library") {
    if (value.empty()) why = "setup_library takes a file name";
    setupLibraryName = std::string(value);
  } else if (k == "reply_poll_ms") {
    if (parseCount(value, 1, 60000, n)) {
      replyPollInterval = static_cast<Micros>(n) * 1000;
    } else {
      why = "reply_poll_ms takes milliseconds 1-60000";
    }
  } else if (k == "wait_poll_ms") {
    if (parseCount(value, 1, 60000, n)) {
      waitPollInterval = static_cast<Micros>(n) * 1000;
    } else {
      why = "wait_poll_ms takes milliseconds 1-60000";
    }
  } else {
    why = "unknown setting \"" + std::string(key) + "\"";
  }
  if (!why.empty() && error) *error = why;
  return why.empty();
}

bool ParseInstrumentSettings(std::string_view text, std::string_view fileName,
                             InstrumentSettings& settings, std::string* error) {
  int lineNo = 0;
  for (const std::string& raw : splitLines(text)) {
    ++lineNo;
    const std::string_view line = trim(raw);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    const size_t eq = line.find('=');
    std::string reason;
    if (eq == std::string_view::npos) {
      reason = "expected \"key = value\"";
    } else {
      settings.set(trim(line.substr(0, eq)), trim(line.substr(eq + 1)), &reason);
    }
    if (!reason.empty()) {
      if (error) *error = std::string(fileName) + " line " + std::to_string(lineNo) + ": " + reason;
      return false;
    }
  }
  return true;
}

bool LoadInstrumentSettings(const FileSystem& files, const std::string& path,
                            InstrumentSettings& settings, std::string* error) {
  std::string text;
  std::string readError;
  if (!readTextFile(files, path, text, &readError)) {
    if (error)
      *error = "cannot read the settings file " + path + ": " + readFailureReason(readError);
    return false;
  }
  return ParseInstrumentSettings(text, path, settings, error);
}

PathMap MakePathMap(std::string dataRoot, const InstrumentSettings& settings) {
  PathMap map(std::move(dataRoot));
  for (const auto& [drive, folder] : settings.driveMap) map.setDrive(drive, folder);
  return map;
}

}  // namespace tavrix
