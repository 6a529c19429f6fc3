#include "instrument/outputs/alarms.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_support.h"
#include "sequencer/command_family.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

std::vector<std::string_view> splitAtCommas(std::string_view list) {
  std::vector<std::string_view> names;
  size_t begin = 0;
  for (;;) {
    const size_t comma = list.find(',', begin);
    names.push_back(list.substr(begin, comma - begin));
    if (comma == std::string_view::npos) return names;
    begin = comma + 1;
  }
}

// The alarm definitions of the run and a pause of their checks.
struct AlarmFamily final : CommandFamily {
  explicit AlarmFamily(Instrument& instrument) : instrument(instrument) {}

  Instrument& instrument;
  std::vector<AlarmDefinition> definitions;
  bool paused = false;
  Micros pausedUntil = 0;  // with `paused`, 0 for no end

  bool checking(Micros now) {
    if (paused && pausedUntil != 0 && now >= pausedUntil) paused = false;
    return !paused;
  }
};

void ShowDefinitions(Sequencer& seq, const AlarmFamily& state) {
  std::vector<std::string> labels;
  std::vector<std::string> commands;
  for (const auto& d : state.definitions) {
    labels.push_back(d.name);
    commands.push_back(d.command);
  }
  seq.operatorPort().showAlarmDefinitions(labels, commands);
}

enum class AlarmWait { kNamed, kNone };

void WaitForAlarms(Sequencer& seq, Instrument& instrument, AlarmWait kind, std::string_view name) {
  if (!OutputLinkReady(seq, instrument)) return;
  for (;;) {
    if (seq.waitEnds(WaitRule::kRunEnding)) return;
    if (seq.timeoutExpired()) {
      // The sequence time-out ran out: its action, as a WAIT takes it.
      seq.processPendingEvents();
      if (seq.takeTimeoutActionNow()) return;
    }
    const std::string active = GetActiveAlarms(instrument);
    if (kind == AlarmWait::kNamed ? AlarmListContains(active, name) : active.empty()) return;
    seq.processPendingEvents();
    seq.examineDefineTable();
    bool due = false;
    Timer poll(seq.events(), instrument.settings().waitPollInterval, [&due] { due = true; });
    poll.setEnabled(true);
    if (!seq.waitUntil([&] { return due || seq.waitEnds(WaitRule::kPollSleep); })) {
      return;
    }
  }
}

void AlarmDefine(AlarmFamily& state, Sequencer& seq, const CommandLine& cmd) {
  const std::string name(trim(cmd.arg1));
  std::string command(trim(cmd.arg2));
  if (!cmd.arg3.empty()) command += ", " + std::string(trimRight(cmd.arg3));
  if (name.empty()) {
    state.definitions.clear();
  } else {
    auto same = std::find_if(
        state.definitions.begin(), state.definitions.end(),
        [&](const AlarmDefinition& d) { return upperCase(d.name) == upperCase(name); });
    if (command.empty()) {
      if (same != state.definitions.end()) state.definitions.erase(same);
    } else if (same != state.definitions.end()) {
      same->command = command;
    } else {
      state.definitions.push_back({name, command});
    }
  }
  ShowDefinitions(seq, state);
}

void PauseAlarm(AlarmFamily& state, Sequencer& seq, const CommandLine& cmd) {
  const std::string word = upperCase(trim(cmd.arg1));
  if (word.empty() || word == "ON") {
    state.paused = true;
    state.pausedUntil = 0;
    return;
  }
  if (word == "OFF") {
    state.paused = false;
    return;
  }
  const double seconds = leadingNumber(word);
  const char c = word[0];
  const bool numeric = (c >= '0' && c <= '9') || c == '.' || c == '+';
  if (!numeric || !(seconds > 0) || !std::isfinite(seconds) || seconds > 1e9) {
    seq.reportSequenceError(PauseAlarmError(cmd.arg1));
    return;
  }
  state.paused = true;
  state.pausedUntil = seq.clock().now() + std::llround(seconds * kMicrosPerSecond);
}

}  // namespace

std::string GetActiveAlarms(Instrument& instrument) {
  ImlLink& link = instrument.link();
  Channels& channels = instrument.channels();
  std::string list;
  for (int16_t device = 0; device <= channels.highestDevice(); ++device) {
    if (!channels.devicePresent(device)) continue;
    link.events().processPendingEvents();
    std::string reply;
    if (!link.IMLSendReceive(device, kAlarmCountCommand, reply)) return {};
    std::string name;
    if (leadingNumber(BufferText(reply)) > 0) {
      reply.clear();
      if (!link.IMLSendReceive(device, kAlarmNamesCommand, reply)) return {};
      const size_t nul = reply.find('\0');
      if (nul != std::string::npos && nul >= 1) name = reply.substr(0, nul);
      if (name == "-") name.clear();
    }
    if (!list.empty()) list += ", ";
    list += name;
  }
  return list;
}

bool AlarmListContains(std::string_view activeList, std::string_view wanted) {
  const std::string target = upperCase(wanted);
  for (const auto name : splitAtCommas(activeList)) {
    if (upperCase(name).find(target) != std::string::npos) return true;
  }
  return false;
}

std::optional<std::string> MatchAlarmDefinitions(std::string_view activeList,
                                                 const std::vector<AlarmDefinition>& definitions) {
  if (activeList.empty()) return std::nullopt;
  for (const auto name : splitAtCommas(activeList)) {
    const std::string active = upperCase(name);
    for (const auto& d : definitions) {
      if (active.find(upperCase(d.name)) != std::string::npos) {
        return upperCase(trimRight(d.command));
      }
    }
  }
  return std::nullopt;
}

std::string PauseAlarmError(std::string_view text) {
  return "Invalid parameter - " + std::string(text) + " - for a PauseAlarm statement";
}

namespace {

constexpr std::string_view kFamily = "src/instrument/outputs/alarms.cc";
const Keyword<CommandLine> kWaitAlarm{"WAITALARM", kFamily, AsWritten};
const Keyword<CommandLine> kWaitNoAlarm{"WAITNOALARM", kFamily, AsWritten};
const Keyword<CommandLine> kAlarmDefine{"ALARMDEFINE", kFamily, AsWritten};
const Keyword<CommandLine> kPauseAlarm{"PAUSEALARM", kFamily, AsWritten};

void WaitAlarm(AlarmFamily& state, Sequencer& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty()) {
    seq.reportSequenceError(kTextWaitAlarmNoName);
    return;
  }
  WaitForAlarms(seq, state.instrument, AlarmWait::kNamed, trim(cmd.arg1));
}

void WaitNoAlarm(AlarmFamily& state, Sequencer& seq, const CommandLine&) {
  WaitForAlarms(seq, state.instrument, AlarmWait::kNone, {});
}

const FamilyTable<AlarmFamily>& AlarmTable() {
  static const FamilyTable<AlarmFamily> table{
      Handles(kWaitAlarm, WaitAlarm), Handles(kWaitNoAlarm, WaitNoAlarm),
      Handles(kAlarmDefine, AlarmDefine), Handles(kPauseAlarm, PauseAlarm)};
  return table;
}

}  // namespace

std::vector<KeywordEntry> AlarmKeywords() { return EntriesOf(AlarmTable()); }

void RegisterAlarmCommands(Sequencer& seq, Instrument& instrument) {
  AlarmFamily* state = &seq.addFamily(std::make_unique<AlarmFamily>(instrument));
  BindAll(seq.dispatcher(), *state, AlarmTable());
  seq.addPrepareHook([state, &seq] {
    state->definitions.clear();
    state->paused = false;
    ShowDefinitions(seq, *state);
  });
  // The definitions and a pause go on in a resumed run; a timed pause with
  // the time it had left.
  seq.addStatePart(
      "alarms",
      [state, &seq](nlohmann::json& part) {
        nlohmann::json definitions = nlohmann::json::array();
        for (const auto& d : state->definitions) definitions.push_back({d.name, d.command});
        part["definitions"] = std::move(definitions);
        part["paused"] = !state->checking(seq.clock().now());
        part["pausedLeft"] = state->paused && state->pausedUntil != 0
                                 ? nlohmann::json(state->pausedUntil - seq.clock().now())
                                 : nlohmann::json(nullptr);
      },
      [state, &seq](const nlohmann::json& part, std::string*) {
        state->definitions.clear();
        for (const auto& d : part.at("definitions"))
          state->definitions.push_back({d.at(0).get<std::string>(), d.at(1).get<std::string>()});
        state->paused = part.at("paused").get<bool>();
        const auto& left = part.at("pausedLeft");
        state->pausedUntil = left.is_null() ? 0 : seq.clock().now() + left.get<Micros>();
        ShowDefinitions(seq, *state);
        return true;
      });
  seq.addBetweenLinesCheck([state, &instrument](Sequencer& s) -> std::optional<std::string> {
    if (state->definitions.empty() || !state->checking(s.clock().now())) return std::nullopt;
    if (!instrument.ensureOpen()) return std::nullopt;
    return MatchAlarmDefinitions(GetActiveAlarms(instrument), state->definitions);
  });
}

}  // namespace tavrix
