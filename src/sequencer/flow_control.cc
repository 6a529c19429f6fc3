// GOTO, STOP, NONSTOP, ABORTTEST, ENDTAVRIX and the loop counter. A jump searches its label at once,
// inside the command; the run goes on with the line after the label.

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
  seq.setStopEnabled(false);
  seq.flags().mustNotBeStopped = true;
}

// The first argument as a 32-bit count; an out-of-range number is reported.
std::optional<int32_t> CountArgument(Sequencer& seq, const CommandLine& cmd, std::string_view what) {
  const auto value = roundToInt32(leadingNumber(cmd.arg1));
  if (!value) {
    seq.reportSequenceError("Invalid parameter - " + cmd.arg1 + " - for a " + std::string(what) +
                            " statement");
  }
  return value;
}

void ResetLoopCount(Sequencer& seq, const CommandLine& cmd) {
  if (cmd.arg1.empty()) {
    seq.loopCount = 0;
    return;
  }
  if (const auto value = CountArgument(seq, cmd, "ResetLoopCount")) seq.loopCount = *value;
}

void IncrementLoopCount(Sequencer& seq, const CommandLine& cmd) {
  if (!trim(cmd.arg1).empty()) {
    // Publishing the count to a channel needs the instrument link.
    seq.reportSequenceError(Dispatcher::notAvailableText("INCREMENTLOOPCOUNT " + cmd.arg1));
    return;
  }
  if (seq.loopCount == INT32_MAX) {
    seq.showMessage(kLoopCountOverrun);
    return;
  }
  ++seq.loopCount;
}

void LoopCheck(Sequencer& seq, const CommandLine& cmd) {
  const auto limit = CountArgument(seq, cmd, "LoopCheck");
  if (!limit) return;
  bool leave;
  if (seq.loopCount == INT32_MAX) {
    seq.showMessage(kLoopCountOverrun);
    leave = true;
  } else {
    ++seq.loopCount;
    leave = seq.loopCount > *limit;
  }
  if (leave) seq.searchLabel(cmd.arg2);
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
  seq.flags().quitRequested = true;
  seq.requestEnd(EndReason::kStop);
}

}  // namespace

void RegisterFlowControlCommands(Sequencer& seq) {
  auto& d = seq.dispatcher();
  d.registerHandler("GOTO", Goto);
  d.registerHandler("STOP", Stop);
  d.registerHandler("NONSTOP", NonStop);
  d.registerHandler("RESETLOOPCOUNT", ResetLoopCount);
  d.registerHandler("INCREMENTLOOPCOUNT", IncrementLoopCount);
  d.registerHandler("LOOPCHECK", LoopCheck);
  d.registerHandler("ABORTTEST", AbortTest);
  d.registerHandler("ENDTAVRIX", EndTavrix);
}

}  // namespace tavrix
