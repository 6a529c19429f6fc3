// The written record of the calculated channels, all tab-separated text with
// CR LF line ends in SummaryFolderB:
//
//   MONTH_<prefix>_<yymm>.wl   the monthly daily summary: an empty line,
//                              "DAILY SUMMARY", two head lines, then one row
//                              per summary written
//   <prefix>_ALM.txt           alarm lines of REPORT rows
//   <prefix>_<mmyy>.wl         the CREM AVG report: one row per logging
//                              session of each CREM AVG row
//
// A new file is written whole and atomically; later rows are appended in one
// piece, so earlier rows survive a crash or a full disk. Columns and rules are
// documented in docs/calculated-channels.md.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "calcchan/calc_ports.h"
#include "calcchan/calc_table.h"

namespace tavrix {

inline constexpr std::string_view kTextDailySummary = "DAILY SUMMARY";
inline constexpr std::string_view kTextDay = "Day";
inline constexpr std::string_view kTextStatus = "Status";
inline constexpr std::string_view kTextEpochs = "Epochs";
inline constexpr std::string_view kTextCounted = "counted";
inline constexpr std::string_view kTextScans = "Scans";
inline constexpr std::string_view kTextInAlarm = "in alarm";
inline constexpr std::string_view kTextAlarm = "ALARM";
inline constexpr std::string_view kTextOk = "OK";
inline constexpr std::string_view kTextNotAvailableLower = "n.a.";
inline constexpr std::string_view kTextCremAlarm = "Alarm";
inline constexpr std::string_view kTextCremOk = "   OK";
// The last column names the CREM AVG row, as all rows share one report.
inline constexpr std::string_view kCremHeads =
    "Date-Time\tDuration (mins)\tCREM AVG\tStatus\tChannel";
inline constexpr std::string_view kSummaryDateTime = "dd-mm-yyyy hh:mm:ss";
// A MINIMUM row that has seen only "N.A." holds this.
inline constexpr float kNoMinimum = 9.9e20f;

// File names in the Windows form of the setup (resolved before writing).
std::string DailySummaryName(const CalcState& state, Micros date);
std::string AlarmReportName(const CalcState& state);
std::string CremReportName(const CalcState& state, Micros date);

// The four head lines and the row that a summary for `date` would write.
std::vector<std::string> DailySummaryHead(const CalcState& state);
std::string DailySummaryRow(const CalcState& state, Micros date);

// Writes the daily summary row for `date` (creating the file with its head
// lines when it does not exist), then starts every summarised row's day
// afresh and empties the day list. A write that fails is shown as a message
// and returns false; the counters are then kept.
bool WriteDailySummary(CalcState& state, Micros date, const CalcPorts& ports);

// Appends one alarm line of a REPORT row.
bool AppendAlarmReport(const CalcState& state, const CalcChannel& row, double value, Micros now,
                       const CalcPorts& ports);

// Appends one CREM AVG report row (the session that ends at `now`).
bool AppendCremReport(const CalcState& state, const CalcChannel& row, Micros now,
                      const CalcPorts& ports);

// The CHECK 95 statistic of a row: the 95th percentile (nearest rank) of the
// day's completed averages of that row; false when there is none.
bool Check95Statistic(const CalcState& state, const CalcChannel& row, double& value);

}  // namespace tavrix
