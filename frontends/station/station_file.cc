#include "station_file.h"

#include <algorithm>

#include "common/paths.h"
#include "common/text_file.h"
#include "common/toml_reader.h"
#include "instrument/iomap/io_map.h"
#include "instrument/iomap/map_link.h"
#include "instrument/simrig/rig_setup.h"

namespace tavrix {

namespace {

class Reader : public TomlReader {
 public:
  explicit Reader(std::string_view fileName)
      : TomlReader(fileName), folder_(parentFolder(this->fileName())) {}

  std::string text(const toml::node& node, std::string_view where, std::string_view key) const {
    return TomlReader::text(node, where, key, true);
  }

  // A path from the station file's folder.
  std::string path(const toml::node& node, std::string_view where, std::string_view key) const {
    const std::string value = text(node, where, key);
    return isAbsolutePath(value) || folder_.empty() ? value : join(folder_, value);
  }

  void socket(StationSocket& s, const toml::table& table) const {
    const std::string where = "socket " + s.name;
    for (auto&& [key, node] : table) {
      const std::string_view k = key.str();
      if (k == "sequence") {
        s.sequence = path(node, where, k);
        s.sequenceLine = lineOf(node);
      } else if (k == "answers") {
        s.answers = path(node, where, k);
      } else if (k == "link") {
        s.link = text(node, where, k);
      } else if (k == "results") {
        s.results = path(node, where, k);
      } else if (k == "prefix") {
        s.prefix = text(node, where, k);
        s.mapLine = lineOf(node);
      } else if (k == "map") {
        const toml::table* entries = node.as_table();
        if (entries == nullptr)
          fail(lineOf(node), where, "\"map\" is a table of NAME = \"RIG_NAME\"");
        s.mapLine = lineOf(node);
        for (auto&& [from, to] : *entries) {
          const std::string target = text(to, where, "map." + std::string(from.str()));
          s.table.emplace(std::string(from.str()), target);
        }
      } else {
        fail(lineOf(node), where,
             "unknown key \"" + std::string(k) +
                 "\" (a socket has sequence, answers, link, results, prefix and map)");
      }
    }
  }

 private:
  std::string folder_;
};

bool validSocketName(std::string_view name) {
  if (name.empty() || name.size() > 32) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
  });
}

std::string where(const StationSocket& s) { return "socket " + s.name; }

std::string fail(const Station& station, int line, std::string_view where, std::string_view what) {
  return FileLineMessage(station.path, line, where, what);
}

// The rig channels a socket owns, out of `channels`.
std::set<std::string> ownedChannels(const StationSocket& s,
                                    const std::vector<std::string>& channels) {
  std::set<std::string> owned;
  for (const auto& [from, to] : s.table) owned.insert(to);
  if (!s.prefix.empty()) {
    for (const auto& name : channels) {
      if (name.compare(0, s.prefix.size(), s.prefix) == 0) owned.insert(name);
    }
  }
  return owned;
}

}  // namespace

bool ParseStation(std::string_view text, std::string_view fileName, Station& station,
                  std::string* error) {
  station = Station{};
  station.path = std::string(fileName);
  Reader reader(fileName);
  try {
    const toml::table root = reader.parse(text);
    const toml::table* sockets = nullptr;
    for (auto&& [key, node] : root) {
      const std::string_view k = key.str();
      const int line = Reader::lineOf(node);
      if (k == "name") {
        station.name = reader.text(node, "", k);
      } else if (k == "sequence") {
        station.sequence = reader.path(node, "", k);
      } else if (k == "answers") {
        station.answers = reader.path(node, "", k);
      } else if (k == "setup") {
        station.setup = reader.path(node, "", k);
      } else if (k == "link") {
        station.link = reader.text(node, "", k);
      } else if (k == "results") {
        station.results = reader.path(node, "", k);
      } else if (k == "socket") {
        sockets = node.as_table();
        if (sockets == nullptr) reader.fail(line, "", "\"socket\" must be a table of socket.NAME");
      } else {
        reader.fail(line, "",
                    "unknown key \"" + std::string(k) +
                        "\" (a station has name, sequence, setup, link, answers, results and "
                        "socket.NAME tables)");
      }
    }
    if (sockets == nullptr || sockets->empty())
      reader.fail(0, "", "the station names no socket ([socket.NAME])");
    std::vector<std::pair<const toml::key*, const toml::node*>> entries;
    for (auto&& [key, node] : *sockets) entries.emplace_back(&key, &node);
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
      return a.first->source().begin < b.first->source().begin;
    });
    for (auto&& [key, node] : entries) {
      StationSocket s;
      s.name = std::string(key->str());
      s.line = static_cast<int>(key->source().begin.line);
      if (!validSocketName(s.name)) {
        reader.fail(s.line, "socket " + s.name,
                    "a socket's name has 1-32 letters, digits, \"_\" or \"-\"");
      }
      if (!node->is_table()) reader.fail(s.line, "socket " + s.name, "must be a table");
      reader.socket(s, *node->as_table());
      station.sockets.push_back(std::move(s));
    }
  } catch (const TomlFileFault& e) {
    if (error) *error = e.text;
    station = Station{};
    return false;
  }
  return true;
}

bool StationRigChannels(const FileSystem& files, const Station& station,
                        std::vector<std::string>& channels, std::string* error) {
  channels.clear();
  if (!station.setup.empty()) {
    RigSetup setup;
    std::string why;
    if (!LoadRigSetupFile(files, station.setup, setup, &why)) {
      if (error) *error = why;
      return false;
    }
    for (const auto& channel : setup.channels) channels.push_back(channel.name);
    return true;
  }
  if (station.link.rfind(std::string(kLinkMapPrefix), 0) == 0) {
    IoMap map;
    if (!LoadIoMapFile(files, station.link.substr(kLinkMapPrefix.size()), map, error)) return false;
    for (const auto& channel : map.channels) channels.push_back(channel.name);
  }
  return true;
}

namespace {

// Each socket's sequence and answers file can be read, and every socket
// goes through the station's link.
bool CheckSocketFiles(const FileSystem& files, const Station& station, std::string* error) {
  std::string problem;
  for (const auto& s : station.sockets) {
    const std::string& sequence = station.sequenceOf(s);
    if (sequence.empty()) {
      if (error)
        *error = fail(station, s.line, where(s), "names no sequence (and the station names none)");
      return false;
    }
    std::string text;
    if (!readTextFile(files, sequence, text, &problem)) {
      if (error)
        *error = fail(station, s.sequence.empty() ? s.line : s.sequenceLine, where(s),
                      "cannot read the sequence " + sequence + ": " + readFailureReason(problem));
      return false;
    }
    if (const auto& answers = station.answersOf(s);
        answers && !readTextFile(files, *answers, text, &problem)) {
      if (error)
        *error =
            fail(station, s.line, where(s),
                 "cannot read the answers file " + *answers + ": " + readFailureReason(problem));
      return false;
    }
    if (station.linkOf(s) != station.link) {
      if (error)
        *error = fail(station, s.line, where(s),
                      "the sockets of a station share one link: set \"link\" for the station");
      return false;
    }
  }
  return true;
}

// Where the rig's channels are known, a socket's map and prefix name some
// of them.
bool CheckSocketNamesRigChannels(const Station& station, const StationSocket& s,
                                 const std::vector<std::string>& channels,
                                 const std::set<std::string>& rig, std::string* error) {
  for (const auto& [from, to] : s.table) {
    if (rig.count(to) == 0) {
      if (error)
        *error = fail(station, s.mapLine, where(s),
                      "map." + from + " names \"" + to + "\", no channel of the rig's setup");
      return false;
    }
  }
  if (!s.prefix.empty() &&
      std::none_of(channels.begin(), channels.end(), [&](const std::string& name) {
        return name.compare(0, s.prefix.size(), s.prefix) == 0;
      })) {
    if (error)
      *error = fail(station, s.mapLine, where(s),
                    "prefix \"" + s.prefix + "\" names no channel of the rig's setup");
    return false;
  }
  return true;
}

// What sockets `a` and `b` would both write ("channel NAME", or their
// prefixes when one starts the other); empty when nothing.
std::string SharedByBoth(const StationSocket& a, const std::set<std::string>& ownedByA,
                         const StationSocket& b, const std::set<std::string>& ownedByB) {
  if (!a.prefix.empty() && !b.prefix.empty() &&
      (a.prefix.compare(0, b.prefix.size(), b.prefix) == 0 ||
       b.prefix.compare(0, a.prefix.size(), a.prefix) == 0)) {
    return "prefixes \"" + b.prefix + "\" and \"" + a.prefix + "\"";
  }
  for (const auto& name : ownedByA) {
    if (ownedByB.count(name) != 0) return "channel " + name;
  }
  for (const auto& [from, to] : a.table) {
    if (!b.prefix.empty() && to.compare(0, b.prefix.size(), b.prefix) == 0) return "channel " + to;
  }
  for (const auto& [from, to] : b.table) {
    if (!a.prefix.empty() && to.compare(0, a.prefix.size(), a.prefix) == 0) return "channel " + to;
  }
  return {};
}

}  // namespace

bool CheckStation(const FileSystem& files, const Station& station, std::string* error) {
  if (!CheckSocketFiles(files, station, error)) return false;
  std::vector<std::string> channels;
  std::string problem;
  if (!StationRigChannels(files, station, channels, &problem)) {
    if (error) *error = fail(station, 0, "", "cannot read the rig's channels: " + problem);
    return false;
  }
  const bool known = !channels.empty();
  const std::set<std::string> rig(channels.begin(), channels.end());
  std::vector<std::set<std::string>> owned;
  for (const auto& s : station.sockets) {
    if (known && !CheckSocketNamesRigChannels(station, s, channels, rig, error)) return false;
    owned.push_back(ownedChannels(s, channels));
  }
  // Two sockets never share a channel they write.
  for (size_t i = 0; i < station.sockets.size(); ++i) {
    const StationSocket& a = station.sockets[i];
    for (size_t j = 0; j < i; ++j) {
      const StationSocket& b = station.sockets[j];
      const std::string both = SharedByBoth(a, owned[i], b, owned[j]);
      if (!both.empty()) {
        if (error)
          *error = fail(station, a.mapLine > 0 ? a.mapLine : a.line, where(a),
                        "writes the rig's " + both + " as socket " + b.name + " (line " +
                            std::to_string(b.mapLine > 0 ? b.mapLine : b.line) +
                            ") does: two sockets never share a channel they write");
        return false;
      }
    }
  }
  return true;
}

bool LoadStationFile(const FileSystem& files, const std::string& path, Station& station,
                     std::string* error, const std::optional<std::string>& sequence) {
  std::string text;
  std::string problem;
  if (!readTextFile(files, path, text, &problem)) {
    if (error) *error = "cannot read the station file " + path + ": " + readFailureReason(problem);
    return false;
  }
  if (!ParseStation(text, path, station, error)) return false;
  if (sequence) {
    station.sequence = *sequence;
    for (auto& s : station.sockets) s.sequence.clear();
  }
  return CheckStation(files, station, error);
}

ChannelNameMap SocketChannelMap(const Station& station, size_t index) {
  ChannelNameMap map;
  const StationSocket& own = station.sockets[index];
  map.prefix = own.prefix;
  map.table = own.table;
  for (size_t i = 0; i < station.sockets.size(); ++i) {
    if (i == index) continue;
    const StationSocket& other = station.sockets[i];
    if (!other.prefix.empty()) map.otherPrefixes.push_back(other.prefix);
    for (const auto& [from, to] : other.table) map.otherChannels.insert(to);
  }
  // A channel this socket maps itself is never another's.
  for (const auto& [from, to] : own.table) map.otherChannels.erase(to);
  return map;
}

}  // namespace tavrix
