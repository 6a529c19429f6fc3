#include "instrument/outputs/ramps.h"

#include <algorithm>
#include <cmath>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_support.h"
#include "instrument/outputs/output_timing.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

// The longest ramp the schedule counts, in seconds (about 31 years).
constexpr double kLongestDuration = 1e9;

// The value behind `keyword`: blanks skipped, then the text up to the next
// blank. Searching starts at `pos`, which moves past the value.
std::optional<std::string_view> valueAfter(std::string_view text, std::string_view keyword,
                                           size_t& pos) {
  const size_t at = text.find(keyword, pos);
  if (at == std::string_view::npos) return std::nullopt;
  size_t begin = at + keyword.size();
  while (begin < text.size() && text[begin] == ' ') ++begin;
  size_t end = text.find(' ', begin);
  if (end == std::string_view::npos) end = text.size();
  pos = end;
  return text.substr(begin, end - begin);
}

}  // namespace

std::optional<RampSetup> ParseRampSetup(std::string_view text, bool inGroup, std::string* error,
                                        std::string* rest) {
  const std::string upper = upperCase(trimLeft(text));
  const std::string_view s = upper;
  if (error) *error = inGroup ? kTextGroupRampCannotParse : kTextRampCannotParse;
  const size_t blank = s.find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  RampSetup ramp;
  ramp.start = leadingNumber(s.substr(0, blank));
  size_t pos = blank;
  const auto end = valueAfter(s, "TO", pos);
  if (!end) return std::nullopt;
  const auto duration = valueAfter(s, "OVER", pos);
  if (!duration) return std::nullopt;
  const auto steps = valueAfter(s, "IN", pos);
  if (!steps) return std::nullopt;
  ramp.end = leadingNumber(*end);
  ramp.duration = leadingNumber(*duration);
  // A step count beyond the 16-bit range is the runtime's overflow.
  const auto count = roundToInt16(leadingNumber(*steps));
  if (!count || !std::isfinite(ramp.start) || !std::isfinite(ramp.end) ||
      !std::isfinite(ramp.duration) || std::fabs(ramp.duration) > kLongestDuration) {
    return std::nullopt;
  }
  ramp.steps = *count;
  if (rest) {
    // The caller's text behind the step count, in its own case.
    const size_t offset = text.size() - trimLeft(text).size();
    *rest = std::string(text.substr(std::min(text.size(), offset + pos)));
  }
  if (ramp.steps < 1) {
    if (error) *error = inGroup ? kTextGroupRampNoSteps : kTextRampNoSteps;
    return std::nullopt;
  }
  ramp.stepSize = (ramp.end - ramp.start) / ramp.steps;
  ramp.stepInterval = ramp.duration / ramp.steps;
  if (ramp.stepInterval < kMinimumStepInterval) {
    if (error) *error = inGroup ? kTextGroupRampTooFast : kTextRampTooFast;
    return std::nullopt;
  }
  if (error) error->clear();
  return ramp;
}

bool RunRamps(Sequencer& seq, Instrument& instrument, const std::vector<RampSetup>& ramps) {
  struct Progress {
    double value;
    int64_t step = 1;  // the next step to write
  };
  std::vector<Progress> progress;
  progress.reserve(ramps.size());
  Micros start = seq.clock().now();
  OutputProgress kept(seq, "ramps", [&] {
    nlohmann::json saved;
    saved["elapsed"] = seq.clock().now() - start;
    for (const Progress& p : progress) saved["ramps"].push_back({p.value, p.step});
    return saved;
  });
  if (const auto& resumed = kept.resumed();
      resumed.contains("ramps") && resumed.at("ramps").size() == ramps.size()) {
    // A run that goes on inside the ramps: each channel has its last value
    // again, and the steps go on where they were, the schedule shifted by
    // the time the program was down.
    start -= resumed.at("elapsed").get<Micros>();
    for (const auto& ramp : resumed.at("ramps"))
      progress.push_back({ramp.at(0).get<double>(), ramp.at(1).get<int64_t>()});
  } else {
    for (const RampSetup& ramp : ramps) {
      progress.push_back({ramp.start});
      WriteOutputValue(instrument, ramp.channel, ramp.start);
    }
  }
  for (;;) {
    // The nearest step of the ramps that still have steps to make.
    std::optional<Micros> nearest;
    for (size_t i = 0; i < ramps.size(); ++i) {
      if (progress[i].step > ramps[i].steps) continue;
      const Micros due = ScheduledInstant(start, ramps[i].stepInterval, progress[i].step);
      nearest = nearest ? std::min(*nearest, due) : due;
    }
    if (!nearest) return true;
    // The wait a resumed run was in goes on with the time it had left.
    const Micros wait =
        kept.takeWaitLeft().value_or(RoundedRemainingWait(*nearest, seq.clock().now()));
    if (wait > 0 ? !kept.wait(wait) : OutputInterrupted(seq)) return false;
    // Every ramp whose step is less than a tenth of a second away writes.
    const Micros now = seq.clock().now();
    for (size_t i = 0; i < ramps.size(); ++i) {
      Progress& p = progress[i];
      if (p.step > ramps[i].steps) continue;
      if (RoundedRemainingWait(ScheduledInstant(start, ramps[i].stepInterval, p.step), now) > 0) {
        continue;
      }
      p.value += ramps[i].stepSize;
      ++p.step;
      WriteOutputValue(instrument, ramps[i].channel, p.value);
    }
  }
}

namespace {

bool CheckAndRun(Sequencer& seq, Instrument& instrument, const std::vector<RampSetup>& ramps) {
  // No channel is looked up beforehand: a write that fails, to a channel not
  // in the table too, is kept as the last output status and the ramp goes on.
  if (!OutputLinkReady(seq, instrument)) return false;
  for (const RampSetup& ramp : ramps) {
    if (!OutputChannelOwned(seq, instrument, ramp.channel)) return false;
  }
  return RunRamps(seq, instrument, ramps);
}

void Ramp(Sequencer& seq, Instrument& instrument, const RampSetup& ramp) {
  CheckAndRun(seq, instrument, {ramp});
}

// Reads the block up to "[END]" and runs its ramps; nothing is written when
// a line is wrong or the block has no end.
void GroupRamps(Sequencer& seq, Instrument& instrument, const CommandLine&) {
  std::vector<RampSetup> ramps;
  std::string line;
  for (;;) {
    if (!seq.readSectionLine(line)) {
      if (!seq.endRequested()) seq.reportSequenceError(kTextGroupNoEnd);
      return;
    }
    if (!line.empty() && line[0] == '\n') line.erase(0, 1);
    if (!line.empty() && line[0] == '\t') line.erase(0, 1);
    line.erase(0, line.size() - trimLeft(line).size());
    if (upperCase(std::string_view(line).substr(0, kGroupEndLine.size())) == kGroupEndLine) break;
    const CommandLine ramp = SplitCommandLine(line);
    if (ramp.word != "RAMP") {
      seq.reportSequenceError("\r" + std::string(kTextGroupNonRamp));
      return;
    }
    const auto setup = ParseRampLine(ramp, true);
    if (!setup.ok()) {
      seq.reportSequenceError(setup.message());
      return;
    }
    ramps.push_back(*setup);
  }
  if (ramps.empty()) return;
  CheckAndRun(seq, instrument, ramps);
}

constexpr std::string_view kFamily = "src/instrument/outputs/ramps.cc";
Parsed<RampSetup> ParseSingleRamp(const CommandLine& line) { return ParseRampLine(line, false); }
const Keyword<RampSetup> kRamp{"RAMP", kFamily, ParseSingleRamp};
// The block's lines are read, and parsed, by the handler.
const Keyword<CommandLine> kGroupRamps{kGroupRampsKeyword, kFamily, AsWritten};

}  // namespace

Parsed<RampSetup> ParseRampLine(const CommandLine& line, bool inGroup) {
  std::string error;
  auto ramp = ParseRampSetup(line.arg2, inGroup, &error);
  if (!ramp) return ParseFailure{error};
  ramp->channel = std::string(trim(line.arg1));
  return *ramp;
}

std::vector<KeywordEntry> RampKeywords() { return {Entry(kRamp), Entry(kGroupRamps)}; }

void RegisterRampCommands(Sequencer& seq, Instrument& instrument) {
  Dispatcher& d = seq.dispatcher();
  d.bind(kRamp, [&instrument](Sequencer& s, const RampSetup& ramp) { Ramp(s, instrument, ramp); });
  d.bind(kGroupRamps,
         [&instrument](Sequencer& s, const CommandLine& c) { GroupRamps(s, instrument, c); });
}

}  // namespace tavrix
