#include "instrument/link/channel_commands.h"

#include <climits>
#include <exception>
#include <filesystem>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

constexpr std::string_view kLoopCountOverrun = "Loop Count overrun - exiting loop";

std::string operatorNotSupported(std::string_view op) {
  return "Operator - " + std::string(op) + " - is not supported";
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
    if (!seq_.flags().stopRequested) seq_.reportSequenceError(ins_.link().lastErrorText);
  }
  Channels& ch() { return ins_.channels(); }

  void imsFileSpec(const CommandLine& cmd) {
    std::string file(trim(cmd.arg1));
    if (file.empty()) {
      FileDialog dialog;
      dialog.title = kTextSelectImsTitle;
      dialog.defaultExtension = "ims";
      dialog.fileName = "*.ims";
      dialog.filter = kTextImsFilter;
      std::error_code ec;
      dialog.initialDirectory = std::filesystem::current_path(ec).string();
      const auto chosen = seq_.operatorPort().chooseFile(dialog);
      if (!chosen) return;
      file = *chosen;
    }
    if (!ins_.selectSetupFile(file)) fail();
  }

  void send(const CommandLine& cmd) {
    if (linkReady() && !ch().WriteChannel(trim(cmd.arg1), cmd.arg2)) fail();
  }

  void sendSmc(const CommandLine& cmd) {
    std::string hex;
    if (!EncodeSmcCommand(cmd.arg2, hex)) {
      seq_.reportSequenceError(kTextSmcTooLong);
      return;
    }
    if (linkReady() && !ch().WriteChannel(trim(cmd.arg1), hex)) {
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
                               numberText(ins_.link().lastErrorNumber));
    }
  }

  void incrementLoopCount(const CommandLine& cmd) {
    if (seq_.loopCount == INT32_MAX) {
      seq_.showMessage(kLoopCountOverrun);
      return;
    }
    ++seq_.loopCount;
    const std::string_view channel = trim(cmd.arg1);
    if (channel.empty()) return;
    if (linkReady() && !ch().WriteChannel(channel, std::to_string(seq_.loopCount))) fail();
  }

  void check(const CommandLine& cmd) {
    const auto condition = ParseChannelCondition(cmd.arg1);
    if (!condition) {
      seq_.reportSequenceError(std::string(kTextCannotParseCondition) + cmd.arg1);
      return;
    }
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
    if (!*holds) seq_.searchLabel(trim(cmd.arg2));
  }

  void wait(const CommandLine& cmd) {
    const Micros start = seq_.clock().now();
    const auto condition = ParseChannelCondition(cmd.arg1);
    if (!condition) {
      seq_.reportSequenceError(std::string(kTextCannotParseCondition) + cmd.arg1);
      return;
    }
    if (!linkReady()) return;
    RunFlags& flags = seq_.flags();
    auto storeDuration = [&] {
      ins_.lastWaitDuration = static_cast<float>(seq_.clock().now() - start) / 1e6f;
    };
    for (;;) {
      if (flags.jumpPending || flags.timeoutPending) return;
      seq_.processPendingEvents();
      if (flags.timeoutExpired) {
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
      if (!seq_.waitUntil([&] {
            return due || flags.jumpPending || flags.timeoutPending || flags.timeoutExpired ||
                   flags.stopRequested;
          })) {
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

void RegisterInstrumentCommands(Sequencer& sequencer, Instrument& instrument) {
  auto commands = std::make_shared<ChannelCommands>(sequencer, instrument);
  auto bind = [commands](void (ChannelCommands::*method)(const CommandLine&)) {
    return [commands, method](Sequencer&, const CommandLine& cmd) { ((*commands).*method)(cmd); };
  };
  Dispatcher& d = sequencer.dispatcher();
  d.registerHandler("IMSFILESPEC", bind(&ChannelCommands::imsFileSpec));
  d.registerHandler("SEND", bind(&ChannelCommands::send));
  d.registerHandler("SENDSMC", bind(&ChannelCommands::sendSmc));
  d.registerHandler("IMLDEF", bind(&ChannelCommands::define));
  d.registerHandler("IMLESC", bind(&ChannelCommands::escape));
  d.registerHandler("MONITOR", bind(&ChannelCommands::monitor));
  d.registerHandler("KILLMONITOR", bind(&ChannelCommands::killMonitor));
  d.registerHandler("REZERO", bind(&ChannelCommands::rezero));
  d.registerHandler("CHECKIMS", bind(&ChannelCommands::checkIms));
  d.registerHandler("INCREMENTLOOPCOUNT", bind(&ChannelCommands::incrementLoopCount));
  d.registerHandler("CHECK", bind(&ChannelCommands::check));
  d.registerHandler("WAIT", bind(&ChannelCommands::wait));
  // A Stop ends the link's waits, so a device that never answers cannot hold
  // the run when the operator wants it ended.
  instrument.link().abandonWaits = [&sequencer] { return sequencer.flags().stopRequested; };
}

}  // namespace tavrix
