#include "instrument/outputs/load_maintenance.h"

#include <cmath>
#include <memory>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_support.h"
#include "instrument/outputs/output_timing.h"
#include "instrument/outputs/ramps.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

// Finds the keywords of a setup string (case-blind) one after another and
// takes the value behind each, in the string's own case.
class KeywordReader {
 public:
  explicit KeywordReader(std::string_view text) : text_(text), upper_(upperCase(text)) {}

  // The value behind `keyword` (searched from the last value on), trimmed on
  // the left, up to the next blank; std::nullopt when the keyword is missing
  // or nothing follows it.
  std::optional<std::string> next(std::string_view keyword) {
    const size_t at = upper_.find(keyword, pos_);
    if (at == std::string::npos) return std::nullopt;
    size_t begin = at + keyword.size();
    while (begin < upper_.size() && upper_[begin] == ' ') ++begin;
    size_t end = upper_.find(' ', begin);
    if (end == std::string::npos) end = upper_.size();
    if (end == begin) return std::nullopt;
    pos_ = end;
    return std::string(text_.substr(begin, end - begin));
  }
  // The same, but a missing keyword leaves the position where it was.
  std::optional<std::string> optional(std::string_view keyword) {
    const size_t keep = pos_;
    auto value = next(keyword);
    if (!value) pos_ = keep;
    return value;
  }

 private:
  std::string_view text_;
  std::string upper_;
  size_t pos_ = 0;
};

bool TakeRateGainTolerance(KeywordReader& reader, MaintainSetup& setup, bool required,
                           std::string& error) {
  auto rate = required ? reader.next("WITH RATE") : reader.optional("WITH RATE");
  auto gain = required ? reader.next("GAIN") : reader.optional("GAIN");
  if (required && (!rate || !gain)) {
    error = kTextCannotParseMaintain;
    return false;
  }
  if (rate) setup.rate = static_cast<float>(leadingNumber(*rate));
  if (gain) setup.gain = leadingNumber(*gain);
  if (auto tolerance = reader.optional("TOLERANCE")) setup.tolerance = leadingNumber(*tolerance);
  if (!(setup.rate > 0) || !std::isfinite(setup.rate)) {
    error = kTextMaintainRate;
    return false;
  }
  if (setup.gain == 0 || !std::isfinite(setup.gain)) {
    error = kTextMaintainGain;
    return false;
  }
  if (!(setup.tolerance > 0) || !std::isfinite(setup.tolerance)) {
    error = kTextMaintainTolerance;
    return false;
  }
  return true;
}

// One maintenance command in progress.
class Maintainer {
 public:
  Maintainer(Sequencer& seq, Instrument& instrument, const MaintainSetup& setup)
      : seq_(seq), ins_(instrument), setup_(setup) {}

  // Takes the output's present value; false (reported) when it cannot.
  bool start() {
    if (!OutputLinkReady(seq_, ins_)) return false;
    std::string value;
    if (!ins_.channels().ReadChannel(setup_.outputChannel, value)) {
      seq_.reportSequenceError(std::string(kTextAbortMaintain) + setup_.outputChannel);
      return false;
    }
    output_ = leadingNumber(value);
    return true;
  }

  // The maintain loop for one target. False when the run ended it (a failed
  // read is reported; Stop, a jump or a timeout action end it silently).
  bool hold(double target) {
    auto reading = readLoad(kLoadReadWaitMs);
    if (!reading) return false;
    for (;;) {
      const double deviation = (target - *reading) / setup_.gain;
      if (std::fabs(deviation) <= setup_.tolerance) return true;
      const int64_t correctionMs = CorrectionTimeMs(deviation, setup_.rate);
      const std::string text = formatNumber(output_ + deviation, "0.00");
      output_ = leadingNumber(text);
      ins_.channels().WriteChannel(setup_.outputChannel, text);
      const int32_t began = GetCount();
      do {
        if (!OutputWait(seq_, kLoadReadWaitMs * 1000)) return false;
        reading = readLoad(kLoadRetryWaitMs);
        if (!reading) return false;
      } while (static_cast<int32_t>(static_cast<uint32_t>(GetCount()) -
                                    static_cast<uint32_t>(began)) < correctionMs);
    }
  }

 private:
  int32_t GetCount() { return ins_.link().library().millisecondCount(); }

  // Reads the load until a reply starts with a character from code 40 to
  // 128 (a number or a sign, not a blank or a control character), waiting
  // `retryMs` before each further read.
  std::optional<double> readLoad(int retryMs) {
    std::string reply;
    for (;;) {
      if (!ins_.channels().ReadChannel(setup_.loadChannel, reply)) {
        seq_.reportSequenceError(std::string(kTextAbortMaintain) + setup_.loadChannel);
        return std::nullopt;
      }
      const auto c = reply.empty() ? 0 : static_cast<unsigned char>(reply[0]);
      if (c >= 40 && c <= 128) return leadingNumber(reply);
      if (!OutputWait(seq_, static_cast<Micros>(retryMs) * 1000)) return std::nullopt;
    }
  }

  Sequencer& seq_;
  Instrument& ins_;
  MaintainSetup setup_;
  double output_ = 0;
};

struct MaintainState {
  // Rate, gain and tolerance of the last maintenance, the defaults of an
  // MT_RAMP that names none.
  MaintainSetup last;
};

void Maintain(Sequencer& seq, Instrument& instrument, MaintainState& state,
              std::string_view text) {
  std::string error;
  const auto setup = ParseMaintainSetup(text, error);
  if (!setup) {
    seq.reportSequenceError(error);
    return;
  }
  state.last = *setup;
  Maintainer maintainer(seq, instrument, *setup);
  if (maintainer.start()) maintainer.hold(setup->target);
}

void MaintainRamp(Sequencer& seq, Instrument& instrument, MaintainState& state,
                  std::string_view text) {
  std::string error;
  std::string rest;
  const auto ramp = ParseRampSetup(text, false, error, &rest);
  if (!ramp) {
    seq.reportSequenceError(error);
    return;
  }
  KeywordReader reader(rest);
  MaintainSetup setup = state.last;
  auto load = reader.next("AT");
  auto output = reader.next("USING");
  if (!load || !output) {
    seq.reportSequenceError(kTextRampCannotParse);
    return;
  }
  setup.loadChannel = *load;
  setup.outputChannel = *output;
  if (!TakeRateGainTolerance(reader, setup, false, error)) {
    seq.reportSequenceError(error);
    return;
  }
  state.last = setup;
  Maintainer maintainer(seq, instrument, setup);
  if (!maintainer.start()) return;
  const Micros start = seq.clock().now();
  double target = ramp->start;
  for (int k = 0;; ++k) {
    if (!maintainer.hold(target)) return;
    if (k == ramp->steps) return;
    // The rest of the step's interval, waited as a WAITSECONDS would wait
    // it: a step whose maintenance overran its interval leaves no time to
    // wait, which is rejected.
    const Micros rest = ScheduledInstant(start, ramp->stepInterval, k + 1) - seq.clock().now();
    if (rest <= 0) {
      if (OutputInterrupted(seq)) return;
      seq.reportSequenceError(MaintainWaitError(static_cast<double>(rest) / kMicrosPerSecond));
      return;
    }
    if (!OutputWait(seq, rest)) return;
    target += ramp->stepSize;
  }
}

std::string RestOfLine(const CommandLine& cmd) {
  std::string text = cmd.arg1;
  if (!cmd.arg2.empty() || !cmd.arg3.empty()) text += "," + cmd.arg2;
  if (!cmd.arg3.empty()) text += "," + cmd.arg3;
  return text;
}

}  // namespace

std::optional<MaintainSetup> ParseMaintainSetup(std::string_view text, std::string& error) {
  KeywordReader reader(text);
  MaintainSetup setup;
  auto load = reader.next("HOLD");
  auto target = reader.next("AT");
  auto output = reader.next("USING");
  if (!load || !target || !output) {
    error = kTextCannotParseMaintain;
    return std::nullopt;
  }
  setup.loadChannel = *load;
  setup.target = leadingNumber(*target);
  setup.outputChannel = *output;
  if (!TakeRateGainTolerance(reader, setup, true, error)) return std::nullopt;
  return setup;
}

std::string MaintainWaitError(double seconds) {
  return "Invalid parameter - " + numberText(seconds) + " - for a WaitSeconds statement";
}

int64_t CorrectionTimeMs(double deviation, float rate) {
  const double steps = std::floor(std::fabs(deviation) / rate);
  return (static_cast<int64_t>(std::min(steps, 1e9)) + 1) * 1000;
}

void RegisterLoadMaintenance(Sequencer& seq, Instrument& instrument) {
  auto state = std::make_shared<MaintainState>();
  seq.dispatcher().addExtension([state, &instrument](Sequencer& s, const CommandLine& cmd) {
    if (cmd.word == kMaintainKeyword) {
      Maintain(s, instrument, *state, RestOfLine(cmd));
      return true;
    }
    if (cmd.word == kMaintainRampKeyword) {
      MaintainRamp(s, instrument, *state, RestOfLine(cmd));
      return true;
    }
    return false;
  });
  seq.addPrepareHook([state] { state->last = MaintainSetup{}; });
}

}  // namespace tavrix
