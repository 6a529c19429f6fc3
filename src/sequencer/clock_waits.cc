// WAITRANDOM, WAITTIMEOFDAY and WAITDATETIME: waits for a random length, a
// time of day and a date and time.
//   WAITRANDOM max               between 0 and max seconds
//   WAITRANDOM min, max          between min and max seconds
//   WAITTIMEOFDAY hh:mm[:ss]     until the clock next shows that time: today
//                                when it is still to come (or is now),
//                                otherwise tomorrow
//   WAITDATETIME dd-mm-yyyy[, hh:mm[:ss]]
//                                until that date and time (midnight when no
//                                time is given); a moment already passed
//                                does not wait
// They end early on Stop, a jump or the sequence time-out (timed_wait.h).

#include "sequencer/clock_waits.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "common/text_conventions.h"
#include "sequencer/command_family.h"
#include "sequencer/sequencer.h"
#include "sequencer/timed_wait.h"

namespace tavrix {

namespace {

// The source of WAITRANDOM's lengths.
struct ClockWaitFamily final : CommandFamily {
  UniformSource uniform;
};

// Parses "hh:mm" or "hh:mm:ss" (hours 0-23); the fields are whole numbers.
std::optional<int> ParseTimeOfDay(std::string_view text) {
  text = trim(text);
  std::vector<int> fields;
  size_t pos = 0;
  for (;;) {
    const size_t end = text.find(':', pos);
    const std::string_view part = text.substr(pos, end == std::string_view::npos ? end : end - pos);
    if (part.empty() || part.size() > 2 || fields.size() == 3) return std::nullopt;
    int value = 0;
    for (char c : part) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + (c - '0');
    }
    fields.push_back(value);
    if (end == std::string_view::npos) break;
    pos = end + 1;
  }
  if (fields.size() < 2) return std::nullopt;
  const int second = fields.size() == 3 ? fields[2] : 0;
  if (fields[0] > 23 || fields[1] > 59 || second > 59) return std::nullopt;
  return fields[0] * 3600 + fields[1] * 60 + second;
}

// Parses "dd-mm-yyyy" into the midnight that begins that day.
std::optional<Micros> ParseDate(std::string_view text) {
  text = trim(text);
  if (text.size() != 10 || text[2] != '-' || text[5] != '-') return std::nullopt;
  int parts[3] = {0, 0, 0};
  const size_t starts[3] = {0, 3, 6};
  const size_t sizes[3] = {2, 2, 4};
  for (int i = 0; i < 3; ++i) {
    for (char c : text.substr(starts[i], sizes[i])) {
      if (c < '0' || c > '9') return std::nullopt;
      parts[i] = parts[i] * 10 + (c - '0');
    }
  }
  CivilTime civil;
  civil.day = parts[0];
  civil.month = parts[1];
  civil.year = parts[2];
  if (civil.month < 1 || civil.month > 12 || civil.day < 1 || civil.year < 1970)
    return std::nullopt;
  const Micros t = fromCivil(civil);
  const CivilTime back = toCivil(t);
  if (back.day != civil.day || back.month != civil.month || back.year != civil.year)
    return std::nullopt;
  return t;
}

std::string Invalid(const CommandLine& cmd, std::string_view statement) {
  std::string argument = cmd.arg1;
  if (!cmd.arg2.empty()) argument += ", " + cmd.arg2;
  return "Invalid parameter - " + argument + " - for a " + std::string(statement) + " statement";
}

// The bounds of a random wait, in seconds.
struct RandomWaitCommand {
  double low = 0;
  double high = 0;
};

Parsed<RandomWaitCommand> ParseWaitRandom(const CommandLine& cmd) {
  const bool two = !trim(cmd.arg2).empty();
  const double low = two ? leadingNumber(cmd.arg1) : 0;
  const double high = two ? leadingNumber(cmd.arg2) : leadingNumber(cmd.arg1);
  if (!(low >= 0) || !(high > 0) || high < low || high > 86400.0 * 366) {
    return ParseFailure{Invalid(cmd, "WaitRandom")};
  }
  return RandomWaitCommand{low, high};
}

void WaitRandom(ClockWaitFamily& state, RunContext& seq, const RandomWaitCommand& cmd) {
  const double low = cmd.low;
  const double high = cmd.high;
  const double seconds = low == high ? low : std::min(high, low + (high - low) * state.uniform());
  const Micros length = static_cast<Micros>(seconds * kMicrosPerSecond);
  if (seq.trace().enabled()) {
    seq.trace().event("waitrandom").field("ms", static_cast<int64_t>(length / 1000));
  }
  WaitForInstant(seq, seq.clock().now() + length, "waitrandom");
}

// A time of day, in seconds since midnight.
struct TimeOfDayCommand {
  int seconds = 0;
};

Parsed<TimeOfDayCommand> ParseWaitTimeOfDay(const CommandLine& cmd) {
  const auto seconds = ParseTimeOfDay(cmd.arg1);
  if (!seconds) return ParseFailure{Invalid(cmd, "WaitTimeOfDay")};
  return TimeOfDayCommand{*seconds};
}

void WaitTimeOfDay(ClockWaitFamily&, RunContext& seq, const TimeOfDayCommand& cmd) {
  const Micros now = seq.clock().now();
  const Micros midnight = now - static_cast<Micros>(secondsSinceMidnight(now) * kMicrosPerSecond);
  Micros due = midnight + cmd.seconds * kMicrosPerSecond;
  if (due < now) due += kMicrosPerDay;
  WaitForInstant(seq, due, "waittimeofday");
}

// The moment a WAITDATETIME waits for.
struct DateTimeCommand {
  Micros due = 0;
};

Parsed<DateTimeCommand> ParseWaitDateTime(const CommandLine& cmd) {
  std::string_view date = trim(cmd.arg1);
  std::string_view time = trim(cmd.arg2);
  if (time.empty()) {
    // The date and the time may also be written together: "dd-mm-yyyy hh:mm".
    const size_t blank = date.find(' ');
    if (blank != std::string_view::npos) {
      time = trim(date.substr(blank));
      date = date.substr(0, blank);
    }
  }
  const auto day = ParseDate(date);
  const auto seconds = time.empty() ? std::optional<int>(0) : ParseTimeOfDay(time);
  if (!day || !seconds || !trim(cmd.arg3).empty())
    return ParseFailure{Invalid(cmd, "WaitDateTime")};
  return DateTimeCommand{*day + *seconds * kMicrosPerSecond};
}

void WaitDateTime(ClockWaitFamily&, RunContext& seq, const DateTimeCommand& cmd) {
  WaitForInstant(seq, cmd.due, "waitdatetime");
}

constexpr std::string_view kFamily = "src/sequencer/clock_waits.cc";
const Keyword<RandomWaitCommand> kWaitRandom{"WAITRANDOM", kFamily, ParseWaitRandom};
const Keyword<TimeOfDayCommand> kWaitTimeOfDay{"WAITTIMEOFDAY", kFamily, ParseWaitTimeOfDay};
const Keyword<DateTimeCommand> kWaitDateTime{"WAITDATETIME", kFamily, ParseWaitDateTime};

const FamilyTable<ClockWaitFamily>& ClockWaitTable() {
  static const FamilyTable<ClockWaitFamily> table{Handles(kWaitRandom, WaitRandom),
                                                  Handles(kWaitTimeOfDay, WaitTimeOfDay),
                                                  Handles(kWaitDateTime, WaitDateTime)};
  return table;
}

}  // namespace

std::vector<KeywordEntry> ClockWaitKeywords() { return EntriesOf(ClockWaitTable()); }

UniformSource SystemUniformSource() {
  auto engine = std::make_shared<std::mt19937_64>(std::random_device{}());
  return [engine] { return std::uniform_real_distribution<double>(0.0, 1.0)(*engine); };
}

void RegisterClockWaitCommands(Sequencer& seq, UniformSource uniform) {
  ClockWaitFamily* state = &seq.addFamily(std::make_unique<ClockWaitFamily>());
  state->uniform = uniform ? std::move(uniform) : SystemUniformSource();
  BindAll(seq.dispatcher(), *state, ClockWaitTable());
}

}  // namespace tavrix
