#include "calcchan/calc_commands.h"

#include <nlohmann/json.hpp>

#include "calcchan/evaluation.h"
#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr std::string_view kFamily = "src/calcchan/calc_commands.cc";
const Keyword<CommandLine> kStartCalculatedChannels{"STARTCALCULATEDCHANNELS", kFamily, AsWritten};
const Keyword<CommandLine> kCcStart{"CC_START", kFamily, AsWritten};
const Keyword<CommandLine> kCcPause{"CC_PAUSE", kFamily, AsWritten};
const Keyword<CommandLine> kCcChangeLoggers{"CC_CHANGELOGGERS", kFamily, AsWritten};

}  // namespace

std::vector<KeywordEntry> CalcChannelKeywords() {
  return {Entry(kStartCalculatedChannels), Entry(kCcStart), Entry(kCcPause),
          Entry(kCcChangeLoggers)};
}

void RegisterCalcChannelCommands(Sequencer& sequencer, CalcChannels& calc) {
  Dispatcher& d = sequencer.dispatcher();
  d.bind(kStartCalculatedChannels, [&calc](Sequencer& seq, const CommandLine& cmd) {
    // A setup that cannot be loaded unloads the main window: the program
    // ends, on purpose, after the loader's message.
    if (!calc.startCalculatedChannels(trim(cmd.arg1), cmd.arg2)) seq.requestEnd(EndReason::kUnload);
  });
  d.bind(kCcStart, [&calc](Sequencer&, const CommandLine&) { calc.start(); });
  d.bind(kCcPause, [&calc](Sequencer&, const CommandLine&) { calc.pause(); });
  d.bind(kCcChangeLoggers, [&calc](Sequencer&, const CommandLine&) { calc.changeLoggers(); });
  sequencer.addStatePart(
      "calculatedChannels", [&calc](nlohmann::json& part) { calc.saveState(part); },
      [&calc](const nlohmann::json& part, std::string* error) {
        return calc.restoreState(part, error);
      });
}

}  // namespace tavrix
