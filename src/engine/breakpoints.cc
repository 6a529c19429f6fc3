#include "engine/breakpoints.h"

#include <algorithm>
#include <cstdlib>

#include "common/checked_numbers.h"
#include "common/text_conventions.h"
#include "sequencer/sequence_file.h"

namespace tavrix {

namespace {

// Splits a trailing ":N" hit count off `spec`; false for a hit count that is
// not a whole number from 1 on.
bool SplitHitCount(std::string_view& spec, int64_t& hitCount, std::string* error) {
  hitCount = 1;
  const size_t colon = spec.rfind(':');
  if (colon == std::string_view::npos) return true;
  const std::string_view count = trim(spec.substr(colon + 1));
  const auto parsed = parseWholeNumber(count);
  if (!parsed || *parsed < 1) {
    *error = "the hit count after ':' must be a whole number from 1 on, not \"" +
             std::string(count) + "\"";
    return false;
  }
  hitCount = *parsed;
  spec = trim(spec.substr(0, colon));
  return true;
}

}  // namespace

std::string DescribeBreakpoint(const Breakpoint& breakpoint) {
  std::string text;
  switch (breakpoint.kind) {
    case Breakpoint::Kind::kLine:
      text = "line " + std::to_string(breakpoint.line);
      break;
    case Breakpoint::Kind::kLabel:
      text = "label " + breakpoint.target + " (line " + std::to_string(breakpoint.line) + ")";
      break;
    case Breakpoint::Kind::kCondition:
      text = "if " + breakpoint.target;
      break;
  }
  if (breakpoint.hitCount > 1) text += ", from hit " + std::to_string(breakpoint.hitCount);
  text += ", hit " + std::to_string(breakpoint.hits) + " time" + (breakpoint.hits == 1 ? "" : "s");
  return text;
}

Breakpoints::Breakpoints(Engine& engine)
    : engine_(engine), preparedFile_(engine.sequencer().sequenceFileName()) {
  subscription_ = engine.subscribe([this](const RunEvent& event) {
    switch (event.kind) {
      case RunEventKind::kPrepared:
        // Lines and labels name lines of the file they were set on: another
        // file takes them away. Conditions stay.
        if (event.text != preparedFile_) {
          std::lock_guard guard(mutex_);
          std::erase_if(breakpoints_,
                        [](const Breakpoint& b) { return b.kind != Breakpoint::Kind::kCondition; });
        }
        preparedFile_ = event.text;
        inPreparedFile_ = true;
        break;
      case RunEventKind::kFile:
        inPreparedFile_ = event.text == preparedFile_;
        break;
      case RunEventKind::kLine:
        line(event);
        break;
      default:
        break;
    }
  });
}

Breakpoints::~Breakpoints() { subscription_.reset(); }

std::optional<int64_t> Breakpoints::add(std::string_view spec, bool condition, std::string* error) {
  std::string problem;
  Breakpoint breakpoint;
  std::string_view rest = trim(spec);
  if (!SplitHitCount(rest, breakpoint.hitCount, &problem)) {
    *error = "breakpoint \"" + std::string(spec) + "\": " + problem;
    return std::nullopt;
  }
  breakpoint.spec = std::string(trim(spec));
  breakpoint.target = std::string(rest);
  if (condition) {
    const auto parsed = ParseChannelCondition(rest);
    const std::string_view value =
        parsed ? trim(rest.substr(rest.rfind(' ') + 1)) : std::string_view();
    const std::string valueText(value);
    char* end = nullptr;
    if (!valueText.empty()) static_cast<void>(std::strtod(valueText.c_str(), &end));
    if (!parsed || valueText.empty() || end == nullptr || *end != '\0') {
      *error = "breakpoint \"" + breakpoint.spec +
               "\": a condition is CHANNEL OPERATOR NUMBER, separated by blanks, as in \"T1 > 80\"";
      return std::nullopt;
    }
    if (!CompareReading(0, parsed->op, 0)) {
      *error = "breakpoint \"" + breakpoint.spec + "\": unknown operator \"" + parsed->op +
               "\" (a condition takes =, >, < or <>)";
      return std::nullopt;
    }
    breakpoint.kind = Breakpoint::Kind::kCondition;
    breakpoint.condition = *parsed;
  } else {
    SequenceFile file;
    if (!file.open(engine_.files(), preparedFile_, &problem)) {
      *error = "breakpoint \"" + breakpoint.spec + "\": " + problem;
      return std::nullopt;
    }
    int64_t lines = 0;
    for (std::string text; file.readLine(text);) ++lines;
    if (rest.empty()) {
      *error = "breakpoint \"" + breakpoint.spec + "\": give a line number or a label";
      return std::nullopt;
    }
    if (const auto number = parseWholeNumber(rest)) {
      if (*number < 1 || *number > lines) {
        *error = "breakpoint \"" + breakpoint.spec + "\": " + preparedFile_ + " has lines 1 to " +
                 std::to_string(lines) + ", no line " + std::string(rest);
        return std::nullopt;
      }
      breakpoint.kind = Breakpoint::Kind::kLine;
      breakpoint.line = static_cast<int32_t>(*number);
    } else {
      // The label as GOTO finds it: the first line that holds "NAME:".
      const auto index = file.findLineContaining(upperCase(rest) + ":");
      if (!index) {
        *error = "breakpoint \"" + breakpoint.spec + "\": label " + std::string(rest) +
                 " does not exist in " + preparedFile_;
        return std::nullopt;
      }
      if (static_cast<int64_t>(*index) + 2 > lines) {
        *error = "breakpoint \"" + breakpoint.spec + "\": no line follows label " +
                 std::string(rest) + " in " + preparedFile_;
        return std::nullopt;
      }
      breakpoint.kind = Breakpoint::Kind::kLabel;
      breakpoint.line = static_cast<int32_t>(*index + 2);
    }
  }
  std::lock_guard guard(mutex_);
  breakpoint.id = nextId_++;
  breakpoints_.push_back(breakpoint);
  return breakpoint.id;
}

bool Breakpoints::remove(int64_t id) {
  std::lock_guard guard(mutex_);
  const auto it = std::find_if(breakpoints_.begin(), breakpoints_.end(),
                               [id](const Breakpoint& b) { return b.id == id; });
  if (it == breakpoints_.end()) return false;
  breakpoints_.erase(it);
  return true;
}

std::vector<Breakpoint> Breakpoints::list() const {
  std::lock_guard guard(mutex_);
  return breakpoints_;
}

bool Breakpoints::conditionHolds(Breakpoint& breakpoint) {
  Instrument* instrument = engine_.instrument();
  std::string reading;
  if (instrument == nullptr || !instrument->isOpen() ||
      !instrument->channels().ReadChannel(breakpoint.condition.channel, reading))
    return false;
  return CompareReading(leadingNumber(reading), breakpoint.condition.op, breakpoint.condition.value)
      .value_or(false);
}

void Breakpoints::line(const RunEvent& event) {
  if (breakpoints_.empty()) return;  // only the engine thread changes the list
  int64_t holder = 0;
  std::lock_guard guard(mutex_);
  for (Breakpoint& breakpoint : breakpoints_) {
    bool hit = false;
    if (breakpoint.kind == Breakpoint::Kind::kCondition) {
      const bool now = conditionHolds(breakpoint);
      hit = now && !breakpoint.wasTrue;
      breakpoint.wasTrue = now;
    } else {
      hit = inPreparedFile_ && event.line == breakpoint.line;
    }
    if (!hit) continue;
    ++breakpoint.hits;
    if (breakpoint.hits >= breakpoint.hitCount && holder == 0) holder = breakpoint.id;
  }
  // The hold comes before the line runs: the run loop takes posted work
  // between showing a line and holding before it.
  if (holder != 0)
    engine_.post([holder](Engine& engine) { engine.sequencer().holdForBreakpoint(holder); });
}

}  // namespace tavrix
