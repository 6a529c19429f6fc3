// The calculated channel table and the state that the setup loader sets and
// the evaluation cycle and the summary writers read. Row 0 of the table is a
// placeholder that is never filled or evaluated; the channels of the setup
// file are rows 1 to N in file order.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/civil_time.h"

namespace tavrix {

// The type keywords, exactly as the setup loader accepts them.
namespace calc_type {
inline constexpr std::string_view kFormula = "FORMULA";
inline constexpr std::string_view kLoggerOnOff = "LOGGER ON/OFF";
inline constexpr std::string_view kRefer = "REFER";
inline constexpr std::string_view kReferStp = "REFER STP";
inline constexpr std::string_view kAverage = "AVERAGE";
inline constexpr std::string_view kCheck95 = "CHECK 95";
inline constexpr std::string_view kCheck95B = "CHECK 95B";
inline constexpr std::string_view kDaily = "DAILY";
inline constexpr std::string_view kHiAlarm = "HI ALARM";
inline constexpr std::string_view kLoAlarm = "LO ALARM";
inline constexpr std::string_view kScale = "SCALE";
inline constexpr std::string_view kReport = "REPORT";
inline constexpr std::string_view kCremAvg = "CREM AVG";
inline constexpr std::string_view kMinimum = "MINIMUM";
inline constexpr std::string_view kMaximum = "MAXIMUM";
inline constexpr std::string_view kHiSwitch = "HI SWITCH";
inline constexpr std::string_view kLoSwitch = "LO SWITCH";
}  // namespace calc_type

inline constexpr std::array<std::string_view, 17> kCalcChannelTypes = {
    calc_type::kFormula, calc_type::kLoggerOnOff, calc_type::kRefer,    calc_type::kReferStp,
    calc_type::kAverage, calc_type::kCheck95,     calc_type::kCheck95B, calc_type::kDaily,
    calc_type::kHiAlarm, calc_type::kLoAlarm,     calc_type::kScale,    calc_type::kReport,
    calc_type::kCremAvg, calc_type::kMinimum,     calc_type::kMaximum,  calc_type::kHiSwitch,
    calc_type::kLoSwitch};

bool IsCalcChannelType(std::string_view type);

// One row. The run-time fields mean different things by type (see
// docs/calculated-channels.md).
struct CalcChannel {
  std::string type;     // TYPE=, trimmed and upper-cased
  std::string source;   // SOURCE=, trimmed (for FORMULA the expression)
  std::string newName;  // NEWNAME=, trimmed: the channel the result goes to
  std::string param1;   // PARAM1=, trimmed
  std::string param2;   // PARAM2=, trimmed
  int16_t counter = 0;
  bool armed = false;
  // Sums and means are kept in double: a 32-bit running sum of an hour of
  // one-second readings drifts by more than the last digit of a reading.
  double total = 0;
  double periodResult = 0;
  Micros dueTime = 0;
  int16_t flags = 0;
  // Not in the original's row: a 32-bit count for what a 16-bit counter
  // cannot hold over a day (HI/LO ALARM passes, CREM AVG readings).
  int32_t passes = 0;
};

// A computed sum, mean or share against a limit of the setup file. The value
// stands for a 32-bit figure, so both are compared at that precision: a mean
// of readings that all equal the limit is neither above nor below it.
inline bool AboveLimit(double value, double limit) {
  return static_cast<float>(value) > static_cast<float>(limit);
}
inline bool BelowLimit(double value, double limit) {
  return static_cast<float>(value) < static_cast<float>(limit);
}

// Rows 1..N; row 0 is the placeholder.
using CalcChannelTable = std::vector<CalcChannel>;

// One completed epoch of a CHECK 95 or CHECK 95B row.
struct DayEntry {
  float value = 0;
  int16_t epoch = 0;
  std::string channel;
};

// Module-wide state of the calculated channels.
struct CalcState {
  CalcChannelTable table = CalcChannelTable(1);
  std::string summaryPrefix;
  std::string summaryFolderA;
  std::string summaryFolderB;
  bool dailyTrackingWanted = false;
  Micros loadDate = 0;
  bool firstPassPending = false;
  bool setupLoaded = false;
  bool loadStarted = false;
  int16_t evaluationTickCount = 0;
  int16_t ticksRemaining = 0;
  // The pass in progress.
  bool busy = false;
  Micros passTime = 0;
  // The day list that CHECK 95 and CHECK 95B fill and the summary reads.
  std::vector<DayEntry> dayList;
  // Logger change state: set by CC_CHANGELOGGERS, read by the logging switch.
  bool loggerChanging = false;
  int16_t loggerState1 = 0;  // the loggers are stopped; the switch restarts them
  int16_t loggerState2 = 0;  // they were stopped from outside (markLoggersStopped)
  // The logging switch's last position: -1 unknown, 0 off, 1 on.
  int loggingSwitch = -1;
};

}  // namespace tavrix
