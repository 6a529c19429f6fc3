// Load maintenance: holds a load (read from one channel) at a target by
// adjusting an output channel in a closed loop, and moves the target in
// steps like a ramp while holding it. Two words outside the table of 66
// keywords, which the dispatcher tries when a word matches none of those:
//
//   MT_MAINTAIN HOLD load AT target USING output WITH RATE rate GAIN gain
//               [TOLERANCE tolerance]
//   MT_RAMP start TO end OVER duration IN steps AT load USING output
//           [WITH RATE rate] [GAIN gain] [TOLERANCE tolerance]
//
// gain is the change of the load for a unit change of the output. The
// deviation is (target - reading) / gain: the change of the output that would
// bring the load to the target. The load is held when the deviation is at
// most the tolerance (default 0.01, the smallest step of an output written
// with two decimals). Otherwise the output becomes output + deviation,
// written as "0.00", and the loop reads the load every 500 ms until the
// correction time, (whole part of |deviation| / rate + 1) seconds, has
// passed, then compares again. See docs/outputs.md.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Instrument;
class Sequencer;

inline constexpr std::string_view kMaintainKeyword = "MT_MAINTAIN";
inline constexpr std::string_view kMaintainRampKeyword = "MT_RAMP";
inline constexpr std::string_view kTextAbortMaintain =
    "Aborting MT_maintainLoad - Unable to read from channel: ";
// The output needed to reach the target is beyond a channel value's range.
inline constexpr std::string_view kTextMaintainOutOfRange =
    "Aborting MT_maintainLoad - the output needed is out of range for channel: ";
inline constexpr std::string_view kTextCannotParseMaintain =
    "Cannot parse MT_Maintain setup string";
inline constexpr std::string_view kTextMaintainRate = "MT_Maintain setup string - RATE must be >0";
inline constexpr std::string_view kTextMaintainGain =
    "MT_Maintain setup string - GAIN must not be 0";
inline constexpr std::string_view kTextMaintainTolerance =
    "MT_Maintain setup string - TOLERANCE must be >0";
inline constexpr double kDefaultMaintainTolerance = 0.01;
inline constexpr int kLoadReadWaitMs = 500;   // between readings
inline constexpr int kLoadRetryWaitMs = 200;  // before reading again inside a correction

struct MaintainSetup {
  std::string loadChannel;
  double target = 0;
  std::string outputChannel;
  float rate = 1;  // deviation units per second, sizes a correction's wait
  double gain = 1;
  double tolerance = kDefaultMaintainTolerance;
};

// Parses an MT_MAINTAIN setup string; std::nullopt with the error text.
std::optional<MaintainSetup> ParseMaintainSetup(std::string_view text, std::string* error);

// The error of MT_RAMP's wait for the rest of a step that has `seconds`
// left (none or less): "Invalid parameter - " + seconds + " - for a
// WaitSeconds statement".
std::string MaintainWaitError(double seconds);

// The milliseconds a correction of `deviation` waits before the loop
// compares again: (whole part of |deviation| / rate + 1) x 1000.
int64_t CorrectionTimeMs(double deviation, float rate);

std::vector<KeywordEntry> LoadMaintenanceKeywords();
// Registers MT_MAINTAIN and MT_RAMP.
void RegisterLoadMaintenance(Sequencer& seq, Instrument& instrument);

}  // namespace tavrix
