// The operator message panel (CONTINUEOK, ENTEROKCANCEL), the error display
// switch and the help text section.

#include "sequencer/operator_panel.h"

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr std::string_view kHelpEnd = "[END]";

void ContinueOk(RunContext& seq, const CommandLine& cmd) {
  Question question;
  question.kind = "CONTINUEOK";
  question.text = cmd.arg1;
  question.choices = {"Continue"};
  seq.ask(question);
}

void EnterOkCancel(RunContext& seq, const CommandLine& cmd) {
  Question question;
  question.kind = "ENTEROKCANCEL";
  question.text = cmd.arg1;
  question.choices = {"OK", "Cancel"};
  const Answer answer = seq.ask(question);
  if (!answer || *answer == "OK") return;
  seq.searchLabel(cmd.arg2);
}

// Lines up to the first one that begins "[END]" make the help text.
void HelpText(RunContext& seq, const CommandLine&) {
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

constexpr std::string_view kFamily = "src/sequencer/operator_panel.cc";
const Keyword<CommandLine> kContinueOk{"CONTINUEOK", kFamily, AsWritten};
const Keyword<CommandLine> kEnterOkCancel{"ENTEROKCANCEL", kFamily, AsWritten};
const Keyword<CommandLine> kShowErrorOff{"SHOWERROROFF", kFamily, AsWritten};
const Keyword<CommandLine> kShowErrorOn{"SHOWERRORON", kFamily, AsWritten};
const Keyword<CommandLine> kHelpText{"[HELPTEXT]", kFamily, AsWritten};

}  // namespace

std::vector<KeywordEntry> OperatorPanelKeywords() {
  return {Entry(kContinueOk), Entry(kEnterOkCancel), Entry(kShowErrorOff), Entry(kShowErrorOn),
          Entry(kHelpText)};
}

void RegisterOperatorPanelCommands(Sequencer& seq) {
  auto& d = seq.dispatcher();
  d.bind(kContinueOk, ContinueOk);
  d.bind(kEnterOkCancel, EnterOkCancel);
  d.bind(kShowErrorOff, [](Sequencer& s, const CommandLine&) { s.setErrorDisplay(false); });
  d.bind(kShowErrorOn, [](Sequencer& s, const CommandLine&) { s.setErrorDisplay(true); });
  d.bind(kHelpText, HelpText);
}

}  // namespace tavrix
