#include "calcchan/evaluation.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <nlohmann/json.hpp>

#include "calcchan/setup_file.h"
#include "calcchan/summary_files.h"
#include "common/checked_numbers.h"
#include "common/text_conventions.h"
#include "instrument/link/channels.h"

namespace tavrix {
namespace {

constexpr Micros kMicrosPerHour = 3600 * kMicrosPerSecond;

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// Whether the upper-cased text contains `upperPart` (upper case already).
bool containsUpperCased(std::string_view text, std::string_view upperPart) {
  if (upperPart.size() > text.size()) return false;
  for (size_t at = 0; at + upperPart.size() <= text.size(); ++at) {
    size_t i = 0;
    while (i < upperPart.size()) {
      char c = text[at + i];
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
      if (c != upperPart[i]) break;
      ++i;
    }
    if (i == upperPart.size()) return true;
  }
  return false;
}

// Whether the text holds an ASCII letter: a plain reading ("12.34") has
// none, and so cannot hold a word.
bool hasLetter(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>((c | 0x20) - 'a') < 26) return true;
  }
  return false;
}

int16_t clampedCount(int32_t n) { return static_cast<int16_t>(std::min<int32_t>(n, INT16_MAX)); }

int64_t dayNumber(Micros t) {
  return t >= 0 ? t / kMicrosPerDay : (t - kMicrosPerDay + 1) / kMicrosPerDay;
}

}  // namespace

bool ParseReportCondition(std::string_view text, std::string& op, double& limit) {
  text = trim(text);
  const size_t blank = text.find(' ');
  op = std::string(text.substr(0, blank));
  limit = blank == std::string_view::npos ? 0 : leadingNumber(text.substr(blank + 1));
  return op == "=" || op == "<=" || op == ">=" || op == "<>" || op == ">" || op == "<";
}

bool CompareByOperator(double reading, std::string_view op, double limit) {
  if (op == "=") return reading == limit;
  if (op == "<=") return reading <= limit;
  if (op == ">=") return reading >= limit;
  if (op == "<>") return reading != limit;
  if (op == ">") return reading > limit;
  if (op == "<") return reading < limit;
  return false;
}

CalcChannels::CalcChannels(EventLoop& events, CalcPorts ports)
    : events_(events),
      ports_(std::move(ports)),
      analyser_(ports_),
      timer_(events, kCalcTimerInterval, [this] { tick(); }) {
  if (!ports_.showMessage) ports_.showMessage = [](std::string_view) {};
}

bool CalcChannels::startCalculatedChannels(std::string_view fileSpec, std::string_view ticks) {
  const double n = leadingNumber(ticks);
  state_.evaluationTickCount = roundToInt16(n).value_or(n > 0 ? INT16_MAX : INT16_MIN);
  return load(fileSpec);
}

bool CalcChannels::load(std::string_view fileSpec) {
  plan_.clear();
  if (!LoadCalcChannelSetup(fileSpec, state_, ports_, events_.now())) return false;
  timer_.setEnabled(false);
  analyser_.clear();
  setupSpec_ = fileSpec;
  const std::string local =
      ports_.resolvePath ? ports_.resolvePath(fileSpec) : std::string(fileSpec);
  analyser_.setWaveformFolder(ports_.fileSystem(), local.find('/') == std::string::npos
                                                       ? std::string(".")
                                                       : parentFolder(local));
  lastPassTime_ = state_.loadDate;
  return true;
}

void CalcChannels::start() {
  if (!timer_.enabled()) lastTickAt_ = events_.now();
  timer_.setEnabled(true);
}

void CalcChannels::pause() { timer_.setEnabled(false); }

void CalcChannels::changeLoggers() {
  timer_.setEnabled(false);
  state_.loggerChanging = true;
  state_.loggerState1 = 0;
  state_.loggerState2 = 0;
  const Micros now = events_.now();
  if (state_.dailyTrackingWanted) WriteDailySummary(state_, now, ports_);
  endCremSessions(now);
  state_.firstPassPending = true;
  state_.loggingSwitch = -1;
  for (auto& row : state_.table) {
    if (row.type == calc_type::kReport) row.flags = 0;
  }
  lastPassTime_ = now;
  lastTickAt_ = now;
  timer_.setEnabled(true);
}

void CalcChannels::tick() {
  lastTickAt_ = events_.now();
  --state_.ticksRemaining;
  if (state_.ticksRemaining < 1) {
    state_.ticksRemaining = state_.evaluationTickCount;
    runPass();
  }
}

void CalcChannels::runPass() {
  state_.busy = true;
  state_.passTime = events_.now();
  // A new day: the summary of the day that ended is written first.
  if (state_.dailyTrackingWanted && state_.loadStarted &&
      dayNumber(state_.passTime) != dayNumber(lastPassTime_)) {
    WriteDailySummary(state_, lastPassTime_, ports_);
  }
  lastPassTime_ = state_.passTime;

  if (plan_.size() != state_.table.size()) makePlan();
  // Rows may not be added or removed during a pass; index, not iterate.
  for (size_t i = 1; i < state_.table.size(); ++i) {
    CalcChannel& row = state_.table[i];
    RowPlan& plan = plan_[i];
    if (plan.kind == RowKind::kLoggerOnOff) {
      loggerSwitch(row, plan);
      continue;
    }
    if (plan.kind == RowKind::kCremAvg) {
      cremAverage(row, plan);
      continue;
    }
    if (!state_.setupLoaded) continue;
    switch (plan.kind) {
      case RowKind::kFormula:
        formula(row, plan);
        break;
      case RowKind::kRefer:
        refer(row, plan);
        break;
      case RowKind::kReferStp:
        referStp(row, plan);
        break;
      case RowKind::kAverage:
        average(row, plan);
        break;
      case RowKind::kCheck95:
        check95(row, plan);
        break;
      case RowKind::kDaily:
        daily(row, plan);
        break;
      case RowKind::kHiAlarm:
        alarm(row, plan, true);
        break;
      case RowKind::kLoAlarm:
        alarm(row, plan, false);
        break;
      case RowKind::kScale:
        scale(row, plan);
        break;
      case RowKind::kReport:
        report(row, plan);
        break;
      case RowKind::kMinimum:
        minimum(row, plan);
        break;
      case RowKind::kHiSwitch:
        switchRow(row, plan, true);
        break;
      case RowKind::kLoSwitch:
        switchRow(row, plan, false);
        break;
      // MAXIMUM: no action, by design.
      default:
        break;
    }
  }
  if (state_.setupLoaded) state_.firstPassPending = false;
  state_.busy = false;
}

// --- Reading and publishing -------------------------------------------------

bool CalcChannels::analysing() {
  ChannelReading value;
  if (!ports_.channels->read(analyseName_, value, analyseRef_)) return false;
  return value.value() > 0.5;
}

bool CalcChannels::readSource(ChannelRef& ref, const std::string& source, bool guarded,
                              ChannelReading& reading) {
  if (guarded) {
    if (analysing()) return false;
    ports_.channels->read(source, reading, ref);
    if (analysing()) return false;
  } else {
    ports_.channels->read(source, reading, ref);
  }
  if (reading.isNumber) return true;
  const std::string& text = reading.text;
  return !hasLetter(text) ||
         (!containsUpperCased(text, "ERROR") && !containsUpperCased(text, "UNAVAILABLE"));
}

void CalcChannels::writeDirect(ChannelRef& ref, const std::string& name, std::string_view text) {
  if (!ports_.channels->write(name, text, ref)) {
    ports_.showMessage(std::string(kTextChannelNamePrefix) + name +
                       std::string(kTextChannelNameSuffix));
  }
}

void CalcChannels::publish(ChannelRef& ref, const std::string& name, std::string_view text) {
  writeDirect(ref, name, contains(text, "Error") ? kTextUnavailable : text);
}

void CalcChannels::sendToLoggers(std::string_view command) {
  if (!ports_.companion) return;
  auto send = [&](std::string_view suffix) {
    std::string error;
    if (!ports_.companion(state_.summaryPrefix + std::string(suffix), kLoggerItem, command,
                          &error)) {
      ports_.showMessage(error);
    }
  };
  send(kRawTopicSuffix);
  if (state_.dailyTrackingWanted) send(kAvgTopicSuffix);
}

void CalcChannels::endCremSessions(Micros now) {
  for (size_t i = 1; i < state_.table.size(); ++i) {
    CalcChannel& row = state_.table[i];
    if (row.type != calc_type::kCremAvg || !row.armed) continue;
    AppendCremReport(state_, row, now, ports_);
    row.armed = false;
  }
}

// --- The types ----------------------------------------------------------------

void CalcChannels::formula(CalcChannel& row, RowPlan& plan) {
  // The macro line is put together in a buffer kept from pass to pass.
  macroLine_.assign(row.newName).append(1, '=').append(row.source);
  const std::string result = analyser_.EvaluateMacroLine(macroLine_);
  if (!result.empty()) writeDirect(plan.resultRef, row.newName, result);
}

void CalcChannels::loggerSwitch(CalcChannel& row, RowPlan& plan) {
  ChannelReading reading;
  // Guarded like every other row by PARAM2, although for this type it also
  // names folder B: during an analysis cycle the switch cannot be read.
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) {
    ports_.showMessage(std::string(kTextUnableToReadChannel) + row.source);
    return;
  }
  const bool on = reading.value() != 0;
  const int position = on ? 1 : 0;
  const bool changed = state_.loggingSwitch != position;
  state_.loggingSwitch = position;
  if (!on) {
    state_.setupLoaded = false;
    if (changed && !(state_.loggerState1 && state_.loggerState2)) {
      sendToLoggers(kLoggerStop);
      state_.loggerState1 = -1;
    }
  } else {
    state_.setupLoaded = true;
    if (changed && state_.loggerState1) {
      sendToLoggers(kLoggerStart);
      state_.loggerState1 = 0;
      state_.loggerState2 = 0;
    }
  }
}

void CalcChannels::refer(CalcChannel& row, RowPlan& plan) {
  ChannelReading reading;
  ChannelReading oxygen;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading) ||
      !readSource(plan.oxygenRef, plan.oxygenName, plan.guarded, oxygen)) {
    publish(plan.resultRef, row.newName, kTextUnavailable);
    return;
  }
  const double x = reading.value();
  const double o = oxygen.value() + plan.param1;
  const double result = o > 11.0 ? x * (20.9 - 11.0) / (20.9 - o) : x;
  publish(plan.resultRef, row.newName, formatNumber(result, "#.00"));
}

void CalcChannels::referStp(CalcChannel& row, RowPlan& plan) {
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) {
    publish(plan.resultRef, row.newName, kTextUnavailable);
    return;
  }
  const double x = reading.value();
  publish(plan.resultRef, row.newName, formatNumber(x * (plan.param1 + 273) / 273, "#.00"));
}

void CalcChannels::average(CalcChannel& row, RowPlan& plan) {
  row.flags = 0;
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) return;
  row.total += reading.value();
  ++row.passes;
  row.counter = clampedCount(row.passes);
  const Micros now = state_.passTime;
  if (now - row.dueTime >= 0) {
    const Micros period = plan.period;
    if (period > 0) {
      row.dueTime += ((now - row.dueTime) / period + 1) * period;
    } else {
      row.dueTime = now + 1;
    }
    row.armed = false;
    row.flags = -1;
    row.periodResult = row.passes > 0 ? row.total / static_cast<double>(row.passes) : 0;
    row.total = 0;
    row.counter = 0;
    row.passes = 0;
  }
  publish(plan.resultRef, row.newName,
          row.armed ? std::string(kTextNotAvailable) : formatNumber(row.periodResult, "#.00"));
}

void CalcChannels::makePlan() {
  const CalcChannelTable& table = state_.table;
  analyseName_ = state_.summaryPrefix + std::string(kAnalyseSuffix);
  analyseRef_ = ChannelRef{};
  plan_.assign(table.size(), RowPlan{});
  for (size_t i = 1; i < table.size(); ++i) {
    const CalcChannel& row = table[i];
    RowPlan& plan = plan_[i];
    const std::string& type = row.type;
    if (type == calc_type::kLoggerOnOff) {
      plan.kind = RowKind::kLoggerOnOff;
    } else if (type == calc_type::kCremAvg) {
      plan.kind = RowKind::kCremAvg;
    } else if (type == calc_type::kFormula) {
      plan.kind = RowKind::kFormula;
    } else if (type == calc_type::kRefer) {
      plan.kind = RowKind::kRefer;
    } else if (type == calc_type::kReferStp) {
      plan.kind = RowKind::kReferStp;
    } else if (type == calc_type::kAverage) {
      plan.kind = RowKind::kAverage;
    } else if (type == calc_type::kCheck95 || type == calc_type::kCheck95B) {
      plan.kind = RowKind::kCheck95;
    } else if (type == calc_type::kDaily) {
      plan.kind = RowKind::kDaily;
    } else if (type == calc_type::kHiAlarm) {
      plan.kind = RowKind::kHiAlarm;
    } else if (type == calc_type::kLoAlarm) {
      plan.kind = RowKind::kLoAlarm;
    } else if (type == calc_type::kScale) {
      plan.kind = RowKind::kScale;
    } else if (type == calc_type::kReport) {
      plan.kind = RowKind::kReport;
    } else if (type == calc_type::kMinimum) {
      plan.kind = RowKind::kMinimum;
    } else if (type == calc_type::kHiSwitch) {
      plan.kind = RowKind::kHiSwitch;
    } else if (type == calc_type::kLoSwitch) {
      plan.kind = RowKind::kLoSwitch;
    }
    plan.guarded = !trim(row.param2).empty();
    plan.param1 = leadingNumber(row.param1);
    plan.param2 = leadingNumber(row.param2);
    plan.period = checkedMicros(plan.param1 * kMicrosPerHour).value_or(0);
    plan.oxygenName = row.param2.empty() ? state_.summaryPrefix + std::string(kOxygenSuffix)
                                         : std::string(kOxygenChannel);
    plan.reportKnown = ParseReportCondition(row.param1, plan.reportOperator, plan.reportLimit);
    if (plan.kind == RowKind::kCheck95) {
      for (size_t j = 1; j < table.size(); ++j) {
        if (table[j].type == calc_type::kAverage && table[j].newName == row.source) {
          plan.averageRow = j;
          break;
        }
      }
    }
  }
}

void CalcChannels::check95(CalcChannel& row, RowPlan& plan) {
  const CalcChannel* avg = plan.averageRow == 0 ? nullptr : &state_.table[plan.averageRow];
  if (avg == nullptr || !avg->flags) return;
  row.total += 1;
  state_.dayList.push_back({static_cast<float>(avg->periodResult),
                            static_cast<int16_t>(std::min<double>(row.total, INT16_MAX)),
                            row.newName});
  if (AboveLimit(avg->periodResult, plan.param1) && row.counter < INT16_MAX) ++row.counter;
  publish(plan.resultRef, row.newName, formatNumber(row.counter, "#0"));
}

void CalcChannels::daily(CalcChannel& row, RowPlan& plan) {
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) return;
  row.total += reading.value();
  ++row.passes;
  row.counter = clampedCount(row.passes);
  publish(plan.resultRef, row.newName,
          formatNumber(row.total / static_cast<double>(row.passes), "#.00"));
}

void CalcChannels::alarm(CalcChannel& row, RowPlan& plan, bool high) {
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) {
    publish(plan.resultRef, row.newName, kTextUnavailable);
    return;
  }
  ++row.passes;
  if (reading.contains(kTextNotAvailable)) {
    publish(plan.resultRef, row.newName, kTextNotAvailable);
    return;
  }
  const double x = reading.value();
  const double limit = plan.param1;
  if (high ? x > limit : x < limit) {
    row.total += 1;
    publish(plan.resultRef, row.newName, kTextAlarm);
  } else {
    publish(plan.resultRef, row.newName, kTextOk);
  }
}

void CalcChannels::scale(CalcChannel& row, RowPlan& plan) {
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, false, reading)) return;
  const double result = reading.value() * plan.param1 + plan.param2;
  publish(plan.resultRef, row.newName, formatNumber(result, "#0.00"));
}

void CalcChannels::report(CalcChannel& row, RowPlan& plan) {
  if (!plan.reportKnown) {
    ports_.showMessage(std::string(kTextReportType) + "\r" +
                       std::string(kTextUnrecognisedOperator) + plan.reportOperator);
    return;
  }
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) return;
  const double x = reading.value();
  if (CompareByOperator(x, plan.reportOperator, plan.reportLimit)) {
    if (!row.flags) AppendAlarmReport(state_, row, x, state_.passTime, ports_);
    row.flags = -1;
    publish(plan.resultRef, row.newName, kTextAlarm);
  } else {
    row.flags = 0;
    publish(plan.resultRef, row.newName, kTextOk);
  }
}

void CalcChannels::cremAverage(CalcChannel& row, RowPlan& plan) {
  if (!state_.setupLoaded) {
    if (row.armed) {
      AppendCremReport(state_, row, state_.passTime, ports_);
      row.armed = false;
    }
    return;
  }
  if (!row.armed) {
    row.armed = true;
    row.dueTime = state_.passTime;
    row.periodResult = 0;
    row.passes = 0;
  }
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) return;
  ++row.passes;
  row.periodResult += (reading.value() - row.periodResult) / row.passes;
  publish(plan.resultRef, row.newName, formatNumber(row.periodResult, "#.00"));
}

void CalcChannels::minimum(CalcChannel& row, RowPlan& plan) {
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) return;
  const bool first = state_.firstPassPending || row.passes == 0;
  if (reading.contains(kTextNotAvailable)) {
    publish(plan.resultRef, row.newName, kTextNotAvailable);
    if (first) {
      row.total = kNoMinimum;
      row.passes = 0;
    }
    return;
  }
  const double x = reading.value();
  if (first || x < row.total) row.total = x;
  ++row.passes;
  publish(plan.resultRef, row.newName, formatNumber(x, "#.00"));
}

void CalcChannels::switchRow(CalcChannel& row, RowPlan& plan, bool high) {
  ChannelReading reading;
  if (!readSource(plan.sourceRef, row.source, plan.guarded, reading)) return;
  if (reading.contains(kTextNotAvailable)) return;
  const double x = reading.value();
  const double limit = plan.param1;
  publish(plan.resultRef, row.newName, (high ? x > limit : x < limit) ? "0" : "1");
}

}  // namespace tavrix

namespace tavrix {

void CalcChannels::saveState(nlohmann::json& part) const {
  using nlohmann::json;
  const CalcState& s = state_;
  json rows = json::array();
  for (const auto& r : s.table) {
    rows.push_back({r.type, r.source, r.newName, r.param1, r.param2, r.counter, r.armed, r.total,
                    r.periodResult, r.dueTime, r.flags, r.passes});
  }
  part["table"] = std::move(rows);
  json days = json::array();
  for (const auto& d : s.dayList) days.push_back({d.value, d.epoch, d.channel});
  part["dayList"] = std::move(days);
  part["summary"] = {s.summaryPrefix, s.summaryFolderA, s.summaryFolderB};
  part["dailyTrackingWanted"] = s.dailyTrackingWanted;
  part["loadDate"] = s.loadDate;
  part["firstPassPending"] = s.firstPassPending;
  part["setupLoaded"] = s.setupLoaded;
  part["loadStarted"] = s.loadStarted;
  part["evaluationTickCount"] = s.evaluationTickCount;
  part["ticksRemaining"] = s.ticksRemaining;
  part["passTime"] = s.passTime;
  part["logger"] = {s.loggerChanging, s.loggerState1, s.loggerState2, s.loggingSwitch};
  part["lastPassTime"] = lastPassTime_;
  part["timer"] = timer_.enabled();
  part["lastTick"] = lastTickAt_;
  part["setup"] = setupSpec_;
}

bool CalcChannels::restoreState(const nlohmann::json& part, std::string*) {
  CalcState s;
  s.table.clear();
  for (const auto& r : part.at("table")) {
    CalcChannel row;
    row.type = r.at(0).get<std::string>();
    row.source = r.at(1).get<std::string>();
    row.newName = r.at(2).get<std::string>();
    row.param1 = r.at(3).get<std::string>();
    row.param2 = r.at(4).get<std::string>();
    row.counter = r.at(5).get<int16_t>();
    row.armed = r.at(6).get<bool>();
    row.total = r.at(7).get<double>();
    row.periodResult = r.at(8).get<double>();
    row.dueTime = r.at(9).get<Micros>();
    row.flags = r.at(10).get<int16_t>();
    row.passes = r.at(11).get<int32_t>();
    s.table.push_back(std::move(row));
  }
  if (s.table.empty()) s.table.resize(1);
  for (const auto& d : part.at("dayList"))
    s.dayList.push_back({d.at(0).get<float>(), d.at(1).get<int16_t>(), d.at(2).get<std::string>()});
  const auto& summary = part.at("summary");
  s.summaryPrefix = summary.at(0).get<std::string>();
  s.summaryFolderA = summary.at(1).get<std::string>();
  s.summaryFolderB = summary.at(2).get<std::string>();
  s.dailyTrackingWanted = part.at("dailyTrackingWanted").get<bool>();
  s.loadDate = part.at("loadDate").get<Micros>();
  s.firstPassPending = part.at("firstPassPending").get<bool>();
  s.setupLoaded = part.at("setupLoaded").get<bool>();
  s.loadStarted = part.at("loadStarted").get<bool>();
  s.evaluationTickCount = part.at("evaluationTickCount").get<int16_t>();
  s.ticksRemaining = part.at("ticksRemaining").get<int16_t>();
  s.passTime = part.at("passTime").get<Micros>();
  const auto& logger = part.at("logger");
  s.loggerChanging = logger.at(0).get<bool>();
  s.loggerState1 = logger.at(1).get<int16_t>();
  s.loggerState2 = logger.at(2).get<int16_t>();
  s.loggingSwitch = logger.at(3).get<int>();
  const Micros lastPass = part.at("lastPassTime").get<Micros>();
  const bool running = part.at("timer").get<bool>();
  const Micros lastTick = part.at("lastTick").get<Micros>();

  state_ = std::move(s);
  setupSpec_ = part.at("setup").get<std::string>();
  if (!setupSpec_.empty()) {
    const std::string local = ports_.resolvePath ? ports_.resolvePath(setupSpec_) : setupSpec_;
    analyser_.clear();
    analyser_.setWaveformFolder(ports_.fileSystem(), local.find('/') == std::string::npos
                                                         ? std::string(".")
                                                         : parentFolder(local));
  }
  lastPassTime_ = lastPass;
  lastTickAt_ = lastTick;
  plan_.clear();  // made again, with the channels looked up afresh, at the next pass
  analyseName_ = state_.summaryPrefix + std::string(kAnalyseSuffix);
  analyseRef_ = ChannelRef{};
  timer_.setEnabled(false);
  if (running) {
    timer_.setEnabled(true);
    timer_.setDue(lastTick + kCalcTimerInterval);
  }
  return true;
}

}  // namespace tavrix
