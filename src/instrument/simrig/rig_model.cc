#include "instrument/simrig/rig_model.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "common/text_conventions.h"

namespace tavrix {
namespace {

constexpr Micros kJitterSlot = 100'000;  // the noise changes every 100 ms
constexpr Micros kFollowStep = 250'000;  // integration step of FOLLOW/LAG
constexpr int64_t kMaxFollowSteps = 20'000;

// Whether a channel's "E=" setting enables it: its leading number is not 0.
// The usual setting is one digit, which needs no full conversion.
bool enabled(const SimChannel& channel) {
  const std::string& text = channel.enabled;
  if (text.size() == 1 && text[0] >= '0' && text[0] <= '9') return text[0] != '0';
  return leadingNumber(text) != 0;
}

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

}  // namespace

std::string RigNumberText(double value) {
  char text[32];
  return std::string(text, writeGeneral(value, 10, text));
}

void RigModel::load(RigSetup setup) {
  setup_ = std::move(setup);
  tableChanged();
  loaded_ = true;
  state_ = {};
  anyFollow_ = false;
  for (const auto& c : setup_.channels) anyFollow_ = anyFollow_ || !c.follow.empty();
  lastAdvance_ = 0;
}

void RigModel::tableChanged() {
  static std::atomic<uint64_t> generations{0};
  indexValid_ = false;
  generation_ = ++generations;
}

template <class Visit>
bool RigModel::visitIndexed(std::string_view key, Visit&& visit) {
  if (!indexValid_) {
    index_.clear(setup_.channels.size() * 2);
    for (size_t i = 0; i < setup_.channels.size(); ++i) {
      const SimChannel& c = setup_.channels[i];
      index_.add(c.name, i, 0);
      if (c.hardwareText != c.name) index_.add(c.hardwareText, i, 1);
    }
    indexValid_ = true;
  }
  return index_.find(key, [&](size_t i, unsigned tag) {
    const SimChannel& c = setup_.channels[i];
    return (tag == 0 ? c.name : c.hardwareText) == key && visit(i);
  });
}

SimChannel* RigModel::find(int device, std::string_view nameOrHardware) {
  SimChannel* found = nullptr;
  visitIndexed(nameOrHardware, [&](size_t i) {
    if (setup_.channels[i].device != device) return false;
    found = &setup_.channels[i];
    return true;
  });
  return found;
}

SimChannel* RigModel::findAnyDevice(std::string_view name) {
  SimChannel* found = nullptr;
  visitIndexed(name, [&](size_t i) {
    found = &setup_.channels[i];
    return true;
  });
  return found;
}

double RigModel::followTarget(const SimChannel& channel) {
  const SimChannel* source = findAnyDevice(channel.follow);
  if (source == nullptr) return channel.value;
  return channel.gain * (source->value + source->offset) + channel.bias;
}

void RigModel::advance(Micros now) {
  if (!anyFollow_) return;
  if (lastAdvance_ == 0 || now <= lastAdvance_) {
    if (lastAdvance_ == 0) lastAdvance_ = now;
    return;
  }
  const Micros span = now - lastAdvance_;
  const Micros step = std::max<Micros>(kFollowStep, span / kMaxFollowSteps + 1);
  for (Micros done = 0; done < span;) {
    const Micros h = std::min(step, span - done);
    const double seconds = static_cast<double>(h) / 1e6;
    std::vector<double> targets;
    targets.reserve(setup_.channels.size());
    for (const auto& c : setup_.channels) targets.push_back(c.follow.empty() ? 0 : followTarget(c));
    for (size_t i = 0; i < setup_.channels.size(); ++i) {
      SimChannel& c = setup_.channels[i];
      if (c.follow.empty()) continue;
      const double keep = c.lag > 0 ? std::exp(-seconds / c.lag) : 0.0;
      c.value = targets[i] + (c.value - targets[i]) * keep;
    }
    done += h;
  }
  lastAdvance_ = now;
}

double RigModel::reading(const SimChannel& channel, Micros now) {
  const double raw =
      channel.follow.empty() || channel.lag > 0 ? channel.value : followTarget(channel);
  double noise = 0;
  if (channel.jitter != 0) {
    const uint64_t seed = mix(static_cast<uint64_t>(channel.device) * 10000 + channel.number) ^
                          mix(static_cast<uint64_t>(now / kJitterSlot));
    const double unit = static_cast<double>(mix(seed) >> 11) / static_cast<double>(1ULL << 53);
    noise = channel.jitter * (2 * unit - 1);
  }
  return raw + noise + channel.offset;
}

void RigModel::reportOk(DeviceState& state) {
  // Most commands succeed after one that succeeded: nothing to change then.
  if (state.report.size() != 1 || state.report[0] != '0') state.report.assign(1, '0');
}

std::string RigModel::fail(DeviceState& state, int code, std::string_view text) {
  state.report = std::to_string(code) + " " + std::string(text);
  return "ERR " + state.report;
}

bool RigModel::define(SimChannel& channel, std::string_view settings) {
  SimChannel changed = channel;
  if (!ApplyChannelSettings(changed, settings).empty()) return false;
  if (!changed.follow.empty() && findAnyDevice(changed.follow) == nullptr) return false;
  // A channel that starts to follow another starts where that one stands.
  if (!changed.follow.empty() && changed.follow != channel.follow) {
    changed.value = followTarget(changed);
  }
  channel = std::move(changed);
  tableChanged();
  if (!channel.follow.empty()) anyFollow_ = true;
  return true;
}

std::string RigModel::activeAlarms(int device, Micros now, int& count) {
  count = 0;
  std::string names;
  for (const auto& c : setup_.channels) {
    if (c.device != device || (!c.high && !c.low)) continue;
    const double r = reading(c, now);
    if ((c.high && r > *c.high) || (c.low && r < *c.low)) {
      ++count;
      if (!names.empty()) names += ", ";
      names += c.tag.empty() ? (c.name.empty() ? c.hardwareText : c.name) : c.tag;
    }
  }
  return names;
}

namespace {

// The command word upper-cased; the usual short one in `shortWord`, without
// a copy on the heap, a longer one in `longWord`.
std::string_view upperCaseWord(std::string_view written, char (&shortWord)[8],
                               std::string& longWord) {
  if (written.size() <= sizeof shortWord) {
    for (size_t i = 0; i < written.size(); ++i) {
      const char c = written[i];
      shortWord[i] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return std::string_view(shortWord, written.size());
  }
  longWord = upperCase(written);
  return longWord;
}

// What SHO answers: the channel's settings as DEF takes them.
std::string settingsText(const SimChannel& channel) {
  std::string text = "E=" + channel.enabled + " M=" + channel.mode;
  if (!channel.name.empty()) text += " N=" + channel.name;
  if (!channel.units.empty()) text += " U=" + channel.units;
  text += " O=" + RigNumberText(channel.offset);
  return text;
}

}  // namespace

std::string RigModel::execute(int device, std::string_view command, Micros now) {
  DeviceState& state = state_[device];
  advance(now);
  command = trim(command);
  const size_t blank = command.find(' ');
  char shortWord[8];
  std::string longWord;
  const std::string_view word = upperCaseWord(command.substr(0, blank), shortWord, longWord);
  const std::string_view rest =
      blank == std::string_view::npos ? std::string_view{} : trimLeft(command.substr(blank + 1));
  if (word == "REP") return state.report;
  if (word == "ALA") return alarmAnswer(state, device, rest, now);
  const size_t nameEnd = rest.find(' ');
  const std::string_view channelName = rest.substr(0, nameEnd);
  const std::string_view argument =
      nameEnd == std::string_view::npos ? std::string_view{} : trimLeft(rest.substr(nameEnd + 1));
  if (word != "REA" && word != "WRI" && word != "SHO" && word != "DEF" && word != "ESC" &&
      word != "CLEAR") {
    return fail(state, rig_error::kBadCommand, "bad command");
  }
  SimChannel* channel = find(device, channelName);
  if (channel == nullptr) return fail(state, rig_error::kBadChannel, "bad channel");
  if (word == "REA") {
    if (!enabled(*channel)) {
      return fail(state, rig_error::kDisabled, "channel disabled");
    }
    reportOk(state);
    return RigNumberText(reading(*channel, now));
  }
  if (word == "WRI") {
    if (!enabled(*channel)) {
      return fail(state, rig_error::kDisabled, "channel disabled");
    }
    channel->value = leadingNumber(argument);
    reportOk(state);
    return "0";
  }
  if (word == "SHO") {
    reportOk(state);
    return settingsText(*channel);
  }
  if (word == "DEF") {
    if (!define(*channel, argument)) return fail(state, rig_error::kBadSetting, "bad setting");
    reportOk(state);
    return "0";
  }
  if (word == "ESC") {
    channel->escape = std::string(argument);
    reportOk(state);
    return "0";
  }
  // CLEAR
  if (!channel->monitor) return fail(state, rig_error::kNotMonitor, "not a monitor channel");
  setup_.channels.erase(setup_.channels.begin() + (channel - setup_.channels.data()));
  tableChanged();
  reportOk(state);
  return "0";
}

std::string RigModel::alarmAnswer(DeviceState& state, int device, std::string_view what,
                                  Micros now) {
  const std::string which = upperCase(trim(what));
  int count = 0;
  const std::string names = activeAlarms(device, now, count);
  if (which == "T") {
    reportOk(state);
    return std::to_string(count);
  }
  if (which == "N") {
    reportOk(state);
    return names.empty() ? "-" : names;
  }
  return fail(state, rig_error::kBadCommand, "bad command");
}

// --- Exchanges at once ---------------------------------------------------------

namespace {

constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6, 1e7,
                                   1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14};

// Whether `name` goes into a command and comes out of it as the channel's
// name: not empty, and nothing the device would take for a separator.
bool plainName(std::string_view name) {
  if (name.empty()) return false;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) <= ' ') return false;
  }
  return true;
}

// The number that RigNumberText's text of `raw` reads as (leadingNumber), when
// that text is a plain decimal: ten significant digits at most and no
// exponent. Its digits over a power of ten are what the reading of the text
// divides too; both are exact doubles, so the one division rounds alike.
bool plainReading(double raw, double& value) {
  if (raw == 0) {
    value = raw;  // "0" or "-0"
    return true;
  }
  uint64_t digits = 0;
  int exponent = 0;
  if (!roundedDigits(raw, 10, digits, exponent) || exponent < -4 || exponent > 9) return false;
  value = static_cast<double>(digits) / kPowersOfTen[9 - exponent];
  if (raw < 0) value = -value;
  return true;
}

}  // namespace

bool RigModel::answersAtOnce(int device) const {
  if (device < 0 || device > 99) return false;
  const SimDeviceConfig& config = setup_.devices[device];
  return !config.silent && config.notReadyPolls == 0 && config.latencyMs == 0;
}

SimChannel* RigModel::findHinted(int device, std::string_view name, DirectHint& hint) {
  if (hint.generation == generation_ && generation_ != 0) return &setup_.channels[hint.slot];
  SimChannel* channel = find(device, name);
  if (channel != nullptr) {
    hint.generation = generation_;
    hint.slot = static_cast<size_t>(channel - setup_.channels.data());
  }
  return channel;
}

void RigModel::answered(DeviceState& state, Micros now) {
  reportOk(state);
  state.reply.clear();
  state.replyPending = false;
  state.pollsLeft = 0;
  state.readyAt = now;
}

bool RigModel::readNow(int device, std::string_view name, DirectHint& hint, Micros now, double& raw,
                       double& value) {
  if (!answersAtOnce(device) || name.size() + 4 >= kCommandBufferLength || !plainName(name)) {
    return false;
  }
  SimChannel* channel = findHinted(device, name, hint);
  if (channel == nullptr || !enabled(*channel)) return false;
  advance(now);
  raw = reading(*channel, now);
  if (!plainReading(raw, value)) return false;
  answered(state_[device], now);
  return true;
}

bool RigModel::writeNow(int device, std::string_view name, std::string_view value, DirectHint& hint,
                        Micros now) {
  if (!answersAtOnce(device) || name.size() + value.size() + 5 >= kCommandBufferLength ||
      !plainName(name) || std::memchr(value.data(), '\0', value.size()) != nullptr) {
    return false;
  }
  SimChannel* channel = findHinted(device, name, hint);
  if (channel == nullptr || !enabled(*channel)) return false;
  advance(now);
  channel->value = leadingNumber(value);
  answered(state_[device], now);
  return true;
}

int32_t RigModel::send(int device, std::string_view command, Micros now) {
  if (device < 0 || device > 99) return link_result::kBadDevice;
  const SimDeviceConfig& config = setup_.devices[device];
  if (config.silent) return link_result::kNotReady;
  DeviceState& state = state_[device];
  state.reply = execute(device, command, now);
  state.replyPending = true;
  state.pollsLeft = config.notReadyPolls;
  state.readyAt = now + static_cast<Micros>(config.latencyMs) * 1000;
  return link_result::kOk;
}

bool RigModel::replyReadyNow(int device, Micros now) const {
  if (device < 0 || device > 99) return false;
  const DeviceState& state = state_[device];
  return state.replyPending && state.pollsLeft == 0 && now >= state.readyAt;
}

int32_t RigModel::reply(int device, Micros now, std::string& text) {
  if (device < 0 || device > 99) return link_result::kBadDevice;
  DeviceState& state = state_[device];
  if (!state.replyPending) return kRigNothingToFetch;
  if (state.pollsLeft > 0) {
    --state.pollsLeft;
    return link_result::kNotReady;
  }
  if (now < state.readyAt) return link_result::kNotReady;
  state.replyPending = false;
  text = std::move(state.reply);
  return link_result::kOk;
}

void RigModel::abort(int device) {
  if (device >= 0 && device <= 99) state_[device].replyPending = false;
}

int32_t RigModel::requestMonitor(std::string_view setupName, int device, int16_t& channelNumber) {
  if (!loaded_ || trimRight(setupName) != setup_.name) return link_result::kSetupNotLoaded;
  if (device < 0 || device > 99 || !setup_.devices[device].present) {
    return link_result::kNoMonitorChannels;
  }
  int used = 0;
  for (const auto& c : setup_.channels) used += c.device == device && c.monitor ? 1 : 0;
  if (used >= setup_.devices[device].monitors) return link_result::kNoMonitorChannels;
  for (int number = 9000; number <= 9999; ++number) {
    if (find(device, std::to_string(device) + formatNumber(number, "0000")) != nullptr) continue;
    SimChannel c;
    c.device = device;
    c.number = number;
    c.hardwareText = std::to_string(device) + formatNumber(number, "0000");
    c.monitor = true;
    c.enabled = "0";
    c.mode = "Z";
    setup_.channels.push_back(std::move(c));
    tableChanged();
    channelNumber = static_cast<int16_t>(number);
    return link_result::kOk;
  }
  return link_result::kNoMonitorChannels;
}

}  // namespace tavrix
