#include "instrument/outputs/load_maintenance.h"

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "common/checked_numbers.h"
#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_support.h"
#include "instrument/outputs/output_timing.h"
#include "instrument/outputs/ramps.h"
#include "sequencer/command_family.h"
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

// The rate, gain and tolerance a setup string names.
struct LoopSettings {
  std::optional<float> rate;
  std::optional<double> gain;
  std::optional<double> tolerance;

  void applyTo(MaintainSetup& setup) const {
    if (rate) setup.rate = *rate;
    if (gain) setup.gain = *gain;
    if (tolerance) setup.tolerance = *tolerance;
  }
};

// Reads WITH RATE, GAIN (both needed when `required`) and TOLERANCE, and
// checks them over `base`, a setup whose own values are good.
bool TakeRateGainTolerance(KeywordReader& reader, const MaintainSetup& base, bool required,
                           LoopSettings& settings, std::string* error) {
  auto rate = required ? reader.next("WITH RATE") : reader.optional("WITH RATE");
  auto gain = required ? reader.next("GAIN") : reader.optional("GAIN");
  if (required && (!rate || !gain)) {
    if (error) *error = kTextCannotParseMaintain;
    return false;
  }
  if (rate) settings.rate = static_cast<float>(leadingNumber(*rate));
  if (gain) settings.gain = leadingNumber(*gain);
  if (auto tolerance = reader.optional("TOLERANCE")) settings.tolerance = leadingNumber(*tolerance);
  MaintainSetup setup = base;
  settings.applyTo(setup);
  if (!(setup.rate > 0) || !std::isfinite(setup.rate)) {
    if (error) *error = kTextMaintainRate;
    return false;
  }
  if (setup.gain == 0 || !std::isfinite(setup.gain)) {
    if (error) *error = kTextMaintainGain;
    return false;
  }
  if (!(setup.tolerance > 0) || !std::isfinite(setup.tolerance)) {
    if (error) *error = kTextMaintainTolerance;
    return false;
  }
  return true;
}

// One maintenance command in progress.
class Maintainer {
 public:
  // Where hold() is, for a checkpoint: between holds, waiting to read the
  // load again before its first comparison, in a correction's wait, or
  // waiting to read again inside a correction.
  enum class Phase { kNone = 0, kFirstRead = 1, kCorrection = 2, kCorrectionRead = 3 };

  Maintainer(Sequencer& seq, Instrument& instrument, const MaintainSetup& setup)
      : seq_(seq), ins_(instrument), setup_(setup) {}

  // Takes the output's present value; false (reported) when it cannot. A
  // maintenance that goes on after a resume takes the value it had written
  // (the output was written it again) and where it was in its loop.
  bool start(OutputProgress& progress) {
    progress_ = &progress;
    if (!OutputLinkReady(seq_, ins_)) return false;
    std::string value;
    if (!OutputChannelOwned(seq_, ins_, setup_.outputChannel)) return false;
    if (const auto& resumed = progress.resumed(); resumed.contains("output")) {
      output_ = resumed.at("output").get<double>();
      resumeAt_ = static_cast<Phase>(resumed.at("phase").get<int>());
      correctionMs_ = resumed.at("correctionMs").get<int64_t>();
      began_ = static_cast<int32_t>(static_cast<uint32_t>(GetCount()) -
                                    resumed.at("correctionElapsedMs").get<uint32_t>());
      // Between two holds the wait left is the ramp's.
      if (resumeAt_ != Phase::kNone) resumeWait_ = progress.takeWaitLeft();
      return true;
    }
    if (!ins_.channels().ReadChannel(setup_.outputChannel, value)) {
      seq_.reportSequenceError(std::string(kTextAbortMaintain) + setup_.outputChannel);
      return false;
    }
    output_ = leadingNumber(value);
    return true;
  }

  // Where the loop is, for a checkpoint.
  nlohmann::json save() {
    return {
        {"output", output_},
        {"phase", static_cast<int>(phase_)},
        {"correctionMs", correctionMs_},
        {"correctionElapsedMs", static_cast<uint32_t>(GetCount()) - static_cast<uint32_t>(began_)}};
  }
  // Whether a resumed maintenance was between two holds.
  bool resumedBetweenHolds() const { return resumeAt_ == Phase::kNone; }

  // The maintain loop for one target. False when the run ended it (a failed
  // read is reported; Stop, a jump or a timeout action end it silently).
  bool hold(double target) {
    Phase resumeAt = std::exchange(resumeAt_, Phase::kNone);
    std::optional<Micros> left = std::exchange(resumeWait_, std::nullopt);
    std::optional<double> reading;
    if (resumeAt == Phase::kNone || resumeAt == Phase::kFirstRead) {
      reading = readLoad(kLoadReadWaitMs, Phase::kFirstRead,
                         resumeAt == Phase::kFirstRead ? left : std::nullopt);
      if (!reading) return false;
      resumeAt = Phase::kNone;
    }
    for (;;) {
      if (resumeAt == Phase::kNone) {
        const double deviation = (target - *reading) / setup_.gain;
        if (std::fabs(deviation) <= setup_.tolerance) {
          phase_ = Phase::kNone;
          return true;
        }
        correctionMs_ = CorrectionTimeMs(deviation, setup_.rate);
        if (!(std::fabs(output_ + deviation) <= std::numeric_limits<float>::max())) {
          seq_.reportSequenceError(std::string(kTextMaintainOutOfRange) + setup_.outputChannel);
          return false;
        }
        const std::string text = formatNumber(output_ + deviation, "0.00");
        output_ = leadingNumber(text);
        ins_.channels().WriteChannel(setup_.outputChannel, text);
        began_ = GetCount();
      }
      do {
        if (resumeAt != Phase::kCorrectionRead) {
          phase_ = Phase::kCorrection;
          const Micros wait = resumeAt == Phase::kCorrection && left
                                  ? *left
                                  : static_cast<Micros>(kLoadReadWaitMs) * 1000;
          if (!waitFor(wait)) return false;
        }
        reading = readLoad(kLoadRetryWaitMs, Phase::kCorrectionRead,
                           resumeAt == Phase::kCorrectionRead ? left : std::nullopt);
        resumeAt = Phase::kNone;
        if (!reading) return false;
      } while (static_cast<int32_t>(static_cast<uint32_t>(GetCount()) -
                                    static_cast<uint32_t>(began_)) < correctionMs_);
    }
  }

 private:
  int32_t GetCount() { return ins_.link().library().millisecondCount(); }

  bool waitFor(Micros wait) { return progress_ ? progress_->wait(wait) : OutputWait(seq_, wait); }

  // Reads the load until a reply starts with a character from code 40 to
  // 128 (a number or a sign, not a blank or a control character), waiting
  // `retryMs` before each further read. `waitFirst`: a resumed run was in
  // such a wait, with this much of it left.
  std::optional<double> readLoad(int retryMs, Phase phase, std::optional<Micros> waitFirst) {
    std::string reply;
    Micros wait = waitFirst.value_or(-1);
    for (;;) {
      if (wait < 0) {
        if (!ins_.channels().ReadChannel(setup_.loadChannel, reply)) {
          seq_.reportSequenceError(std::string(kTextAbortMaintain) + setup_.loadChannel);
          return std::nullopt;
        }
        const auto c = reply.empty() ? 0 : static_cast<unsigned char>(reply[0]);
        if (c >= 40 && c <= 128) return leadingNumber(reply);
        wait = static_cast<Micros>(retryMs) * 1000;
      }
      phase_ = phase;
      if (!waitFor(wait)) return std::nullopt;
      wait = -1;
    }
  }

  Sequencer& seq_;
  Instrument& ins_;
  MaintainSetup setup_;
  OutputProgress* progress_ = nullptr;
  double output_ = 0;
  Phase phase_ = Phase::kNone;
  int64_t correctionMs_ = 0;
  int32_t began_ = 0;
  // Where a resumed maintenance goes on, once.
  Phase resumeAt_ = Phase::kNone;
  std::optional<Micros> resumeWait_;
};

// The load maintenance's instrument and its last settings.
struct MaintainFamily final : CommandFamily {
  explicit MaintainFamily(Instrument& instrument) : instrument(instrument) {}

  Instrument& instrument;
  // Rate, gain and tolerance of the last maintenance, the defaults of an
  // MT_RAMP that names none.
  MaintainSetup last;
};

std::string RestOfLine(const CommandLine& cmd) {
  std::string text = cmd.arg1;
  if (!cmd.arg2.empty() || !cmd.arg3.empty()) text += "," + cmd.arg2;
  if (!cmd.arg3.empty()) text += "," + cmd.arg3;
  return text;
}

Parsed<MaintainSetup> ParseMaintain(const CommandLine& cmd) {
  std::string error;
  auto setup = ParseMaintainSetup(RestOfLine(cmd), &error);
  if (!setup) return ParseFailure{error};
  return *setup;
}

// MT_RAMP: the ramp of the target, the channels, and the loop settings it
// names; those it does not name are the last maintenance's.
struct MaintainRampCommand {
  RampSetup ramp;
  std::string loadChannel;
  std::string outputChannel;
  LoopSettings settings;
};

Parsed<MaintainRampCommand> ParseMaintainRamp(const CommandLine& cmd) {
  std::string error;
  std::string rest;
  const auto ramp = ParseRampSetup(RestOfLine(cmd), false, &error, &rest);
  if (!ramp) return ParseFailure{error};
  MaintainRampCommand command{*ramp, {}, {}, {}};
  KeywordReader reader(rest);
  auto load = reader.next("AT");
  auto output = reader.next("USING");
  if (!load || !output) return ParseFailure{std::string(kTextRampCannotParse)};
  command.loadChannel = *load;
  command.outputChannel = *output;
  // The last maintenance's settings are good, so the named ones decide.
  if (!TakeRateGainTolerance(reader, MaintainSetup{}, false, command.settings, &error)) {
    return ParseFailure{error};
  }
  return command;
}

void Maintain(MaintainFamily& state, Sequencer& seq, const MaintainSetup& setup) {
  Instrument& instrument = state.instrument;
  state.last = setup;
  Maintainer maintainer(seq, instrument, setup);
  OutputProgress kept(seq, "maintain", [&] { return maintainer.save(); });
  if (maintainer.start(kept)) maintainer.hold(setup.target);
}

void MaintainRamp(MaintainFamily& state, Sequencer& seq, const MaintainRampCommand& cmd) {
  Instrument& instrument = state.instrument;
  MaintainSetup setup = state.last;
  setup.loadChannel = cmd.loadChannel;
  setup.outputChannel = cmd.outputChannel;
  cmd.settings.applyTo(setup);
  state.last = setup;
  Maintainer maintainer(seq, instrument, setup);
  Micros start = seq.clock().now();
  double target = cmd.ramp.start;
  int k = 0;
  OutputProgress kept(seq, "maintain ramp", [&] {
    nlohmann::json saved = maintainer.save();
    saved["elapsed"] = seq.clock().now() - start;
    saved["step"] = k;
    saved["target"] = target;
    return saved;
  });
  if (!maintainer.start(kept)) return;
  // A resumed ramp goes on at its step, on its schedule shifted by the time
  // the program was down; between two holds it goes on with its rest.
  bool inRest = false;
  if (const auto& resumed = kept.resumed(); resumed.contains("step")) {
    start -= resumed.at("elapsed").get<Micros>();
    k = resumed.at("step").get<int>();
    target = resumed.at("target").get<double>();
    inRest = maintainer.resumedBetweenHolds();
  }
  for (;; ++k) {
    if (!inRest) {
      if (!maintainer.hold(target)) return;
      if (k == cmd.ramp.steps) return;
    }
    inRest = false;
    // The rest of the step's interval, waited as a WAITSECONDS would wait
    // it: a step whose maintenance overran its interval leaves no time to
    // wait, which is rejected.
    const Micros rest = kept.takeWaitLeft().value_or(
        ScheduledInstant(start, cmd.ramp.stepInterval, k + 1) - seq.clock().now());
    if (rest <= 0) {
      if (OutputInterrupted(seq)) return;
      seq.reportSequenceError(MaintainWaitError(static_cast<double>(rest) / kMicrosPerSecond));
      return;
    }
    if (!kept.wait(rest)) return;
    target += cmd.ramp.stepSize;
  }
}

constexpr std::string_view kFamily = "src/instrument/outputs/load_maintenance.cc";
const Keyword<MaintainSetup> kMaintain{kMaintainKeyword, kFamily, ParseMaintain};
const Keyword<MaintainRampCommand> kMaintainRamp{kMaintainRampKeyword, kFamily, ParseMaintainRamp};

const FamilyTable<MaintainFamily>& MaintenanceTable() {
  static const FamilyTable<MaintainFamily> table{Handles(kMaintain, Maintain),
                                                 Handles(kMaintainRamp, MaintainRamp)};
  return table;
}

}  // namespace

std::optional<MaintainSetup> ParseMaintainSetup(std::string_view text, std::string* error) {
  KeywordReader reader(text);
  MaintainSetup setup;
  auto load = reader.next("HOLD");
  auto target = reader.next("AT");
  auto output = reader.next("USING");
  if (!load || !target || !output) {
    if (error) *error = kTextCannotParseMaintain;
    return std::nullopt;
  }
  setup.loadChannel = *load;
  setup.target = leadingNumber(*target);
  // A target beyond the single-precision range of a channel value cannot be
  // written to an output.
  if (!(std::fabs(setup.target) <= std::numeric_limits<float>::max())) {
    if (error) *error = kTextCannotParseMaintain;
    return std::nullopt;
  }
  setup.outputChannel = *output;
  LoopSettings settings;
  if (!TakeRateGainTolerance(reader, setup, true, settings, error)) return std::nullopt;
  settings.applyTo(setup);
  return setup;
}

std::string MaintainWaitError(double seconds) {
  return "Invalid parameter - " + numberText(seconds) + " - for a WaitSeconds statement";
}

int64_t CorrectionTimeMs(double deviation, float rate) {
  const double steps = std::floor(std::fabs(deviation) / rate);
  return (checkedInteger<int64_t>(std::min(steps, 1e9)).value_or(1'000'000'000) + 1) * 1000;
}

std::vector<KeywordEntry> LoadMaintenanceKeywords() { return EntriesOf(MaintenanceTable()); }

void RegisterLoadMaintenance(Sequencer& seq, Instrument& instrument) {
  MaintainFamily* state = &seq.addFamily(std::make_unique<MaintainFamily>(instrument));
  BindAll(seq.dispatcher(), *state, MaintenanceTable());
  seq.addPrepareHook([state] { state->last = MaintainSetup{}; });
  // The settings of the last maintenance are the defaults of the next
  // MT_RAMP, in a resumed run too.
  seq.addStatePart(
      "maintenance",
      [state](nlohmann::json& part) {
        const MaintainSetup& last = state->last;
        part = {{"load", last.loadChannel}, {"target", last.target}, {"output", last.outputChannel},
                {"rate", last.rate},        {"gain", last.gain},     {"tolerance", last.tolerance}};
      },
      [state](const nlohmann::json& part, std::string*) {
        MaintainSetup& last = state->last;
        last.loadChannel = part.at("load").get<std::string>();
        last.target = part.at("target").get<double>();
        last.outputChannel = part.at("output").get<std::string>();
        last.rate = part.at("rate").get<float>();
        last.gain = part.at("gain").get<double>();
        last.tolerance = part.at("tolerance").get<double>();
        return true;
      });
}

}  // namespace tavrix
