#include "instrument/outputs/pulse_sine.h"

#include <cmath>
#include <numbers>

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_support.h"
#include "instrument/outputs/output_timing.h"
#include "sequencer/sequencer.h"

namespace tavrix {
namespace {

// Text that a number can be read from: after blanks, a digit, a sign, a
// decimal point or a "&H"/"&O" prefix.
bool looksNumeric(std::string_view text) {
  text = trimLeft(text);
  if (text.empty()) return false;
  const char c = text[0];
  return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == '&';
}

// The text behind "keyword " up to the next blank, in `original`'s case.
std::optional<std::string> valueOf(std::string_view upper, std::string_view original,
                                   std::string_view keyword) {
  const size_t at = upper.find(keyword);
  if (at == std::string_view::npos) return std::nullopt;
  const size_t begin = std::min(upper.size(), at + keyword.size() + 1);
  size_t end = upper.find(' ', begin);
  if (end == std::string_view::npos) end = upper.size();
  return std::string(original.substr(begin, end - begin));
}

// A pulse at least this long (milliseconds) is checkpointed at its start.
constexpr int32_t kCheckpointedPulse = 1000;

// PULSEOUTPUT channel, HI|LO, milliseconds: the channel is written the
// first value, and the second once the pulse's length has passed.
struct PulseCommand {
  std::string channel;
  const char* first = "1";
  const char* second = "0";
  int32_t length = 0;  // milliseconds
};

Parsed<PulseCommand> ParsePulseOutput(const CommandLine& cmd) {
  PulseCommand pulse;
  pulse.channel = std::string(trim(cmd.arg1));
  const std::string direction = upperCase(trim(cmd.arg2));
  const std::string_view lengthText = trimRight(cmd.arg3);
  const auto length = roundToInt32(leadingNumber(lengthText));
  if (!looksNumeric(lengthText) || !length || *length < 0 || *length > kLongestPulse) {
    return ParseFailure{PulseLengthError(lengthText)};
  }
  pulse.length = *length;
  if (direction == "HI") {
    pulse.first = "1";
    pulse.second = "0";
  } else if (direction == "LO") {
    pulse.first = "0";
    pulse.second = "1";
  } else {
    return ParseFailure{PulseDirectionError(direction)};
  }
  return pulse;
}

void PulseOutput(Sequencer& seq, Instrument& instrument, const PulseCommand& cmd) {
  const std::string& channel = cmd.channel;
  const char* first = cmd.first;
  const char* second = cmd.second;
  if (!OutputLinkReady(seq, instrument) || !OutputChannelOwned(seq, instrument, channel)) return;

  Operator& op = seq.operatorPort();
  const std::string saved = seq.runStatus();
  op.showStatusLabel(kTextPulseTiming, kColourPulseTiming);
  int32_t start = GetMillisecondCount(instrument);
  OutputProgress kept(seq, "pulse", [&] {
    return nlohmann::json{
        {"elapsed", static_cast<int32_t>(static_cast<uint32_t>(GetMillisecondCount(instrument)) -
                                         static_cast<uint32_t>(start))}};
  });
  if (const auto& resumed = kept.resumed(); resumed.contains("elapsed")) {
    // The pulse had begun: its channel has its first value again, and the
    // rest of the pulse follows.
    start =
        static_cast<int32_t>(static_cast<uint32_t>(start) - resumed.at("elapsed").get<uint32_t>());
  } else {
    instrument.writeOutput(channel, first);
    // A long pulse is worth a checkpoint at its start (its writing is part
    // of the pulse's time); nothing else runs until the pulse ends.
    if (cmd.length >= kCheckpointedPulse) seq.enterTimedWait(Clock::kNever);
  }
  WaitMilliseconds(instrument.link().library(), seq.clock(), start, cmd.length);
  seq.leaveTimedWait();
  instrument.writeOutput(channel, second);
  op.showStatusLabel(saved, kColourStatusNormal);
}

// SINEOUT channel, setup: the setup and its number of points.
struct SineCommand {
  std::string channel;
  SineSetup setup;
  int16_t points = 0;
};

Parsed<SineCommand> ParseSineOut(const CommandLine& cmd) {
  SineCommand sine;
  sine.channel = std::string(trim(cmd.arg1));
  const auto setup = ParseSineSetup(cmd.arg2);
  if (!setup) return ParseFailure{std::string(kTextCannotParseSine)};
  std::string error;
  const auto points = SinePointCount(*setup, &error);
  if (!points) return ParseFailure{error};
  sine.setup = *setup;
  sine.points = *points;
  return sine;
}

void SineOut(Sequencer& seq, Instrument& instrument, const SineCommand& cmd) {
  const std::string& channel = cmd.channel;
  const SineSetup& setup = cmd.setup;
  // A write that fails (a channel not in the table included) is kept as the
  // last output status and the output goes on.
  if (!OutputLinkReady(seq, instrument) || !OutputChannelOwned(seq, instrument, channel)) return;

  const double n = setup.pointsPerCycle();
  std::optional<double> highest;
  std::optional<double> lowest;
  auto track = [&](double value) {
    highest = highest ? std::max(*highest, value) : value;
    lowest = lowest ? std::min(*lowest, value) : value;
  };
  Micros start = seq.clock().now();
  int16_t k = 1;
  OutputProgress kept(seq, "sine", [&] {
    nlohmann::json saved;
    saved["elapsed"] = seq.clock().now() - start;
    saved["point"] = k;
    saved["highest"] = highest ? nlohmann::json(*highest) : nlohmann::json(nullptr);
    saved["lowest"] = lowest ? nlohmann::json(*lowest) : nlohmann::json(nullptr);
    return saved;
  });
  // A run that goes on inside the output: point k was written (and is
  // written again with the outputs the run had set); its wait goes on.
  bool written = false;
  if (const auto& resumed = kept.resumed(); resumed.contains("point")) {
    start -= resumed.at("elapsed").get<Micros>();
    k = resumed.at("point").get<int16_t>();
    if (!resumed.at("highest").is_null()) highest = resumed.at("highest").get<double>();
    if (!resumed.at("lowest").is_null()) lowest = resumed.at("lowest").get<double>();
    written = true;
  }
  for (; k <= cmd.points; ++k) {
    if (!written) {
      const double value = setup.amplitude * std::sin(2 * std::numbers::pi * k / n) + setup.offset;
      WriteOutputValue(instrument, channel, value);
      if (setup.monitor.empty()) track(value);
    }
    written = false;
    const Micros due = ScheduledInstant(start, kSinePointInterval, k);
    // The wait a resumed run was in goes on with the time it had left.
    const Micros wait = kept.takeWaitLeft().value_or(RoundedRemainingWait(due, seq.clock().now()));
    if (wait > 0 ? !kept.wait(wait) : OutputInterrupted(seq)) return;
    if (!setup.monitor.empty()) {
      std::string reading;
      if (instrument.channels().ReadChannel(setup.monitor, reading) &&
          upperCase(reading).find("ERR") == std::string::npos) {
        track(leadingNumber(reading));
      }
    }
    if (k == INT16_MAX) break;
  }
  if (setup.peakTo.empty()) return;
  if (!highest) {
    seq.reportSequenceError(std::string(kTextUnableToRead) + setup.monitor);
    return;
  }
  WriteOutputValue(instrument, setup.peakTo, (*highest - *lowest) / 2);
}

constexpr std::string_view kFamily = "src/instrument/outputs/pulse_sine.cc";
const Keyword<PulseCommand> kPulseOutput{"PULSEOUTPUT", kFamily, ParsePulseOutput};
const Keyword<SineCommand> kSineOut{"SINEOUT", kFamily, ParseSineOut};

}  // namespace

std::string PulseLengthError(std::string_view length) {
  return "Invalid parameter - " + std::string(length) + " - for a PulseOutput command";
}

std::string PulseDirectionError(std::string_view direction) {
  return "Unrecognised direction parameter - " + std::string(direction) +
         " - in a PulseOutput command";
}

std::optional<SineSetup> ParseSineSetup(std::string_view text) {
  const std::string upper = upperCase(text);
  SineSetup setup;
  const auto amplitude = valueOf(upper, text, "AMPLITUDE");
  const auto offset = valueOf(upper, text, "OFFSET");
  const auto frequency = valueOf(upper, text, "FREQUENCY");
  const auto cycles = valueOf(upper, text, "CYCLES");
  if (!amplitude || !offset || !frequency || !cycles) return std::nullopt;
  setup.amplitude = leadingNumber(*amplitude);
  setup.offset = leadingNumber(*offset);
  setup.frequency = leadingNumber(*frequency);
  setup.cycles = leadingNumber(*cycles);
  // A MONITOR or PEAK TO without a channel name behind it is malformed.
  const auto monitor = valueOf(upper, text, "MONITOR");
  const auto peakTo = valueOf(upper, text, "PEAK TO");
  if ((monitor && monitor->empty()) || (peakTo && peakTo->empty())) return std::nullopt;
  setup.monitor = monitor.value_or("");
  setup.peakTo = peakTo.value_or("");
  return setup;
}

std::optional<int16_t> SinePointCount(const SineSetup& setup, std::string* error) {
  const double total = setup.pointsPerCycle() * setup.cycles;
  if (!(total >= 1)) {
    if (error) *error = kTextSineNoPoints;
    return std::nullopt;
  }
  const auto count = roundToInt16(total);
  if (!count) {
    if (error) *error = kTextSineTooManyPoints;
    return std::nullopt;
  }
  return count;
}

int32_t GetMillisecondCount(Instrument& instrument) {
  return instrument.link().library().millisecondCount();
}

std::vector<KeywordEntry> PulseSineKeywords() { return {Entry(kPulseOutput), Entry(kSineOut)}; }

void RegisterPulseSineCommands(Sequencer& seq, Instrument& instrument) {
  Dispatcher& d = seq.dispatcher();
  d.bind(kPulseOutput,
         [&instrument](Sequencer& s, const PulseCommand& c) { PulseOutput(s, instrument, c); });
  d.bind(kSineOut,
         [&instrument](Sequencer& s, const SineCommand& c) { SineOut(s, instrument, c); });
}

}  // namespace tavrix
