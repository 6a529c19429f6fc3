// The companion-program commands: DDE executes and pokes, key strokes,
// program starts, the streamer, and ICONISE.
//   ICONISE                          minimises the main window
//   APPLOAD program[, arguments]     starts a program, does not wait for it
//   SENDKEYS window title, keys      activates the window and types the keys
//   LINKPOKE topic, item, value      DDE poke of `value` into `item`
//   LINKEXECUTE topic, item, command DDE execute of `command`
//   STARTSTREAMER data file          tells the streamer to collect into the
//                                    file and to start
//   WAITSTREAMER                     waits until the streamer reports READY
// A topic is written "Program|Topic", as in "Streamer|System". Whatever the
// companion port cannot do is reported through the sequence error report.

#include "sequencer/companion_commands.h"

#include <memory>

#include "common/text_conventions.h"
#include "sequencer/companion.h"
#include "sequencer/sequencer.h"
#include "sequencer/timed_wait.h"

namespace tavrix {

namespace {

// WAITSTREAMER asks the streamer this often whether it is ready.
constexpr Micros kStreamerPollInterval = kMicrosPerSecond;

bool Need(RunContext& seq, std::string_view value, std::string_view command,
          std::string_view what) {
  if (!trim(value).empty()) return true;
  seq.reportSequenceError(std::string(command) + " - no " + std::string(what) + " given");
  return false;
}

void Report(RunContext& seq, std::string_view command, const std::string& error) {
  seq.reportSequenceError(std::string(command) + " - " + error);
}

void Iconise(RunContext& seq, const CommandLine&) {
  if (seq.trace().enabled()) seq.trace().event("iconise");
  seq.operatorPort().minimiseWindow();
}

void AppLoad(Companion& companion, RunContext& seq, const CommandLine& cmd) {
  if (!Need(seq, cmd.arg1, "AppLoad", "program")) return;
  std::string commandLine(trim(cmd.arg1));
  std::string arguments(trim(cmd.arg2));
  if (!cmd.arg3.empty()) arguments += ", " + cmd.arg3;
  if (!arguments.empty()) commandLine += " " + arguments;
  std::string error;
  if (!companion.start(commandLine, &error))
    Report(seq, "AppLoad", "cannot start " + commandLine + ": " + error);
}

void SendKeys(Companion& companion, RunContext& seq, const CommandLine& cmd) {
  if (!Need(seq, cmd.arg1, "SendKeys", "window title") || !Need(seq, cmd.arg2, "SendKeys", "keys"))
    return;
  std::string keys = cmd.arg2;
  if (!cmd.arg3.empty()) keys += "," + cmd.arg3;
  std::string error;
  if (!companion.sendKeys(trim(cmd.arg1), keys, &error)) Report(seq, "SendKeys", error);
}

void LinkPoke(Companion& companion, RunContext& seq, const CommandLine& cmd) {
  if (!Need(seq, cmd.arg1, "LinkPoke", "DDE topic") || !Need(seq, cmd.arg2, "LinkPoke", "DDE item"))
    return;
  std::string error;
  if (!companion.poke(trim(cmd.arg1), trim(cmd.arg2), cmd.arg3, &error))
    Report(seq, "LinkPoke", error);
}

void LinkExecute(Companion& companion, RunContext& seq, const CommandLine& cmd) {
  if (!Need(seq, cmd.arg1, "LinkExecute", "DDE topic") ||
      !Need(seq, cmd.arg3, "LinkExecute", "command")) {
    return;
  }
  std::string error;
  if (!companion.execute(trim(cmd.arg1), trim(cmd.arg2), cmd.arg3, &error)) {
    Report(seq, "LinkExecute", error);
  }
}

void StartStreamer(Companion& companion, RunContext& seq, const CommandLine& cmd) {
  if (!Need(seq, cmd.arg1, "StartStreamer", "data file")) return;
  std::string error;
  if (!companion.execute(kStreamerTopic, kStreamerItem,
                         std::string(kStreamerCollect) + std::string(trim(cmd.arg1)), &error) ||
      !companion.execute(kStreamerTopic, kStreamerItem, kStreamerStart, &error)) {
    Report(seq, "StartStreamer", error);
  }
}

void WaitStreamer(Companion& companion, RunContext& seq, const CommandLine&) {
  PollUntil(seq, kStreamerPollInterval, [&] {
    std::string error;
    const auto status = companion.request(kStreamerTopic, kStreamerItem, &error);
    if (!status) {
      Report(seq, "WaitStreamer", error);
      return PollResult::kFailed;
    }
    seq.showCurrentCommand("waitstreamer " + *status);
    return upperCase(trim(*status)) == kStreamerReady ? PollResult::kMet : PollResult::kWaiting;
  });
}

constexpr std::string_view kFamily = "src/sequencer/companion_commands.cc";
const Keyword<CommandLine> kIconise{"ICONISE", kFamily, AsWritten};
const Keyword<CommandLine> kAppLoad{"APPLOAD", kFamily, AsWritten};
const Keyword<CommandLine> kSendKeys{"SENDKEYS", kFamily, AsWritten};
const Keyword<CommandLine> kLinkPoke{"LINKPOKE", kFamily, AsWritten};
const Keyword<CommandLine> kLinkExecute{"LINKEXECUTE", kFamily, AsWritten};
const Keyword<CommandLine> kStartStreamer{"STARTSTREAMER", kFamily, AsWritten};
const Keyword<CommandLine> kWaitStreamer{"WAITSTREAMER", kFamily, AsWritten};

}  // namespace

std::vector<KeywordEntry> CompanionKeywords() {
  return {Entry(kIconise),     Entry(kAppLoad),       Entry(kSendKeys),    Entry(kLinkPoke),
          Entry(kLinkExecute), Entry(kStartStreamer), Entry(kWaitStreamer)};
}

void RegisterCompanionCommands(Sequencer& seq, Companion& companion) {
  Companion* port = &companion;
  auto bind = [port](void (*handler)(Companion&, RunContext&, const CommandLine&)) {
    return [port, handler](Sequencer& s, const CommandLine& c) { handler(*port, s, c); };
  };
  auto& d = seq.dispatcher();
  d.bind(kIconise, Iconise);
  d.bind(kAppLoad, bind(AppLoad));
  d.bind(kSendKeys, bind(SendKeys));
  d.bind(kLinkPoke, bind(LinkPoke));
  d.bind(kLinkExecute, bind(LinkExecute));
  d.bind(kStartStreamer, bind(StartStreamer));
  d.bind(kWaitStreamer, bind(WaitStreamer));
}

}  // namespace tavrix
