#include "calcchan/calc_commands.h"

#include "calcchan/evaluation.h"
#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

void RegisterCalcChannelCommands(Sequencer& sequencer, CalcChannels& calc) {
  Dispatcher& d = sequencer.dispatcher();
  d.registerHandler("STARTCALCULATEDCHANNELS", [&calc](Sequencer& seq, const CommandLine& cmd) {
    // A setup that cannot be loaded unloads the main window: the program
    // ends, on purpose, after the loader's message.
    if (!calc.startCalculatedChannels(trim(cmd.arg1), cmd.arg2)) seq.requestEnd(EndReason::kUnload);
  });
  d.registerHandler("CC_START", [&calc](Sequencer&, const CommandLine&) { calc.start(); });
  d.registerHandler("CC_PAUSE", [&calc](Sequencer&, const CommandLine&) { calc.pause(); });
  d.registerHandler("CC_CHANGELOGGERS", [&calc](Sequencer&, const CommandLine&) { calc.changeLoggers(); });
}

}  // namespace tavrix
