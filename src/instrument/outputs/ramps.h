// Ramps: RAMP moves one output channel from a start value to an end value in
// equal steps spread evenly over a time, and a "[GROUPRAMPS]" block ramps
// several channels at once on one clock.
//
//   RAMP channel, start TO end OVER duration IN steps
//   [GROUPRAMPS]
//   RAMP channel, start TO end OVER duration IN steps
//   ...
//   [END]
//
// Steps are scheduled from the ramp's start; the wait before each step is
// the time to its instant rounded down to a tenth of a second, and a step
// less than a tenth away is written at once. Values are written with
// WriteChannel as numbers with a leading blank when not negative. A failed
// write does not stop a ramp; its flag is kept as the last output status.
// Stop, a jump or a timeout action ends a ramp at its next wait.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/clock.h"
#include "sequencer/keyword.h"

namespace tavrix {

class Instrument;
class Sequencer;

inline constexpr std::string_view kTextRampNoSteps =
    "Ramp Setup String - Number of steps must be >0";
inline constexpr std::string_view kTextGroupRampNoSteps =
    "GroupRamp Setup String - Number of steps must be >0";
inline constexpr std::string_view kTextRampTooFast =
    "Ramp Setup String - Time between steps must be >= 0.1";
inline constexpr std::string_view kTextGroupRampTooFast =
    "GroupRamp Setup String - Time between steps must be >= 0.1";
inline constexpr std::string_view kTextRampCannotParse = "Cannot parse Ramp setup string";
inline constexpr std::string_view kTextGroupRampCannotParse = "Cannot parse GroupRamp setup string";
// Behind a carriage return.
inline constexpr std::string_view kTextGroupNonRamp =
    "Group Ramps: a non-Ramp command has been found";
inline constexpr std::string_view kTextGroupNoEnd =
    "Group Ramps: the file ends before the [END] of the group";
inline constexpr std::string_view kGroupRampsKeyword = "[GROUPRAMPS]";
inline constexpr std::string_view kGroupEndLine = "[END]";
// The shortest time between two steps, in seconds.
inline constexpr double kMinimumStepInterval = 0.1;

struct RampSetup {
  std::string channel;
  double start = 0;
  double end = 0;
  double duration = 0;  // seconds
  int16_t steps = 0;
  double stepSize = 0;
  double stepInterval = 0;  // seconds
};

// Parses and checks "start TO end OVER duration IN steps" (case-blind).
// `rest`, when given, receives the text behind the step count (load
// maintenance names its channels there). On failure returns std::nullopt
// with the error text of the single or the group form.
std::optional<RampSetup> ParseRampSetup(std::string_view text, bool inGroup, std::string* error,
                                        std::string* rest = nullptr);

// Parses a RAMP line, alone or inside a "[GROUPRAMPS]" block: the channel is
// the first argument and the setup the second.
Parsed<RampSetup> ParseRampLine(const CommandLine& line, bool inGroup);

// Runs ramps together on one clock started now: every channel is written at
// its start value, then each ramp writes its next value when its step falls
// due; within one pass due ramps write in their order. Returns false when
// the run ended the ramps early (Stop, a jump, a timeout action).
bool RunRamps(Sequencer& seq, Instrument& instrument, const std::vector<RampSetup>& ramps);

std::vector<KeywordEntry> RampKeywords();
// Registers RAMP and [GROUPRAMPS].
void RegisterRampCommands(Sequencer& seq, Instrument& instrument);

}  // namespace tavrix
