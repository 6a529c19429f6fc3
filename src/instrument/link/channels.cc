#include "instrument/link/channels.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "common/text_conventions.h"

namespace tavrix {
namespace {

std::string fixed13(std::string_view text) {
  return std::string(trimRight(text.substr(0, kChannelNameLength)));
}

}  // namespace

const ChannelRecord* Channels::lookup(std::string_view name) const {
  if (!indexed_) {
    index_.clear(records_.size());
    for (size_t i = 0; i < records_.size(); ++i) index_.add(records_[i].name, i);
    indexed_ = true;
  }
  // The first record of that name, as a scan from the start would find.
  const ChannelRecord* found = nullptr;
  index_.find(name, [&](size_t i, unsigned) {
    if (records_[i].name != name) return false;
    found = &records_[i];
    return true;
  });
  return found;
}

void Channels::changed() {
  static std::atomic<uint64_t> generations{0};
  indexed_ = false;
  generation_ = ++generations;
}

const ChannelRecord* Channels::lookup(std::string_view name, ChannelRef* ref) const {
  if (ref == nullptr) return lookup(name);
  if (ref->generation != generation_ || generation_ == 0) {
    ref->record = lookup(name);
    ref->generation = generation_;
    ref->written = nullptr;
    ref->direct = DirectHint{};
  }
  return static_cast<const ChannelRecord*>(ref->record);
}

bool Channels::findEnabled(std::string_view name, ChannelRef* ref, int16_t& device) const {
  const ChannelRecord* record = lookup(name, ref);
  if (record == nullptr) return false;
  device = record->device;
  return record->enabled;
}

void Channels::recordNameError(std::string_view name) {
  link_.recordError(kErrChannelName, std::string(kTextChannelNamePrefix) + std::string(name) +
                                         std::string(kTextChannelNameSuffix));
}

bool ChannelNameMap::foreign(std::string_view rigName) const {
  if (otherChannels.count(rigName) != 0) return true;
  return std::any_of(otherPrefixes.begin(), otherPrefixes.end(),
                     [&](const std::string& p) { return rigName.substr(0, p.size()) == p; });
}

void Channels::setNameMap(ChannelNameMap map) {
  map_ = std::move(map);
  mapped_ = !map_.empty();
}

bool Channels::toRig(std::string_view& name, std::string& storage) {
  if (!mapped_) return true;
  if (const auto it = map_.table.find(name); it != map_.table.end()) {
    name = it->second;
    return true;
  }
  if (!map_.prefix.empty()) {
    storage = map_.prefix;
    storage += name;
    if (lookup(storage) != nullptr) {
      name = storage;
      return true;
    }
  }
  if (map_.foreign(name)) {
    recordNameError(name);
    return false;
  }
  return true;
}

bool Channels::ownChannel(std::string_view name) const {
  if (!mapped_) return true;
  if (map_.table.count(name) != 0) return true;
  return !map_.prefix.empty() && lookup(map_.prefix + std::string(name)) != nullptr;
}

bool Channels::FindChannel(std::string_view name, int16_t& device) const {
  const ChannelRecord* record = lookup(name);
  if (record == nullptr) return false;
  device = record->device;
  return true;
}

bool Channels::FindEnabledChannel(std::string_view name, int16_t& device) const {
  const ChannelRecord* record = lookup(name);
  if (record == nullptr) return false;
  device = record->device;
  return record->enabled;
}

double ChannelReading::value() const { return isNumber ? number : leadingNumber(text); }

const std::string& Channels::lastReading() const {
  if (lastReadingDirect_) {
    DirectExchanges* direct = link_.library().direct();
    if (direct != nullptr) lastReading_ = direct->lastReadText();
    lastReadingDirect_ = false;
  }
  return lastReading_;
}

bool Channels::target(std::string_view& name, std::string& storage, ChannelRef* ref,
                      int16_t& device) {
  const std::string_view asked = name;
  if (!toRig(name, storage)) return false;
  if (!findEnabled(name, ref, device)) {
    recordNameError(asked);
    return false;
  }
  return true;
}

bool Channels::readExchange(int16_t device, std::string_view name, std::string& value) {
  // Commands are put together in a buffer on the stack: a channel's name is
  // short, and the usual command needs no allocation.
  char bytes[64];
  std::string longCommand;
  std::string_view command;
  if (name.size() + 4 <= sizeof bytes) {
    std::memcpy(bytes, "REA ", 4);
    std::memcpy(bytes + 4, name.data(), name.size());
    command = std::string_view(bytes, name.size() + 4);
  } else {
    longCommand = "REA ";
    longCommand += name;
    command = longCommand;
  }
  if (!link_.IMLSendCommand(device, command, true)) return false;
  link_.events().processPendingEvents();
  link_.events().processPendingEvents();
  std::string reply;
  if (!link_.IMLGetReply(device, reply)) return false;
  const size_t nul = reply.find('\0');
  if (nul != std::string::npos && nul >= 1) {
    value.assign(reply, 0, nul);
  } else {
    value = std::move(reply);
  }
  lastReading_ = value;
  lastReadingDirect_ = false;
  return true;
}

bool Channels::ReadChannel(std::string_view name, std::string& value, ChannelRef* ref) {
  if (link_.noHardware()) {
    value.assign(1, '0');  // (assigning the literal trips a false -Wrestrict in GCC 12)
    return true;
  }
  std::string rigName;
  int16_t device = 0;
  if (!target(name, rigName, ref, device)) return false;
  return readExchange(device, name, value);
}

bool Channels::ReadChannel(std::string_view name, ChannelReading& reading, ChannelRef* ref) {
  reading.isNumber = false;
  if (link_.noHardware()) {
    reading.text.assign(1, '0');
    return true;
  }
  std::string rigName;
  int16_t device = 0;
  if (!target(name, rigName, ref, device)) return false;
  DirectHint scratch;
  if (link_.directRead(device, name, ref != nullptr ? ref->direct : scratch, reading.number)) {
    reading.isNumber = true;
    lastReadingDirect_ = true;
    return true;
  }
  return readExchange(device, name, reading.text);
}

bool Channels::WriteChannel(std::string_view name, std::string_view value, ChannelRef* ref) {
  std::string rigName;
  int16_t device = 0;
  if (!target(name, rigName, ref, device)) return false;
  DirectHint scratch;
  if (!link_.directWrite(device, name, value, ref != nullptr ? ref->direct : scratch)) {
    std::string command = "WRI ";
    command.append(name).append(" ").append(value);
    link_.IMLSendCommand(device, command, false);
    if (!link_.IMLCheckReply(device)) return false;
  }
  // The values written are never forgotten, so a place found once stays
  // for as long as the table the reference was looked up in.
  std::string* kept = ref != nullptr ? ref->written : nullptr;
  if (kept == nullptr) {
    auto known = written_.find(name);
    if (known == written_.end()) known = written_.emplace(std::string(name), std::string()).first;
    kept = &known->second;
    if (ref != nullptr) ref->written = kept;
  }
  kept->assign(value);
  return true;
}

bool Channels::DefineChannel(std::string_view name, std::string_view settings) {
  std::string rigName;
  const std::string_view asked = name;
  if (!toRig(name, rigName)) return false;
  int16_t device = 0;
  if (!FindChannel(name, device)) {
    recordNameError(asked);
    return false;
  }
  return defineRig(name, settings);
}

bool Channels::defineRig(std::string_view name, std::string_view settings) {
  int16_t device = 0;
  if (!FindChannel(name, device)) {
    recordNameError(name);
    return false;
  }
  std::string command = "DEF ";
  command.append(name).append(" ").append(settings);
  link_.IMLSendCommand(device, command, false);
  return link_.IMLCheckReply(device);
}

bool Channels::EscapeChannel(std::string_view name, std::string_view settings) {
  std::string rigName;
  const std::string_view asked = name;
  if (!toRig(name, rigName)) return false;
  int16_t device = 0;
  if (!FindChannel(name, device)) {
    recordNameError(asked);
    return false;
  }
  std::string command = "ESC ";
  command.append(name).append(" ").append(settings);
  if (!link_.IMLSendCommand(device, command, false)) return false;
  return link_.IMLCheckReply(device);
}

bool Channels::RezeroChannel(std::string_view name) {
  std::string rigName;
  const std::string_view asked = name;
  if (!toRig(name, rigName)) return false;
  int16_t device = 0;
  if (!FindEnabledChannel(name, device)) {
    recordNameError(asked);
    return false;
  }
  std::string reading;
  if (!link_.IMLSendReceive(device, "REA " + std::string(name), reading)) return false;
  const double present = leadingNumber(BufferText(reading));
  std::string settings;
  if (!link_.IMLSendReceive(device, "SHO " + std::string(name), settings)) return false;
  settings = upperCase(BufferText(settings));
  double offset = 0;
  const size_t at = settings.find("O=");
  if (at != std::string::npos) {
    const size_t from = at + 2;
    const size_t blank = settings.find(' ', from);
    offset = leadingNumber(std::string_view(settings).substr(
        from, blank == std::string::npos ? std::string::npos : blank - from));
  }
  const std::string newOffset(trimLeft(numberText(offset - present)));
  return defineRig(name, "O=" + newOffset);
}

bool Channels::CreateMonitorChannel(std::string_view deviceText, std::string_view name,
                                    std::string_view settings) {
  const int16_t device = roundToInt16(leadingNumber(deviceText)).value_or(0);
  // A test socket's monitor channel is its own: it is made under the name
  // the socket's map gives it (its table's, or its prefix before it), so
  // that sockets making the same monitor do not meet on the rig; the
  // socket's later uses of the name find it there.
  std::string rigName(name);
  if (mapped_) {
    if (const auto it = map_.table.find(name); it != map_.table.end()) {
      rigName = it->second;
    } else if (!map_.prefix.empty()) {
      rigName = map_.prefix + rigName;
    }
  }
  ChannelRecord record;
  record.device = device;
  records_.push_back(record);
  changed();
  definitions_.emplace_back();

  MonitorChannelRecord request;
  request.device = device;
  const int32_t result = link_.library().requestMonitorChannel(link_.setupName(), request);
  if (result != link_result::kOk) {
    std::string text;
    switch (result) {
      case link_result::kNoMemory:
        text = "IML device has insufficient memory.";
        break;
      case link_result::kSetupNotLoaded:
        text = "IMS setup name is not a loaded setup.";
        break;
      case link_result::kNotConfiguring:
        text = "Attempt to change an IMS setup, while NOT in configuring mode.";
        break;
      case link_result::kNoMonitorChannels:
        text = "There are no more monitor channels available in the IML device.";
        break;
      default:
        text = "Failed in IMSRequestMonitorChannel, ErrNum =" + numberText(result);
    }
    link_.recordError(kErrMonitorChannel, text);
    records_.pop_back();
    changed();
    definitions_.pop_back();
    link_.recordError(kErrMonitorChannel,
                      std::string(kTextCannotCreateMonitor) + std::string(name));
    return false;
  }
  records_.back().channelNumber = request.channelNumber;
  const std::string channel =
      formatNumber(device, "0") + formatNumber(request.channelNumber, "0000");
  link_.IMLSendCommand(device, "DEF " + channel + " E=0 ", false);
  link_.IMLSendCommand(device, "DEF " + channel + " M=Z", false);
  link_.IMLSendCommand(device, "DEF " + channel + " " + std::string(settings), false);
  link_.IMLSendCommand(device, "DEF " + channel + " N=" + rigName, false);
  records_.back().name = fixed13(rigName);
  changed();
  return true;
}

bool Channels::ClearMonitorChannel(std::string_view name) {
  std::string rigName;
  const std::string_view asked = name;
  if (!toRig(name, rigName)) return false;
  int16_t device = 0;
  if (!FindChannel(name, device)) {
    recordNameError(asked);
    return false;
  }
  link_.IMLSendCommand(device, "CLEAR " + std::string(name), false);
  if (!link_.IMLCheckReply(device)) return false;
  for (size_t i = 0; i < records_.size(); ++i) {
    if (records_[i].name == name) {
      records_.erase(records_.begin() + static_cast<ptrdiff_t>(i));
      changed();
      definitions_.erase(definitions_.begin() + static_cast<ptrdiff_t>(i));
      break;
    }
  }
  return true;
}

bool Channels::LoadSetup(const std::string& file) {
  if (link_.noHardware()) return true;
  SetupLoad load;
  int32_t result = link_.library().loadAndLockSetup(file, 0, load);
  if (result == link_result::kSetupBusy) {
    load = SetupLoad{};
    result = link_.library().loadAndLockSetup(file, 0, load);
  }
  if (result != link_result::kOk) {
    link_.SetIMLError(result, load.message);
    return false;
  }
  link_.setupLoaded(load.setupName.substr(0, kSetupNameLength));
  ReadSummary(load.summary);
  return true;
}

void Channels::ReadSummary(std::string_view summary) {
  present_.fill(false);
  highestDevice_ = -1;
  records_.clear();
  changed();
  definitions_.clear();
  size_t pos = 0;
  while (pos < summary.size()) {
    size_t end = summary.find('\n', pos);
    if (end == std::string_view::npos) end = summary.size();
    std::string_view line = summary.substr(pos, end - pos);
    pos = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && (line[0] == 'D' || line[0] == 'F')) continue;

    ChannelRecord record;
    definitions_.emplace_back(line.size() > 2 ? line.substr(2) : std::string_view{});
    const std::string line_(line);
    record.enabled = leadingNumber(ReplyField(line_, "E=", " ")) != 0;
    record.mode = ReplyField(line_, "M=", " ")[0];
    const size_t hwLength = line.size() > 7 && line[7] != ' ' ? 6 : 5;
    const std::string_view hw = line.size() > 2 ? line.substr(2, hwLength) : std::string_view{};
    if (hw.size() >= 4) {
      record.channelNumber = roundToInt16(leadingNumber(hw.substr(hw.size() - 4))).value_or(0);
      record.device = roundToInt16(leadingNumber(hw.substr(0, hw.size() - 4))).value_or(0);
    }
    if (record.device > highestDevice_ && record.device < 100) {
      highestDevice_ = record.device;
      present_[record.device] = true;
    }
    const std::string name = ReplyField(line_, "N=", " ");
    record.name = fixed13(name != " " ? std::string_view(name) : hw);
    record.units = fixed13(ReplyField(line_, "U=", " "));
    records_.push_back(std::move(record));
    changed();
  }
}

bool EncodeSmcCommand(std::string_view command, std::string& hex) {
  const std::string text = upperCase(trimLeft(command));
  hex.clear();
  auto append = [&hex](unsigned char c) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%X", c);
    hex += digits;
  };
  if (!text.empty()) {
    const char letter = text[0];
    append(static_cast<unsigned char>(letter));
    if (std::string_view("FNPRSX").find(letter) != std::string_view::npos) {
      for (char c : trimRight(std::string_view(text).substr(1)))
        append(static_cast<unsigned char>(c));
    }
  }
  hex += "0D";
  return hex.size() <= 16;
}

}  // namespace tavrix
