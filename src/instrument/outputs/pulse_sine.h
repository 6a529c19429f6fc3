// Pulse and sine outputs.
//
//   PULSEOUTPUT channel, HI|LO, milliseconds
//       sets the channel to "1" ("0" for LO) and, the given number of
//       milliseconds (0-32000) after the command began, back to "0" ("1").
//       The length is timed on the link library's millisecond counter with
//       the engine held: no timer, command or display update runs during a
//       pulse. The run status label shows "Pulse Timing" in orange meanwhile.
//   SINEOUT channel, AMPLITUDE a OFFSET o FREQUENCY f CYCLES c
//           [MONITOR channel] [PEAK TO channel]
//       writes offset + amplitude x sin(2 pi k / N), N = 1 / (f x 0.2) points
//       a cycle, one point every 0.2 s (rounded down to tenths like a ramp),
//       for c cycles. MONITOR names a channel read once a point, at the end
//       of the point's interval; PEAK TO names a channel that receives half
//       the difference between the highest and lowest monitor readings (the
//       written values when no MONITOR is named).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Instrument;
class Sequencer;

inline constexpr std::string_view kTextPulseTiming = "Pulse Timing";
// Colour values of the status label (red + 256 x green + 65536 x blue).
inline constexpr int32_t kColourPulseTiming = 33023;      // orange: 255, 128, 0
inline constexpr int32_t kColourStatusNormal = 12632256;  // light grey: 192, 192, 192
inline constexpr int32_t kLongestPulse = 32000;           // milliseconds
inline constexpr double kSinePointInterval = 0.2;         // seconds
inline constexpr std::string_view kTextCannotParseSine = "Cannot parse SineOut setup string";
inline constexpr std::string_view kTextSineNoPoints =
    "Sine Output Setup String - There are no points to output";
inline constexpr std::string_view kTextSineTooManyPoints =
    "Sine Output Setup String - There are too many points to output (at most 32767)";

// "Invalid parameter - " + length + " - for a PulseOutput command".
std::string PulseLengthError(std::string_view length);
// "Unrecognised direction parameter - " + direction + " - in a PulseOutput command".
std::string PulseDirectionError(std::string_view direction);

struct SineSetup {
  double amplitude = 0;
  double offset = 0;
  double frequency = 0;  // hertz
  double cycles = 0;
  std::string monitor;  // empty when not named
  std::string peakTo;   // empty when not named
  double pointsPerCycle() const { return 1 / (frequency * kSinePointInterval); }
};

// Parses a SINEOUT setup string (keywords case-blind; channel names keep the
// case they are written in). std::nullopt when a required keyword is missing.
std::optional<SineSetup> ParseSineSetup(std::string_view text);

// The number of points to write, or the error text.
std::optional<int16_t> SinePointCount(const SineSetup& setup, std::string* error);

// The link library's millisecond counter.
int32_t GetMillisecondCount(Instrument& instrument);

std::vector<KeywordEntry> PulseSineKeywords();
// Registers PULSEOUTPUT and SINEOUT.
void RegisterPulseSineCommands(Sequencer& seq, Instrument& instrument);

}  // namespace tavrix
