// The evaluation cycle of the calculated channels: CalcTimer ticks every
// second on the engine's event loop (so passes also run while a command
// waits, ramps or asks the operator); every EvaluationTickCount ticks one pass
// walks the table, reads each row's source, computes its value by type and
// writes it, as text, to the channel named NewName.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "calcchan/calc_ports.h"
#include "calcchan/calc_table.h"
#include "calcchan/expressions.h"
#include "common/event_loop.h"

namespace tavrix {

inline constexpr Micros kCalcTimerInterval = 1000 * 1000;
inline constexpr std::string_view kAnalyseSuffix = "_ANALYSE";
inline constexpr std::string_view kOxygenSuffix = "_O2";
inline constexpr std::string_view kOxygenChannel = "O2";
inline constexpr std::string_view kTextUnavailable = "Unavailable";
inline constexpr std::string_view kTextNotAvailable = "N.A.";
inline constexpr std::string_view kTextUnableToReadChannel = "Unable to read channel: ";
inline constexpr std::string_view kTextReportType = "Calculated Channel type REPORT:";
inline constexpr std::string_view kTextUnrecognisedOperator = "Unrecognised operator: ";
inline constexpr std::string_view kRawTopicSuffix = "_Raw|System";
inline constexpr std::string_view kAvgTopicSuffix = "_Avg|System";
inline constexpr std::string_view kLoggerItem = "Status";
inline constexpr std::string_view kLoggerStop = "Stop";
inline constexpr std::string_view kLoggerStart = "Start";

class CalcChannels {
 public:
  CalcChannels(EventLoop& events, CalcPorts ports);
  CalcChannels(const CalcChannels&) = delete;
  CalcChannels& operator=(const CalcChannels&) = delete;

  CalcState& state() { return state_; }
  const CalcState& state() const { return state_; }
  Analyser& analyser() { return analyser_; }
  const CalcPorts& ports() const { return ports_; }

  // STARTCALCULATEDCHANNELS: sets EvaluationTickCount from `ticks` (its
  // leading number), then loads `fileSpec`. False when the load failed (its
  // message has been shown); the program is then meant to end.
  bool startCalculatedChannels(std::string_view fileSpec, std::string_view ticks);
  // LoadCalcChannelSetup with the evaluation timer prepared and stopped.
  bool load(std::string_view fileSpec);

  void start();          // CC_START
  void pause();          // CC_PAUSE
  void changeLoggers();  // CC_CHANGELOGGERS
  bool timerEnabled() const { return timer_.enabled(); }

  // What something outside the calculated channels does when it stopped the
  // logging programs itself: the switch then sends no second "Stop" when it
  // turns off, and sends "Start" when it turns on.
  void markLoggersStopped() { state_.loggerState1 = state_.loggerState2 = -1; }

  // One CalcTimer tick, and one evaluation pass (public for tests and the
  // benchmark).
  void tick();
  void runPass();

  // The table with its counters, sums and due times, the day list, the
  // logger switch and the evaluation timer, for a run that goes on later.
  // A restored timer that was due long ago ticks once, as after any long
  // pause: a period that ended in the gap is completed once.
  void saveState(nlohmann::json& part) const;
  bool restoreState(const nlohmann::json& part, std::string* error);

 private:
  // What a row's texts say, found once for the table as loaded (every load
  // empties the plan; the first pass after it makes it again), so that a
  // pass neither compares type names nor converts the same parameters again.
  enum class RowKind : uint8_t {
    kNone,  // MAXIMUM: no action
    kFormula,
    kLoggerOnOff,
    kRefer,
    kReferStp,
    kAverage,
    kCheck95,  // CHECK 95 and CHECK 95B
    kDaily,
    kHiAlarm,
    kLoAlarm,
    kScale,
    kReport,
    kCremAvg,
    kMinimum,
    kHiSwitch,
    kLoSwitch,
  };
  struct RowPlan {
    RowKind kind = RowKind::kNone;
    bool guarded = false;      // PARAM2 is not blank
    double param1 = 0;         // PARAM1's leading number
    double param2 = 0;         // PARAM2's leading number
    Micros period = 0;         // AVERAGE: PARAM1 hours
    size_t averageRow = 0;     // CHECK 95/95B: the first AVERAGE row named SOURCE (0: none)
    std::string oxygenName;    // REFER: the oxygen channel
    bool reportKnown = false;  // REPORT: PARAM1's condition
    std::string reportOperator;
    double reportLimit = 0;
    // The channels read and written, looked up once (see ChannelRef).
    ChannelRef sourceRef;
    ChannelRef oxygenRef;
    ChannelRef resultRef;
  };
  void makePlan();

  bool analysing();
  bool readSource(ChannelRef& ref, const std::string& source, bool guarded,
                  ChannelReading& reading);
  void publish(ChannelRef& ref, const std::string& name, std::string_view text);
  void writeDirect(ChannelRef& ref, const std::string& name, std::string_view text);
  void sendToLoggers(std::string_view command);
  void endCremSessions(Micros now);

  void formula(CalcChannel& row, RowPlan& plan);
  void loggerSwitch(CalcChannel& row, RowPlan& plan);
  void refer(CalcChannel& row, RowPlan& plan);
  void referStp(CalcChannel& row, RowPlan& plan);
  void average(CalcChannel& row, RowPlan& plan);
  void check95(CalcChannel& row, RowPlan& plan);
  void daily(CalcChannel& row, RowPlan& plan);
  void alarm(CalcChannel& row, RowPlan& plan, bool high);
  void scale(CalcChannel& row, RowPlan& plan);
  void report(CalcChannel& row, RowPlan& plan);
  void cremAverage(CalcChannel& row, RowPlan& plan);
  void minimum(CalcChannel& row, RowPlan& plan);
  void switchRow(CalcChannel& row, RowPlan& plan, bool high);

  EventLoop& events_;
  CalcPorts ports_;
  CalcState state_;
  Analyser analyser_;
  Timer timer_;
  Micros lastPassTime_ = 0;
  // The evaluation timer's last tick (or when it was started): its next
  // tick is one interval later.
  Micros lastTickAt_ = 0;
  std::string setupSpec_;  // the setup file loaded last, as the sequence named it
  std::string macroLine_;
  std::vector<RowPlan> plan_;
  std::string analyseName_;  // <prefix>_ANALYSE
  ChannelRef analyseRef_;
};

// A REPORT condition: "op limit", op one of = <= >= <> > <. Returns false for
// another operator, leaving it in `op`.
bool ParseReportCondition(std::string_view text, std::string& op, double& limit);
bool CompareByOperator(double reading, std::string_view op, double limit);

}  // namespace tavrix
