#include "calcchan/calc_commands.h"

#include <algorithm>
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
  // The analysis results that FORMULA rows named, and the waveforms CUT
  // made (a loaded waveform is loaded again from its file when named).
  sequencer.addStatePart(
      "analysis",
      [&calc](nlohmann::json& part) {
        Analyser& analyser = calc.analyser();
        nlohmann::json results = nlohmann::json::array();
        for (const auto& result : analyser.namedResults())
          results.push_back({result.name, result.value});
        nlohmann::json waveforms = nlohmann::json::array();
        for (const auto& waveform : analyser.waveforms()) {
          const auto& d = waveform.description;
          if (std::find(d.begin(), d.end(), kCreatedMarker) == d.end()) continue;
          waveforms.push_back({waveform.name, waveform.description, waveform.samples});
        }
        part["results"] = std::move(results);
        part["waveforms"] = std::move(waveforms);
      },
      [&calc](const nlohmann::json& part, std::string*) {
        Analyser& analyser = calc.analyser();
        analyser.clear();
        for (const auto& result : part.at("results"))
          analyser.namedResults().push_back(
              {result.at(0).get<std::string>(), result.at(1).get<float>()});
        for (const auto& waveform : part.at("waveforms"))
          analyser.waveforms().push_back({waveform.at(0).get<std::string>(),
                                          waveform.at(1).get<std::vector<std::string>>(),
                                          waveform.at(2).get<std::vector<double>>()});
        return true;
      });
}

}  // namespace tavrix
