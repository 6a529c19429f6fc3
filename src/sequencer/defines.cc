// The define table, EXECUTEDEFINE and the sequence time-out (ONTIMEOUT).
//
// A define is a named command line held in memory:
//   EXECUTEDEFINE name, command line   defines (or redefines) `name`
//   EXECUTEDEFINE name                 runs the define's command line now
//   EXECUTEDEFINE                      empties the define table
// ONTIMEOUT arms the sequence time-out:
//   ONTIMEOUT seconds, target          deadline = now + seconds
//   ONTIMEOUT 0   (or no argument)     disarms it
// The target is a define when one of that name exists, else a label. The
// seconds timer counts down to the deadline; the waits examine the define
// table at every turn, and once the time-out has expired the examination
// makes the time-out pending, which ends the wait. The run loop then runs
// the define, or searches the label, before the next line is read. A
// time-out fires once; a further one needs a further ONTIMEOUT.

#include "sequencer/defines.h"

#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>

#include "common/text_conventions.h"
#include "sequencer/command_family.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

// Defines that run defines: beyond this depth the chain is taken to loop.
constexpr int kMaxDefineDepth = 8;

// The defines of the file and the armed time-out.
struct DefineFamily final : CommandFamily {
  bool armed = false;
  std::string target;
  int depth = 0;
};

const DefineEntry* FindDefine(Sequencer& seq, std::string_view name) {
  const std::string wanted = upperCase(trim(name));
  if (wanted.empty()) return nullptr;
  for (const auto& entry : seq.defineTable()) {
    if (upperCase(trim(entry.first)) == wanted) return &entry;
  }
  return nullptr;
}

void RunDefine(DefineFamily& state, Sequencer& seq, std::string_view name) {
  const DefineEntry* entry = FindDefine(seq, name);
  if (!entry) {
    seq.reportSequenceError("Define " + std::string(trim(name)) + ": does not exist");
    return;
  }
  if (state.depth >= kMaxDefineDepth) {
    seq.reportSequenceError("ExecuteDefine - defines run each other more than " +
                            std::to_string(kMaxDefineDepth) + " deep: " + std::string(trim(name)));
    return;
  }
  std::string line = entry->second;  // the table may change while it runs
  if (seq.trace().enabled())
    seq.trace().event("define").field("name", trim(name)).field("text", line);
  const CommandLine command = SplitCommandLine(line);
  seq.showCurrentCommand(line);
  ++state.depth;
  seq.dispatcher().run(seq, command);
  --state.depth;
}

// EXECUTEDEFINE [name[, command line]]: the command line is the second
// argument and, behind ", ", the third.
struct DefineCommand {
  std::string name;
  std::string text;
};

Parsed<DefineCommand> ParseExecuteDefine(const CommandLine& cmd) {
  DefineCommand define{std::string(trim(cmd.arg1)), std::string(trim(cmd.arg2))};
  if (!cmd.arg3.empty()) define.text += ", " + cmd.arg3;
  if (define.name.empty() && !define.text.empty()) {
    return ParseFailure{"ExecuteDefine - a define needs a name: " + define.text};
  }
  return define;
}

void ExecuteDefine(DefineFamily& state, Sequencer& seq, const DefineCommand& cmd) {
  const std::string& name = cmd.name;
  const std::string& text = cmd.text;
  if (name.empty()) {
    seq.addDefine({});
    return;
  }
  if (text.empty()) {
    RunDefine(state, seq, name);
    return;
  }
  std::string copy = text;
  const bool isChain = SplitCommandLine(copy).word == "CHAIN";
  if (!seq.replaceDefine(name, text, isChain)) seq.addDefine({name, text, isChain});
}

// ONTIMEOUT [seconds[, target]]: no seconds, or 0, disarms.
struct TimeoutCommand {
  double seconds = 0;
  std::string target;
};

Parsed<TimeoutCommand> ParseOnTimeout(const CommandLine& cmd) {
  const std::string_view seconds = trim(cmd.arg1);
  const double value = leadingNumber(seconds);
  const bool numeric = !seconds.empty() &&
                       std::string_view("+-.0123456789").find(seconds[0]) != std::string_view::npos;
  if (!seconds.empty() &&
      (!numeric || value < 0 || !std::isfinite(value) || value > 2147483647.0)) {
    return ParseFailure{"Invalid parameter - " + cmd.arg1 + " - for an OnTimeout statement"};
  }
  TimeoutCommand timeout{value, std::string(trim(cmd.arg2))};
  if (value > 0 && timeout.target.empty()) {
    return ParseFailure{"OnTimeout - no label or define to go to after " + std::string(seconds) +
                        " seconds"};
  }
  return timeout;
}

void OnTimeout(DefineFamily& state, Sequencer& seq, const TimeoutCommand& cmd) {
  const double value = cmd.seconds;
  if (!(value > 0)) {
    state.armed = false;
    state.target.clear();
    seq.cancelTimeout();
    return;
  }
  const std::string& target = cmd.target;
  state.armed = true;
  state.target = target;
  seq.setJumpTarget(target, FindDefine(seq, target) != nullptr);
  seq.setTimeoutDeadline(seq.clock().now() +
                         static_cast<Micros>(std::ceil(value * kMicrosPerSecond)));
}

// The time-out has fired: it is spent (disarmed, its expired flag cleared,
// the seconds timer off) and its target becomes the jump target, a define
// when one of that name exists now. False when none was armed.
bool SpendTimeout(DefineFamily& state, Sequencer& seq) {
  if (!state.armed) return false;
  state.armed = false;
  seq.cancelTimeout();
  seq.setJumpTarget(state.target, FindDefine(seq, state.target) != nullptr);
  if (seq.trace().enabled()) {
    seq.trace()
        .event("timeout")
        .field("target", state.target)
        .field("define", seq.jumpTargetIsDefine());
  }
  return true;
}

void ExamineDefines(DefineFamily& state, Sequencer& seq) {
  if (!seq.timeoutExpired() || seq.timeoutPending()) return;
  if (SpendTimeout(state, seq)) {
    seq.makeTimeoutPending();
  } else {
    seq.cancelTimeout();  // an expired flag with nothing armed behind it
  }
}

constexpr std::string_view kFamily = "src/sequencer/defines.cc";
const Keyword<DefineCommand> kExecuteDefine{"EXECUTEDEFINE", kFamily, ParseExecuteDefine};
const Keyword<TimeoutCommand> kOnTimeout{"ONTIMEOUT", kFamily, ParseOnTimeout};

const FamilyTable<DefineFamily>& DefineTable() {
  static const FamilyTable<DefineFamily> table{Handles(kExecuteDefine, ExecuteDefine),
                                               Handles(kOnTimeout, OnTimeout)};
  return table;
}

}  // namespace

std::vector<KeywordEntry> DefineKeywords() { return EntriesOf(DefineTable()); }

void RegisterDefineCommands(Sequencer& seq) {
  DefineFamily* state = &seq.addFamily(std::make_unique<DefineFamily>());
  BindAll(seq.dispatcher(), *state, DefineTable());
  seq.setDefineActions(
      [state](Sequencer& s) { ExamineDefines(*state, s); },
      [state](Sequencer& s, const std::string& name) { RunDefine(*state, s, name); },
      [state](Sequencer& s) { return SpendTimeout(*state, s); });
  auto disarm = [state, &seq] {
    state->armed = false;
    state->target.clear();
    state->depth = 0;
    seq.cancelTimeout();
  };
  seq.addPrepareHook(disarm);
  seq.addStopHook(disarm);
  // The armed time-out and its target go on after a resume (its deadline is
  // the sequencer's).
  seq.addStatePart(
      "timeout",
      [state](nlohmann::json& part) {
        part["armed"] = state->armed;
        part["target"] = state->target;
      },
      [state](const nlohmann::json& part, std::string*) {
        state->armed = part.at("armed").get<bool>();
        state->target = part.at("target").get<std::string>();
        state->depth = 0;
        return true;
      });
}

}  // namespace tavrix
