// The settings the instrument link keeps for the whole program: no hardware,
// the reply time-out, the channel that CHECKIMS reads, the data root and the
// drive map, and the poll intervals. Read from one "key = value" text file,
// documented in docs/instrument-settings.md.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/file_system.h"
#include "common/paths.h"

namespace tavrix {

struct InstrumentSettings {
  bool noHardware = false;
  bool useReplyTimeout = true;
  int replyTimeoutSecs = 10;
  std::string checkChannel;              // read by CHECKIMS
  std::string dataRoot = "c:\\corvane";  // the link's directory; setups and data lie below it
  // Drive letter (lower case, without ':') -> local folder.
  std::map<char, std::string> driveMap;
  Micros replyPollInterval = 10'000;  // between polls of a command or reply not ready
  Micros waitPollInterval = 100'000;  // between readings of WAIT on a condition
  // The rig PC's link libraries (the "dll" link): their folder ("" for the
  // program's folder and then the system's search path) and file names.
  std::string libraryFolder;
  std::string linkLibraryName = "commslib.dll";
  std::string setupLibraryName = "imslib.dll";
  // The link a program uses when its command line names none: "sim", "dll"
  // "tcp://HOST:PORT", "map" (the I/O map in io_map) or "map:FILE" ("" for
  // the program's own default).
  std::string link;
  // The key file for a rig server that asks for a key ("" for none).
  std::string linkKeyFile;
  // The I/O map of the "map" link ("" for none; docs/io-map.md).
  std::string ioMap;
  // The window's link bridge, started when the window cannot load the "dll"
  // link itself: the 32-bit tavrix-cli ("" for tavrix-cli32.exe beside the
  // window) and the loopback port it listens on.
  std::string bridgeProgram;
  int bridgePort = 5026;
  // Where UUT records go besides the results files (docs/results-database.md):
  // empty for the database file in the data root, "off", "sqlite:FILE" or a
  // server's connection string. And this station's name in them.
  std::string resultsStore;
  std::string station;
  // The safe-state sequence: run before a run goes on after an abrupt end,
  // and after any run that ends abnormally (Stop, a sequence error) while the
  // program can still run it. Empty: none.
  std::string safeStateSequence;
  // How long the records of past runs are kept in the data root, and how
  // much room they may take together; nullopt: no limit.
  std::optional<Micros> recordsMaxAge = 30 * kMicrosPerDay;
  std::optional<uint64_t> recordsMaxBytes = uint64_t{1} << 30;

  // Applies one "key = value" pair; false with a reason for an unknown key or
  // a bad value.
  bool set(std::string_view key, std::string_view value, std::string* error);
};

// Reads settings from a file; false with "FILE line N: reason" on a bad line.
bool LoadInstrumentSettings(const FileSystem& files, const std::string& path,
                            InstrumentSettings& settings, std::string* error);
bool ParseInstrumentSettings(std::string_view text, std::string_view fileName,
                             InstrumentSettings& settings, std::string* error);

// The program's drive map (common/paths.h): the drives of these settings, and
// every other drive X as "<dataRoot>/x". Built once per run; every command
// that names a file goes through it.
PathMap MakePathMap(std::string dataRoot, const InstrumentSettings& settings);

}  // namespace tavrix
