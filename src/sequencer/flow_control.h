// GOTO, STOP, NONSTOP, ABORTTEST, ENDTAVRIX and the loop count commands
// (RESETLOOPCOUNT, INCREMENTLOOPCOUNT, LOOPCHECK).
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

// Where INCREMENTLOOPCOUNT writes the count when its line names a channel:
// the instrument's channels, once one is attached.
class LoopCountOutput {
 public:
  virtual ~LoopCountOutput() = default;
  // False while there is nothing to write to: a line that names a channel
  // then ends the run as a command that is not available.
  virtual bool available() const = 0;
  // Writes the count; a failure is reported as a sequence error.
  virtual void write(Sequencer& sequencer, std::string_view channel, int32_t count) = 0;
};

std::vector<KeywordEntry> FlowControlKeywords();
// Without `loopCount` (nullptr) INCREMENTLOOPCOUNT with a channel is not
// available.
void RegisterFlowControlCommands(Sequencer& sequencer, LoopCountOutput* loopCount = nullptr);

}  // namespace tavrix
