// The channel table that the loaded hardware setup provides, the device
// table, and the channel operations that every other part of the program
// uses to reach the hardware by channel name: read, write, define, escape,
// re-zero, and monitor channels. Built on the IML link.
//
// Operations return true on success; on failure the link's lastErrorNumber
// and lastErrorText tell why.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/name_index.h"
#include "instrument/link/iml_link.h"

namespace tavrix {

// Lets maps keyed by std::string be searched with a string_view.
struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

inline constexpr size_t kChannelNameLength = 13;
inline constexpr std::string_view kTextChannelNamePrefix = "Channel name - ";
inline constexpr std::string_view kTextChannelNameSuffix =
    " - does not exist, or is not enabled in the hardware";
inline constexpr std::string_view kTextCannotCreateMonitor = "Cannot create monitor channel - ";
inline constexpr std::string_view kTextUnableToRead = "Unable to read from channel: ";

struct ChannelRecord {
  int16_t device = 0;
  int16_t channelNumber = 0;
  char mode = ' ';
  std::string name;   // at most 13 characters, trailing blanks removed
  std::string units;  // at most 13 characters, trailing blanks removed
  bool enabled = false;
};

// A channel looked up once for the reads and writes of it that follow: it
// is looked up again only after the channel table changed.
struct ChannelRef {
  uint64_t generation = 0;         // the table it was looked up in; 0: not yet
  const void* record = nullptr;    // the record found (nullptr: none)
  std::string* written = nullptr;  // where the last value written to it is kept
  DirectHint direct;               // the link library's own lookup of it
};

// A channel's reading: the reply's text, or, when the link gave it without
// a text (an in-process rig), the number that text reads as. Such a text is
// a plain number: no letter, no word, no "N.A.".
struct ChannelReading {
  std::string text;  // when !isNumber
  double number = 0;
  bool isNumber = false;

  // The reading's value as leadingNumber reads its text.
  double value() const;
  // Whether the reply's text contains `part`.
  bool contains(std::string_view part) const {
    return !isNumber && text.find(part) != std::string::npos;
  }
};

// How one test socket's channel names reach the rig: a name in the table is
// the rig's channel it names; with a prefix, HEATER is the rig's
// "<prefix>HEATER" when the rig has that channel. Other names are the rig's
// own and shared by every socket, except the channels other sockets own,
// which a socket does not see at all.
struct ChannelNameMap {
  std::string prefix;
  std::map<std::string, std::string, std::less<>> table;
  std::vector<std::string> otherPrefixes;
  std::set<std::string, std::less<>> otherChannels;

  bool empty() const {
    return prefix.empty() && table.empty() && otherPrefixes.empty() && otherChannels.empty();
  }
  // Whether `rigName` belongs to another socket.
  bool foreign(std::string_view rigName) const;
};

inline constexpr std::string_view kTextSharedOutput =
    " is shared by the station's sockets: a socket's outputs write only its own channels";

class Channels {
 public:
  explicit Channels(ImlLink& link) : link_(link) {}

  ImlLink& link() { return link_; }

  // --- Tables ----------------------------------------------------------------
  const std::vector<ChannelRecord>& records() const { return records_; }
  // Each channel's summary line without its first two characters.
  const std::vector<std::string>& definitions() const { return definitions_; }
  bool devicePresent(int device) const { return device >= 0 && device < 100 && present_[device]; }
  int16_t highestDevice() const { return highestDevice_; }
  // The text of the last successful read.
  const std::string& lastReading() const;

  // --- Operations ----------------------------------------------------------
  bool FindChannel(std::string_view name, int16_t& device) const;
  bool FindEnabledChannel(std::string_view name, int16_t& device) const;
  // With `ref`, the name is looked up only when the table changed since
  // `ref` was last filled for it.
  bool ReadChannel(std::string_view name, std::string& value, ChannelRef* ref = nullptr);
  // The same, with the number alone when the link gives it without a text.
  bool ReadChannel(std::string_view name, ChannelReading& reading, ChannelRef* ref = nullptr);
  bool WriteChannel(std::string_view name, std::string_view value, ChannelRef* ref = nullptr);
  bool DefineChannel(std::string_view name, std::string_view settings);
  bool EscapeChannel(std::string_view name, std::string_view settings);
  bool RezeroChannel(std::string_view name);
  bool CreateMonitorChannel(std::string_view deviceText, std::string_view name,
                            std::string_view settings);
  bool ClearMonitorChannel(std::string_view name);
  // Loads and locks the setup in `file` (a local path) and rebuilds the
  // channel table from its summary. Does nothing when there is no hardware.
  bool LoadSetup(const std::string& file);
  // Rebuilds the tables from a setup summary's text.
  void ReadSummary(std::string_view summary);

  // --- Test sockets ----------------------------------------------------------
  // From now on every operation takes names through `map`.
  void setNameMap(ChannelNameMap map);
  bool hasNameMap() const { return mapped_; }
  // Whether `name` reaches a channel of this socket's own (always true
  // without a map). Outputs that run on their own (ramps, pulses, sines,
  // load maintenance) write only such channels.
  bool ownChannel(std::string_view name) const;

  // The last value written to each channel that took it, by name as
  // written: what a run that goes on after an abrupt end writes again.
  const std::map<std::string, std::string, std::less<>>& written() const { return written_; }

 private:
  const ChannelRecord* lookup(std::string_view name) const;
  const ChannelRecord* lookup(std::string_view name, ChannelRef* ref) const;
  bool findEnabled(std::string_view name, ChannelRef* ref, int16_t& device) const;
  // What a read or write does before its exchange: the rig's name (in
  // `storage` when it is new) and its device; false, with the error
  // recorded, when there is no such enabled channel.
  bool target(std::string_view& name, std::string& storage, ChannelRef* ref, int16_t& device);
  // The usual exchange of a read, its reply's text into `value`.
  bool readExchange(int16_t device, std::string_view name, std::string& value);
  // Any change of the records or their names drops the name index and the
  // references looked up before it. Generations are unique to the process,
  // so a reference filled by another table never matches this one.
  void changed();
  void recordNameError(std::string_view name);
  // Turns a sequence's name into the rig's (in `storage` when it is new).
  // False, with the name error recorded, for another socket's channel.
  bool toRig(std::string_view& name, std::string& storage);
  bool defineRig(std::string_view rigName, std::string_view settings);

  ImlLink& link_;
  std::map<std::string, std::string, std::less<>> written_;
  std::vector<ChannelRecord> records_;
  // The records by name, built on the first lookup after a change: a lookup
  // finds what a scan from index 0 finds.
  mutable NameIndex index_;
  mutable bool indexed_ = false;
  uint64_t generation_ = 0;
  std::vector<std::string> definitions_;
  std::array<bool, 100> present_{};
  int16_t highestDevice_ = -1;
  // The last reading's text; when lastReadingDirect_, the link library's
  // last direct read has it.
  mutable std::string lastReading_;
  mutable bool lastReadingDirect_ = false;
  bool mapped_ = false;
  ChannelNameMap map_;
};

// The hexadecimal text that SENDSMC writes for a controller command, or
// false when the command is too long.
bool EncodeSmcCommand(std::string_view command, std::string& hex);
inline constexpr std::string_view kTextSmcTooLong = "SMC command too long (>7 characters)";
inline constexpr std::string_view kTextSmcNotFound = "Specified SMC channel name not found";

}  // namespace tavrix
