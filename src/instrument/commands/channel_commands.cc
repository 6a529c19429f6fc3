#include "instrument/commands/channel_commands.h"

#include <exception>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

std::string operatorNotSupported(std::string_view op) {
  return "Operator - " + std::string(op) + " - is not supported";
}

// CHECK condition, label and WAIT condition. The run compares only after it
// has read the channel, so an operator it does not know is a late error.
struct ConditionCommand {
  ChannelCondition condition;
  std::string label;
  std::optional<std::string> lateError;
};

Parsed<ConditionCommand> ParseConditionCommand(const CommandLine& cmd) {
  const auto condition = ParseChannelCondition(cmd.arg1);
  if (!condition) return ParseFailure{std::string(kTextCannotParseCondition) + cmd.arg1};
  ConditionCommand parsed{*condition, std::string(trim(cmd.arg2)), std::nullopt};
  if (!CompareReading(0, condition->op, 0)) parsed.lateError = operatorNotSupported(condition->op);
  return parsed;
}

// SENDSMC channel, command: the command hexadecimal coded.
struct SmcCommand {
  std::string channel;
  std::string hex;
};

Parsed<SmcCommand> ParseSendSmc(const CommandLine& cmd) {
  SmcCommand smc{std::string(trim(cmd.arg1)), {}};
  if (!EncodeSmcCommand(cmd.arg2, smc.hex)) return ParseFailure{std::string(kTextSmcTooLong)};
  return smc;
}

class ChannelCommands {
 public:
  ChannelCommands(Sequencer& seq, Instrument& instrument) : seq_(seq), ins_(instrument) {}

  // Opens the link for the first command that needs it; a link that cannot
  // be opened ends the run.
  bool linkReady() {
    if (ins_.ensureOpen()) return true;
    fail();
    return false;
  }
  // A command that failed because Stop gave up its exchange ends quietly:
  // the run is ending already.
  void fail() {
    if (!seq_.stopRequested()) seq_.reportSequenceError(ins_.link().lastErrorText());
  }
  Channels& ch() { return ins_.channels(); }

  void imsFileSpec(const CommandLine& cmd) {
    std::string file(trim(cmd.arg1));
    if (file.empty()) {
      FileChoice choice;
      choice.title = kTextSelectImsTitle;
      choice.defaultExtension = "ims";
      choice.fileName = "*.ims";
      choice.filter = kTextImsFilter;
      choice.initialDirectory = seq_.files().currentFolder();
      const auto chosen = seq_.operatorPort().chooseFile(choice);
      if (!chosen) return;
      file = *chosen;
    }
    if (!ins_.selectSetupFile(file)) fail();
  }

  void send(const CommandLine& cmd) {
    if (linkReady() && !ch().WriteChannel(trim(cmd.arg1), cmd.arg2)) fail();
  }

  void sendSmc(const SmcCommand& cmd) {
    if (linkReady() && !ch().WriteChannel(cmd.channel, cmd.hex)) {
      seq_.reportSequenceError(kTextSmcNotFound);
    }
  }

  void define(const CommandLine& cmd) {
    if (linkReady() && !ch().DefineChannel(trim(cmd.arg1), cmd.arg2)) fail();
  }
  void escape(const CommandLine& cmd) {
    if (linkReady() && !ch().EscapeChannel(trim(cmd.arg1), cmd.arg2)) fail();
  }
  void monitor(const CommandLine& cmd) {
    if (linkReady() && !ch().CreateMonitorChannel(trim(cmd.arg1), trim(cmd.arg2), cmd.arg3)) fail();
  }
  void killMonitor(const CommandLine& cmd) {
    if (linkReady() && !ch().ClearMonitorChannel(trim(cmd.arg1))) fail();
  }
  void rezero(const CommandLine& cmd) {
    if (linkReady() && !ch().RezeroChannel(trim(cmd.arg1))) fail();
  }
  void checkIms(const CommandLine&) {
    try {
      std::string value;
      if (linkReady() && !ch().ReadChannel(ins_.settings().checkChannel, value)) fail();
    } catch (const std::exception&) {
      seq_.reportSequenceError(std::string(kTextCheckImsFailed) +
                               numberText(ins_.link().lastErrorNumber()));
    }
  }

  void check(const ConditionCommand& cmd) {
    const ChannelCondition* condition = &cmd.condition;
    seq_.processPendingEvents();
    if (!linkReady()) return;
    std::string reading;
    if (!ch().ReadChannel(condition->channel, reading)) return;
    seq_.processPendingEvents();
    const auto holds = CompareReading(leadingNumber(reading), condition->op, condition->value);
    if (!holds) {
      seq_.reportSequenceError(operatorNotSupported(condition->op));
      return;
    }
    if (!*holds) seq_.searchLabel(cmd.label);
  }

  void wait(const ConditionCommand& cmd) {
    const Micros start = seq_.clock().now();
    const ChannelCondition* condition = &cmd.condition;
    if (!linkReady()) return;
    auto storeDuration = [&] {
      ins_.recordWaitDuration(static_cast<float>(seq_.clock().now() - start) / 1e6f);
    };
    for (;;) {
      if (seq_.waitEnds(WaitRule::kJumpOrTimeout)) return;
      seq_.processPendingEvents();
      if (seq_.timeoutExpired()) {
        // The time-out's action at once: its define runs or its label is
        // searched, and the time-out is spent.
        seq_.processPendingEvents();
        if (seq_.takeTimeoutActionNow()) {
          storeDuration();
          return;
        }
      }
      seq_.processPendingEvents();
      std::string reading;
      if (!ch().ReadChannel(condition->channel, reading)) return;
      if (upperCase(reading).find("ERR") == std::string::npos) {
        seq_.processPendingEvents();
        storeDuration();
        const auto holds = CompareReading(leadingNumber(reading), condition->op, condition->value);
        if (!holds) {
          seq_.reportSequenceError(operatorNotSupported(condition->op));
          return;
        }
        if (*holds) return;
      }
      seq_.processPendingEvents();
      seq_.examineDefineTable();
      // Read again after the poll interval, or at once when the run needs
      // the wait to end.
      bool due = false;
      Timer poll(seq_.events(), ins_.settings().waitPollInterval, [&due] { due = true; });
      poll.setEnabled(true);
      if (!seq_.waitUntil([&] { return due || seq_.waitEnds(WaitRule::kPollSleep); })) {
        return;
      }
    }
  }

 private:
  Sequencer& seq_;
  Instrument& ins_;
};

}  // namespace

std::optional<ChannelCondition> ParseChannelCondition(std::string_view text) {
  text = trimLeft(text);
  const size_t first = text.find(' ');
  if (first == std::string_view::npos) return std::nullopt;
  ChannelCondition condition;
  condition.channel = std::string(trimRight(text.substr(0, first)));
  const std::string_view rest = trimLeft(text.substr(first + 1));
  const size_t second = rest.find(' ');
  if (second == std::string_view::npos) return std::nullopt;
  condition.op = std::string(trimRight(rest.substr(0, second)));
  condition.value = leadingNumber(trimLeft(rest.substr(second + 1)));
  return condition;
}

std::optional<bool> CompareReading(double reading, std::string_view op, double value) {
  if (op == "=") return reading == value;
  if (op == ">") return reading > value;
  if (op == "<") return reading < value;
  if (op == "<>") return reading != value;
  return std::nullopt;
}

namespace {

constexpr std::string_view kFamily = "src/instrument/commands/channel_commands.cc";
const Keyword<CommandLine> kImsFileSpec{"IMSFILESPEC", kFamily, AsWritten};
const Keyword<CommandLine> kSend{"SEND", kFamily, AsWritten};
const Keyword<SmcCommand> kSendSmc{"SENDSMC", kFamily, ParseSendSmc};
const Keyword<CommandLine> kImlDef{"IMLDEF", kFamily, AsWritten};
const Keyword<CommandLine> kImlEsc{"IMLESC", kFamily, AsWritten};
const Keyword<CommandLine> kMonitor{"MONITOR", kFamily, AsWritten};
const Keyword<CommandLine> kKillMonitor{"KILLMONITOR", kFamily, AsWritten};
const Keyword<CommandLine> kRezero{"REZERO", kFamily, AsWritten};
const Keyword<CommandLine> kCheckIms{"CHECKIMS", kFamily, AsWritten};
const Keyword<ConditionCommand> kCheck{"CHECK", kFamily, ParseConditionCommand};
const Keyword<ConditionCommand> kWait{"WAIT", kFamily, ParseConditionCommand};

}  // namespace

void InstrumentLoopCountOutput::write(Sequencer& sequencer, std::string_view channel,
                                      int32_t count) {
  if (instrument_->ensureOpen() &&
      instrument_->channels().WriteChannel(channel, std::to_string(count)))
    return;
  sequencer.reportSequenceError(instrument_->link().lastErrorText());
}

std::vector<KeywordEntry> InstrumentKeywords() {
  return {Entry(kImsFileSpec), Entry(kSend),    Entry(kSendSmc),     Entry(kImlDef),
          Entry(kImlEsc),      Entry(kMonitor), Entry(kKillMonitor), Entry(kRezero),
          Entry(kCheckIms),    Entry(kCheck),   Entry(kWait)};
}

void RegisterInstrumentCommands(Sequencer& sequencer, Instrument& instrument) {
  auto commands = std::make_shared<ChannelCommands>(sequencer, instrument);
  auto bind = [commands]<class Command>(void (ChannelCommands::*method)(const Command&)) {
    return std::function<void(Sequencer&, const Command&)>(
        [commands, method](Sequencer&, const Command& cmd) { ((*commands).*method)(cmd); });
  };
  Dispatcher& d = sequencer.dispatcher();
  d.bind(kImsFileSpec, bind(&ChannelCommands::imsFileSpec));
  d.bind(kSend, bind(&ChannelCommands::send));
  d.bind(kSendSmc, bind(&ChannelCommands::sendSmc));
  d.bind(kImlDef, bind(&ChannelCommands::define));
  d.bind(kImlEsc, bind(&ChannelCommands::escape));
  d.bind(kMonitor, bind(&ChannelCommands::monitor));
  d.bind(kKillMonitor, bind(&ChannelCommands::killMonitor));
  d.bind(kRezero, bind(&ChannelCommands::rezero));
  d.bind(kCheckIms, bind(&ChannelCommands::checkIms));
  d.bind(kCheck, bind(&ChannelCommands::check));
  d.bind(kWait, bind(&ChannelCommands::wait));
  // A Stop ends the link's waits, so a device that never answers cannot hold
  // the run when the operator wants it ended.
  instrument.link().giveUpWaitsWhen([&sequencer] { return sequencer.stopRequested(); });
}

}  // namespace tavrix
