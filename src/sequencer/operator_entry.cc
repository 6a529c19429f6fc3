// The operator commands beyond the message panel: typed entry, menus, a
// channel shown while the operator works, and manual adjustment.
//   ENTERSEND prompt, channel          the operator types a value; it is
//                                      written to the channel
//   SELECTMENU prompt, label, label... the operator picks one of the labels;
//                                      the run goes on behind it
//   DOWITHSHOW message, channel[, label]
//                                      shows the message and the channel's
//                                      reading, refreshed every second, until
//                                      Continue (no label) or OK; Cancel
//                                      jumps to the label. A reading that
//                                      fails shows "Unable to read from
//                                      channel: " + name in a message box
//                                      and closes the display as Cancel
//   MANUALADJUST channel, step[, message]
//                                      the operator moves an output by steps
//                                      with Up and Down until Done
// Each asks on the operator port and waits on the event loop; a question
// that can get no answer, or (but for the display) a channel that cannot be
// read or written, is reported through the sequence error report.

#include "sequencer/operator_entry.h"

#include <memory>
#include <optional>

#include "common/text_conventions.h"
#include "sequencer/channel_access.h"
#include "sequencer/sequencer.h"
#include "sequencer/timed_wait.h"

namespace tavrix {

namespace {

constexpr Micros kShowInterval = kMicrosPerSecond;
constexpr std::string_view kTextDisplayUnreadable = "Unable to read from channel: ";

bool HaveChannels(ChannelAccess* channels, RunContext& seq, std::string_view keyword) {
  if (channels) return true;
  seq.reportSequenceError(Dispatcher::notAvailableText(keyword));
  return false;
}

bool ReadOrReport(ChannelAccess& channels, RunContext& seq, std::string_view command,
                  std::string_view channel, std::string& value) {
  std::string error;
  if (channels.read(channel, value, &error)) return true;
  seq.reportSequenceError(std::string(command) + " - cannot read " + std::string(channel) + ": " +
                          error);
  return false;
}

bool WriteOrReport(ChannelAccess& channels, RunContext& seq, std::string_view command,
                   std::string_view channel, std::string_view value) {
  std::string error;
  if (channels.write(channel, value, &error)) return true;
  seq.reportSequenceError(std::string(command) + " - cannot write " + std::string(value) + " to " +
                          std::string(channel) + ": " + error);
  return false;
}

// These questions end their wait when Stop is requested, whoever asks them
// (a window closes them itself; a terminal is told to).
std::function<bool()> StopCloses(RunContext& seq) {
  return [&seq] { return seq.stopRequested(); };
}

void EnterSend(ChannelAccess* channels, RunContext& seq, const CommandLine& cmd) {
  const std::string channel(trim(cmd.arg2));
  if (channel.empty()) {
    seq.reportSequenceError("EnterSend - no channel given");
    return;
  }
  if (!HaveChannels(channels, seq, "ENTERSEND")) return;
  Question question;
  question.kind = "ENTERSEND";
  question.text = cmd.arg1;  // no choices: the answer is the text typed
  const Answer answer = seq.ask(question, StopCloses(seq), "");
  if (!answer || seq.stopRequested()) return;
  WriteOrReport(*channels, seq, "EnterSend", channel, trim(*answer));
}

// SELECTMENU prompt, choice[, choice...]: each choice is an answer offered and the
// label that the answer jumps to.
struct MenuCommand {
  std::string prompt;
  std::vector<std::string> choices;
};

Parsed<MenuCommand> ParseSelectMenu(const CommandLine& cmd) {
  MenuCommand menu{cmd.arg1, {}};
  std::string choices = cmd.arg2;
  if (!cmd.arg3.empty()) choices += "," + cmd.arg3;
  size_t pos = 0;
  while (pos <= choices.size()) {
    const size_t comma = choices.find(',', pos);
    const std::string choice(trim(
        std::string_view(choices).substr(pos, comma == std::string::npos ? comma : comma - pos)));
    if (!choice.empty()) menu.choices.push_back(choice);
    if (comma == std::string::npos) break;
    pos = comma + 1;
  }
  if (menu.choices.empty()) return ParseFailure{"SelectMenu - no menu choices given"};
  return menu;
}

void SelectMenu(RunContext& seq, const MenuCommand& menu) {
  Question question;
  question.kind = "SELECTMENU";
  question.text = menu.prompt;
  question.choices = menu.choices;
  const Answer answer = seq.ask(question, StopCloses(seq), "");
  if (!answer || seq.stopRequested()) return;
  seq.searchLabel(*answer);
}

void DoWithShow(ChannelAccess* channels, RunContext& seq, const CommandLine& cmd) {
  const std::string channel(trim(cmd.arg2));
  if (channel.empty()) {
    seq.reportSequenceError("DoWithShow - no channel given");
    return;
  }
  if (!HaveChannels(channels, seq, "DOWITHSHOW")) return;
  const std::string label(trim(cmd.arg3));
  Operator& op = seq.operatorPort();
  // A reading that fails is shown in a message box, and the display closes
  // as if Cancel had been pressed.
  bool readFailed = false;
  auto show = [&] {
    std::string value;
    std::string error;
    if (channels->read(channel, value, &error)) {
      op.showChannelValue(channel, value);
      return;
    }
    readFailed = true;
    seq.showMessage(std::string(kTextDisplayUnreadable) + channel);
  };
  std::optional<std::string> answer;
  show();
  if (readFailed) {
    answer = "Cancel";
  } else {
    Timer refresh(seq.events(), kShowInterval, [&] {
      if (!readFailed) show();
    });
    refresh.setEnabled(true);
    Question question;
    question.kind = "DOWITHSHOW";
    question.text = cmd.arg1;
    question.choices = label.empty() ? std::vector<std::string>{"Continue"}
                                     : std::vector<std::string>{"OK", "Cancel"};
    answer = seq.ask(
        question, [&] { return readFailed || seq.stopRequested(); }, "Cancel");
  }
  if (!answer || seq.stopRequested()) return;
  if (*answer == "Cancel" && !label.empty()) seq.searchLabel(label);
}

void ManualAdjust(ChannelAccess* channels, RunContext& seq, const CommandLine& cmd) {
  const std::string channel(trim(cmd.arg1));
  const double step = leadingNumber(cmd.arg2);
  if (channel.empty()) {
    seq.reportSequenceError("ManualAdjust - no channel given");
    return;
  }
  if (!(step > 0)) {
    seq.reportSequenceError("Invalid parameter - " + cmd.arg2 + " - for a ManualAdjust statement");
    return;
  }
  if (!HaveChannels(channels, seq, "MANUALADJUST")) return;
  const std::string message = cmd.arg3.empty() ? "Adjust " + channel : cmd.arg3;
  for (;;) {
    std::string value;
    if (!ReadOrReport(*channels, seq, "ManualAdjust", channel, value)) return;
    seq.operatorPort().showChannelValue(channel, value);
    Question question;
    question.kind = "MANUALADJUST";
    question.text = message + " (" + channel + " =" + numberText(leadingNumber(value)) + ")";
    question.choices = {"Up", "Down", "Done"};
    const Answer answer = seq.ask(question, StopCloses(seq), "Done");
    if (!answer || *answer == "Done" || WaitInterrupted(seq)) return;
    if (!seq.mayAskAgain(question, "only Done ends the adjustment")) return;
    const double next = leadingNumber(value) + (*answer == "Up" ? step : -step);
    if (!WriteOrReport(*channels, seq, "ManualAdjust", channel, numberText(next))) return;
  }
}

constexpr std::string_view kFamily = "src/sequencer/operator_entry.cc";
const Keyword<CommandLine> kEnterSend{"ENTERSEND", kFamily, AsWritten};
const Keyword<MenuCommand> kSelectMenu{"SELECTMENU", kFamily, ParseSelectMenu};
const Keyword<CommandLine> kDoWithShow{"DOWITHSHOW", kFamily, AsWritten};
const Keyword<CommandLine> kManualAdjust{"MANUALADJUST", kFamily, AsWritten};

}  // namespace

std::vector<KeywordEntry> OperatorEntryKeywords() {
  return {Entry(kEnterSend), Entry(kSelectMenu), Entry(kDoWithShow), Entry(kManualAdjust)};
}

void RegisterOperatorEntryCommands(Sequencer& seq, ChannelAccess* channels) {
  auto bind = [channels](void (*handler)(ChannelAccess*, RunContext&, const CommandLine&)) {
    return [channels, handler](Sequencer& s, const CommandLine& c) { handler(channels, s, c); };
  };
  auto& d = seq.dispatcher();
  d.bind(kEnterSend, bind(EnterSend));
  d.bind(kSelectMenu, SelectMenu);
  d.bind(kDoWithShow, bind(DoWithShow));
  d.bind(kManualAdjust, bind(ManualAdjust));
}

}  // namespace tavrix
