// The sequence commands of the calculated channels:
//
//   STARTCALCULATEDCHANNELS file, ticks   load a setup (the timer stays stopped);
//                                         a setup that cannot be loaded ends the
//                                         program after its message
//   CC_START                              enable the CalcTimer
//   CC_PAUSE                              disable the CalcTimer
//   CC_CHANGELOGGERS                      write the daily summary and restart the
//                                         day's accumulation at a change of logger
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class CalcChannels;
class Sequencer;

std::vector<KeywordEntry> CalcChannelKeywords();
void RegisterCalcChannelCommands(Sequencer& sequencer, CalcChannels& calc);

}  // namespace tavrix
