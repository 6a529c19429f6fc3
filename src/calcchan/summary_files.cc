#include "calcchan/summary_files.h"

#include <algorithm>
#include <cmath>

#include "common/text_conventions.h"
#include "common/text_file.h"

namespace tavrix {
namespace {

// The summarised types in the order of their column groups.
constexpr std::string_view kGroupOrder[] = {calc_type::kDaily,   calc_type::kMaximum,
                                            calc_type::kMinimum, calc_type::kCheck95,
                                            calc_type::kHiAlarm, calc_type::kLoAlarm};

bool isCheck(std::string_view type) {
  return type == calc_type::kCheck95 || type == calc_type::kCheck95B;
}

bool inGroup(std::string_view type, std::string_view group) {
  return group == calc_type::kCheck95 ? isCheck(type) : type == group;
}

template <typename F>
void forEachSummarised(const CalcState& state, F f) {
  for (std::string_view group : kGroupOrder) {
    for (size_t i = 1; i < state.table.size(); ++i) {
      if (inGroup(state.table[i].type, group)) f(state.table[i]);
    }
  }
}

std::vector<std::string_view> fixedHeads(std::string_view type) {
  if (isCheck(type)) return {kTextEpochs, kTextCounted, kTextStatus};
  if (type == calc_type::kHiAlarm || type == calc_type::kLoAlarm) {
    return {kTextScans, kTextStatus, kTextInAlarm};
  }
  return {"", kTextStatus};
}

bool hasLimit(const CalcChannel& row) { return !trim(row.param1).empty(); }

std::string status(bool alarm) { return std::string(alarm ? kTextAlarm : kTextOk); }

std::vector<std::string> groupValues(const CalcState& state, const CalcChannel& row) {
  const double limit = leadingNumber(row.param1);
  if (row.type == calc_type::kDaily) {
    if (row.passes <= 0) return {std::string(kTextNotAvailableLower), status(false)};
    const double mean = row.total / static_cast<double>(row.passes);
    return {formatNumber(mean, "#.00"), status(hasLimit(row) && AboveLimit(mean, limit))};
  }
  if (row.type == calc_type::kMaximum) {
    // A pass takes no action for MAXIMUM rows, so there is never a value.
    return {std::string(kTextNotAvailableLower), status(false)};
  }
  if (row.type == calc_type::kMinimum) {
    if (row.passes == 0 || row.total >= kNoMinimum)
      return {std::string(kTextNotAvailableLower), status(false)};
    return {formatNumber(row.total, "#.00"), status(hasLimit(row) && BelowLimit(row.total, limit))};
  }
  if (row.type == calc_type::kCheck95B) {
    // More than 5 % of the epochs in alarm, compared in whole counts (more
    // than one in twenty), so that 1 of 20 is not above 5 %.
    const bool alarm = 20.0 * row.counter > row.total;
    return {formatNumber(row.total, "#0"), formatNumber(row.counter, "#0"), status(alarm)};
  }
  if (row.type == calc_type::kCheck95) {
    double p95 = 0;
    if (!Check95Statistic(state, row, p95)) {
      return {formatNumber(row.total, "#0"), std::string(kTextNotAvailableLower), status(false)};
    }
    return {formatNumber(row.total, "#0"), formatNumber(p95, "#0.00"),
            status(hasLimit(row) && AboveLimit(p95, limit))};
  }
  // HI ALARM, LO ALARM: scans evaluated, status, scans in alarm.
  return {formatNumber(row.passes, "#0"), status(row.total > 0), formatNumber(row.total, "#0")};
}

std::string joinTabs(const std::vector<std::string>& cells) {
  std::string line;
  for (size_t i = 0; i < cells.size(); ++i) {
    if (i) line += '\t';
    line += cells[i];
  }
  return line;
}

bool writeFailed(const CalcPorts& ports, const std::string& error) {
  if (ports.showMessage) ports.showMessage(error);
  return false;
}

std::string local(const CalcPorts& ports, const std::string& name) {
  std::string path = ports.resolvePath ? ports.resolvePath(name) : name;
  if (path.find('/') != std::string::npos)
    ports.fileSystem().makeFolders(parentFolder(path), nullptr);
  return path;
}

// Appends `row` to `name`, creating the file with `head` first when it does
// not exist yet.
bool appendWithHead(const CalcPorts& ports, const std::string& name,
                    const std::vector<std::string>& head, const std::string& row) {
  const std::string path = local(ports, name);
  FileSystem& files = ports.fileSystem();
  std::string error;
  // Another run may write the same summary: whether the head is needed and
  // the write itself happen under one lock.
  const auto held = files.lock(path, &error);
  if (!held) return writeFailed(ports, error);
  if (!files.isFile(path)) {
    std::vector<std::string> lines = head;
    lines.push_back(row);
    if (!writeTextFileAtomically(files, path, lines, &error)) return writeFailed(ports, error);
    return true;
  }
  if (!appendLines(files, path, {row}, &error)) return writeFailed(ports, error);
  return true;
}

}  // namespace

std::string DailySummaryName(const CalcState& state, Micros date) {
  return state.summaryFolderB + "\\MONTH_" + state.summaryPrefix + "_" + formatDate(date, "yymm") +
         ".wl";
}

std::string AlarmReportName(const CalcState& state) {
  return state.summaryFolderB + "\\" + state.summaryPrefix + "_ALM" + ".txt";
}

std::string CremReportName(const CalcState& state, Micros date) {
  return state.summaryFolderB + "\\" + state.summaryPrefix + "_" + formatDate(date, "mmyy") + ".wl";
}

bool Check95Statistic(const CalcState& state, const CalcChannel& row, double& value) {
  std::vector<float> values;
  for (const auto& e : state.dayList) {
    if (e.channel == row.newName) values.push_back(e.value);
  }
  if (values.empty()) return false;
  std::sort(values.begin(), values.end());
  const size_t rank = static_cast<size_t>(std::ceil(0.95 * static_cast<double>(values.size())));
  value = values[std::max<size_t>(rank, 1) - 1];
  return true;
}

std::vector<std::string> DailySummaryHead(const CalcState& state) {
  std::vector<std::string> names{std::string(kTextDay)};
  std::vector<std::string> heads{""};
  forEachSummarised(state, [&](const CalcChannel& row) {
    const auto fixed = fixedHeads(row.type);
    for (size_t i = 0; i < fixed.size(); ++i) {
      names.push_back(i == 0 ? row.newName : "");
      heads.emplace_back(fixed[i]);
    }
  });
  return {"", std::string(kTextDailySummary), joinTabs(names), joinTabs(heads)};
}

std::string DailySummaryRow(const CalcState& state, Micros date) {
  std::vector<std::string> cells{formatDate(date, "dd")};
  forEachSummarised(state, [&](const CalcChannel& row) {
    for (auto& v : groupValues(state, row)) cells.push_back(std::move(v));
  });
  return joinTabs(cells);
}

bool WriteDailySummary(CalcState& state, Micros date, const CalcPorts& ports) {
  if (!appendWithHead(ports, DailySummaryName(state, date), DailySummaryHead(state),
                      DailySummaryRow(state, date))) {
    return false;
  }
  for (size_t i = 1; i < state.table.size(); ++i) {
    CalcChannel& row = state.table[i];
    bool summarised = false;
    for (std::string_view group : kGroupOrder) summarised = summarised || inGroup(row.type, group);
    if (!summarised) continue;
    row.counter = 0;
    row.total = 0;
    row.passes = 0;
  }
  state.dayList.clear();
  state.firstPassPending = true;
  return true;
}

bool AppendAlarmReport(const CalcState& state, const CalcChannel& row, double value, Micros now,
                       const CalcPorts& ports) {
  const std::string line = joinTabs({formatDate(now, kSummaryDateTime), row.newName,
                                     formatNumber(value, "#0.00"), std::string(kTextAlarm)});
  const std::string path = local(ports, AlarmReportName(state));
  std::string error;
  const auto held = ports.fileSystem().lock(path, &error);
  if (!held || !appendLines(ports.fileSystem(), path, {line}, &error))
    return writeFailed(ports, error);
  return true;
}

bool AppendCremReport(const CalcState& state, const CalcChannel& row, Micros now,
                      const CalcPorts& ports) {
  const double minutes = static_cast<double>(now - row.dueTime) / (60.0 * kMicrosPerSecond);
  const bool alarm =
      !trim(row.param1).empty() && AboveLimit(row.periodResult, leadingNumber(row.param1));
  const std::string line =
      joinTabs({formatDate(now, kSummaryDateTime), formatNumber(minutes, "0.0"),
                formatNumber(row.periodResult, "#0.00"),
                std::string(alarm ? kTextCremAlarm : kTextCremOk), row.newName});
  return appendWithHead(ports, CremReportName(state, now), {std::string(kCremHeads)}, line);
}

}  // namespace tavrix
