// The operator message panel (CONTINUEOK, ENTEROKCANCEL), the error display
// switch and the help text section.

#include "sequencer/operator_panel.h"

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr std::string_view kHelpEnd = "[END]";

void ContinueOk(Sequencer& seq, const CommandLine& cmd) {
  Question question;
  question.kind = "CONTINUEOK";
  question.text = cmd.arg1;
  question.buttons = {"Continue"};
  seq.ask(question);
}

void EnterOkCancel(Sequencer& seq, const CommandLine& cmd) {
  Question question;
  question.kind = "ENTEROKCANCEL";
  question.text = cmd.arg1;
  question.buttons = {"OK", "Cancel"};
  const Answer answer = seq.ask(question);
  if (!answer || *answer == "OK") return;
  seq.searchLabel(cmd.arg2);
}

// Lines up to the first one that begins "[END]" make the help text.
void HelpText(Sequencer& seq, const CommandLine&) {
  std::string text;
  std::string line;
  bool first = true;
  while (seq.readSectionLine(line)) {
    if (upperCase(std::string_view(line).substr(0, kHelpEnd.size())) == kHelpEnd) break;
    if (first) {
      text = line;
      first = false;
    } else {
      text += "\r\n" + line;
    }
    seq.operatorPort().showHelpText(text);
    seq.processPendingEvents();
  }
}

}  // namespace

void RegisterOperatorPanelCommands(Sequencer& seq) {
  auto& d = seq.dispatcher();
  d.registerHandler("CONTINUEOK", ContinueOk);
  d.registerHandler("ENTEROKCANCEL", EnterOkCancel);
  d.registerHandler("SHOWERROROFF", [](Sequencer& s, const CommandLine&) { s.errorDisplayOff = true; });
  d.registerHandler("SHOWERRORON", [](Sequencer& s, const CommandLine&) { s.errorDisplayOff = false; });
  d.registerHandler("[HELPTEXT]", HelpText);
}

}  // namespace tavrix
