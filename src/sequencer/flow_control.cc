// GOTO, STOP, NONSTOP, ABORTTEST, ENDTAVRIX and the loop counter. A jump
// searches its label at once, inside the command; the run goes on with the
// line after the label.

#include "sequencer/flow_control.h"

#include <climits>

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr std::string_view kLoopCountOverrun = "Loop Count overrun - exiting loop";

void Goto(Sequencer& seq, const CommandLine& cmd) { seq.searchLabel(cmd.arg1); }

void Stop(Sequencer& seq, const CommandLine&) { seq.requestEnd(EndReason::kStop); }

void NonStop(Sequencer& seq, const CommandLine&) {
  seq.setStopAllowed(false);
  seq.setMustNotBeStopped();
}

// The first argument as a 32-bit count: what RESETLOOPCOUNT sets and what
// LOOPCHECK compares with; an absent value resets the count to 0.
struct CountCommand {
  int32_t count = 0;
  std::string label;
};

Parsed<CountCommand> ParseCount(const CommandLine& cmd, std::string_view what) {
  const auto value = roundToInt32(leadingNumber(cmd.arg1));
  if (!value) {
    return ParseFailure{"Invalid parameter - " + cmd.arg1 + " - for a " + std::string(what) +
                        " statement"};
  }
  return CountCommand{*value, cmd.arg2};
}

Parsed<CountCommand> ParseResetLoopCount(const CommandLine& cmd) {
  if (cmd.arg1.empty()) return CountCommand{};
  return ParseCount(cmd, "ResetLoopCount");
}

Parsed<CountCommand> ParseLoopCheck(const CommandLine& cmd) { return ParseCount(cmd, "LoopCheck"); }

void ResetLoopCount(Sequencer& seq, const CountCommand& cmd) { seq.setLoopCount(cmd.count); }

void IncrementLoopCount(LoopCountOutput* output, Sequencer& seq, const CommandLine& cmd) {
  const std::string_view channel = trim(cmd.arg1);
  if (!channel.empty() && (output == nullptr || !output->available())) {
    seq.reportSequenceError(Dispatcher::notAvailableText("INCREMENTLOOPCOUNT " + cmd.arg1));
    return;
  }
  if (seq.loopCount() == INT32_MAX) {
    seq.showMessage(kLoopCountOverrun);
    return;
  }
  seq.setLoopCount(seq.loopCount() + 1);
  if (!channel.empty()) output->write(seq, channel, seq.loopCount());
}

void LoopCheck(Sequencer& seq, const CountCommand& cmd) {
  bool leave;
  if (seq.loopCount() == INT32_MAX) {
    seq.showMessage(kLoopCountOverrun);
    leave = true;
  } else {
    seq.setLoopCount(seq.loopCount() + 1);
    leave = seq.loopCount() > cmd.count;
  }
  if (leave) seq.searchLabel(cmd.label);
}

// ABORTTEST [message]: the test is abandoned. The message, when given, is
// shown first; the run then ends as if Stop had been pressed.
void AbortTest(Sequencer& seq, const CommandLine& cmd) {
  if (!trim(cmd.arg1).empty()) seq.showMessage(cmd.arg1);
  seq.requestAbort();
}

// ENDTAVRIX: the run ends after this line and the program closes (the
// must-not-be-stopped question is not asked: the sequence itself asks).
void EndTavrix(Sequencer& seq, const CommandLine&) {
  seq.requestQuit();
  seq.requestEnd(EndReason::kStop);
}

constexpr std::string_view kFamily = "src/sequencer/flow_control.cc";
const Keyword<CommandLine> kGoto{"GOTO", kFamily, AsWritten};
const Keyword<CommandLine> kStop{"STOP", kFamily, AsWritten};
const Keyword<CommandLine> kNonStop{"NONSTOP", kFamily, AsWritten};
const Keyword<CountCommand> kResetLoopCount{"RESETLOOPCOUNT", kFamily, ParseResetLoopCount};
const Keyword<CommandLine> kIncrementLoopCount{"INCREMENTLOOPCOUNT", kFamily, AsWritten};
const Keyword<CountCommand> kLoopCheck{"LOOPCHECK", kFamily, ParseLoopCheck};
const Keyword<CommandLine> kAbortTest{"ABORTTEST", kFamily, AsWritten};
const Keyword<CommandLine> kEndTavrix{"ENDTAVRIX", kFamily, AsWritten};

}  // namespace

std::vector<KeywordEntry> FlowControlKeywords() {
  return {Entry(kGoto),
          Entry(kStop),
          Entry(kNonStop),
          Entry(kResetLoopCount),
          Entry(kIncrementLoopCount),
          Entry(kLoopCheck),
          Entry(kAbortTest),
          Entry(kEndTavrix)};
}

void RegisterFlowControlCommands(Sequencer& seq, LoopCountOutput* loopCount) {
  auto& d = seq.dispatcher();
  d.bind(kGoto, Goto);
  d.bind(kStop, Stop);
  d.bind(kNonStop, NonStop);
  d.bind(kResetLoopCount, ResetLoopCount);
  d.bind(kIncrementLoopCount,
         [loopCount](Sequencer& s, const CommandLine& c) { IncrementLoopCount(loopCount, s, c); });
  d.bind(kLoopCheck, LoopCheck);
  d.bind(kAbortTest, AbortTest);
  d.bind(kEndTavrix, EndTavrix);
}

}  // namespace tavrix
