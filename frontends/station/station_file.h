// The station file: the test sockets of one station, each a unit under test
// run by an engine of its own, and what each one uses. A TOML file:
//
//   name = "LINE3"              # the station's name in the UUT records
//   sequence = "demo.wts"       # one sequence for every socket ...
//   setup = "rig.ims"           # the rig's setup, loaded once for all
//   link = "sim"                # the link every socket shares
//   answers = "demo.answers"    # scripted answers (each socket reads its own copy)
//   results = "results"         # where results files go
//
//   [socket.S1]
//   prefix = "S1_"              # HEATER is the rig's S1_HEATER where that exists
//   [socket.S2]
//   map = { HEATER = "OVEN2_HEAT" }
//   sequence = "other.wts"      # ... or one of its own
//
// Relative paths are taken from the station file's folder. A mistake is told
// as "FILE line N: socket NAME: what", and nothing runs.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"
#include "instrument/link/channels.h"

namespace tavrix {

struct StationSocket {
  std::string name;
  int line = 0;          // where its table starts
  std::string sequence;  // empty: the station's
  int sequenceLine = 0;
  std::optional<std::string> answers;  // unset: the station's
  std::string link;                    // empty: the station's
  std::string results;                 // empty: the station's
  // The mapping: a prefix, an explicit table (sequence name -> rig name),
  // or both (the table first).
  std::string prefix;
  std::map<std::string, std::string, std::less<>> table;
  int mapLine = 0;
};

struct Station {
  std::string path;
  std::string name;
  std::string sequence;
  std::optional<std::string> answers;
  std::string setup;
  std::string link = "sim";
  std::string results;
  std::vector<StationSocket> sockets;

  // What a socket uses: its own setting, else the station's.
  const std::string& sequenceOf(const StationSocket& s) const {
    return s.sequence.empty() ? sequence : s.sequence;
  }
  const std::optional<std::string>& answersOf(const StationSocket& s) const {
    return s.answers ? s.answers : answers;
  }
  const std::string& linkOf(const StationSocket& s) const { return s.link.empty() ? link : s.link; }
  const std::string& resultsOf(const StationSocket& s) const {
    return s.results.empty() ? results : s.results;
  }
};

// Reads a station file's text; `fileName` names it in messages and its folder
// is where relative paths start. False with a message for a syntax error, an
// unknown key, a socket without a sequence or a duplicate socket name.
bool ParseStation(std::string_view text, std::string_view fileName, Station& station,
                  std::string* error);
// Reads the file (false with a message when it cannot be read) and checks it
// as CheckStation does. `sequence`, when given, is every socket's sequence.
bool LoadStationFile(const FileSystem& files, const std::string& path, Station& station,
                     std::string* error, const std::optional<std::string>& sequence = {});
// What can be checked before anything runs: every socket's sequence and
// answers file can be read; with a setup file (or an I/O map link) every
// mapping names channels of the rig, and no two sockets write the same rig
// channel. `channels` gives the rig's channel names when known (the setup
// file's otherwise).
bool CheckStation(const FileSystem& files, const Station& station, std::string* error);

// The rig's channel names from the station's setup file or I/O map link;
// empty when neither names them (a rig server's channels are known only
// once it is reached). False with a message when the file cannot be read.
bool StationRigChannels(const FileSystem& files, const Station& station,
                        std::vector<std::string>& channels, std::string* error);

// Socket `index`'s channel mapping for the engine: its own names and, hidden
// from it, the channels the other sockets own.
ChannelNameMap SocketChannelMap(const Station& station, size_t index);

}  // namespace tavrix
