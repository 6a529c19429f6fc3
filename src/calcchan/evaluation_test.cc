#include "calcchan/evaluation.h"

#include <gtest/gtest.h>

#include <fstream>

#include "calcchan/summary_files.h"
#include "common/text_file.h"
#include "testing/fake_channels.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

constexpr Micros kSecond = kMicrosPerSecond;
constexpr Micros kHour = 3600 * kSecond;

struct Call {
  std::string topic, item, text;
  bool operator==(const Call&) const = default;
};

struct EvaluationTest : ::testing::Test {
  VirtualClock clock{*parseDateTime("2026-11-03 08:00:00")};
  EventLoop events{clock};
  FakeChannels rig;
  std::vector<std::string> messages;
  std::vector<Call> calls;
  MemoryFileSystem files;
  std::string folder = "/data/calc";
  std::unique_ptr<CalcChannels> calc;

  EvaluationTest() {
    files.makeFolders(folder, nullptr);
    CalcPorts ports;
    ports.channels = &rig;
    ports.files = &files;
    ports.showMessage = [this](std::string_view m) { messages.emplace_back(m); };
    ports.companion = [this](std::string_view topic, std::string_view item, std::string_view text,
                             std::string*) {
      calls.push_back({std::string(topic), std::string(item), std::string(text)});
      return true;
    };
    ports.resolvePath = [](std::string_view spec) {
      std::string s(spec);
      for (char& c : s) c = c == '\\' ? '/' : c;
      return s;
    };
    ports.dataFolder = [this] { return folder + "\\data"; };
    ports.summaryFolder = [this] { return folder + "\\sum"; };
    calc = std::make_unique<CalcChannels>(events, std::move(ports));
    rig.clock = &clock;
  }

  // Loads a setup whose blocks are "TYPE|SOURCE|NEWNAME|PARAM1|PARAM2".
  bool Load(const std::string& name, const std::vector<std::string>& rows,
            std::string_view ticks = "1") {
    std::string text = "[CALCULATED CHANNELS]\r\n";
    for (const auto& row : rows) {
      std::vector<std::string> f;
      size_t start = 0;
      for (size_t bar; (bar = row.find('|', start)) != std::string::npos; start = bar + 1) {
        f.push_back(row.substr(start, bar - start));
      }
      f.push_back(row.substr(start));
      f.resize(5);
      text += "[CHANNEL]\r\nTYPE=" + f[0] + "\r\n\"SOURCE=" + f[1] + "\"\r\nNEWNAME=" + f[2] +
              "\r\nPARAM1=" + f[3] + "\r\nPARAM2=" + f[4] + "\r\n[END CHANNEL]\r\n";
    }
    files.put(folder + "/" + name, text);
    return calc->startCalculatedChannels(folder + "\\" + name, ticks);
  }

  // Lets the engine run for `seconds` of virtual time.
  void RunFor(double seconds) {
    const Micros end = clock.now() + static_cast<Micros>(seconds * kSecond);
    Timer stop(events, end - clock.now(), [] {});
    stop.setEnabled(true);
    ASSERT_TRUE(events.waitUntil([&] { return clock.now() >= end; }));
  }

  std::string Last(std::string_view name) {
    const auto w = rig.written(name);
    return w.empty() ? "<none>" : w.back();
  }

  std::string FileText(const std::string& name) {
    std::string text;
    readTextFile(files, folder + "/sum/" + name, text, nullptr);
    return text;
  }
};

TEST_F(EvaluationTest, PassesRunEveryTickCountSecondsWhileTheTimerIsEnabled) {
  rig.values = {{"IN", "2"}, {"OUT", ""}};
  const Micros t0 = clock.now();
  ASSERT_TRUE(Load("tc.ccs", {"SCALE|IN|OUT|3"}, "5"));
  EXPECT_FALSE(calc->timerEnabled());  // a load leaves the timer stopped
  RunFor(20);
  EXPECT_TRUE(rig.writes.empty());

  const Micros started = clock.now();
  calc->start();
  RunFor(16);
  EXPECT_EQ(rig.writeTimes, (std::vector<Micros>{started + 5 * kSecond, started + 10 * kSecond,
                                                 started + 15 * kSecond}));
  calc->pause();
  RunFor(30);
  EXPECT_EQ(rig.writes.size(), 3u);

  // A count of 0 or less gives a pass on every tick.
  rig.writeTimes.clear();
  ASSERT_TRUE(Load("tc.ccs", {"SCALE|IN|OUT|3"}, "-2"));
  calc->start();
  RunFor(3);
  EXPECT_EQ(rig.writeTimes.size(), 3u);
  EXPECT_EQ(Last("OUT"), "6.00");
  EXPECT_GT(clock.now(), t0);
}

TEST_F(EvaluationTest, EachTypeWritesItsValue) {
  rig.values = {{"X", "100"},    {"RG_O2", "15.9"}, {"O2", "11"},      {"HALF", "0.5"},
                {"K273", "273"}, {"V", "2.5"},      {"HOT", "60 C"},   {"NA", "N.A."},
                {"REF1", ""},    {"REF2", ""},      {"STP1", ""},      {"STP2", ""},
                {"SC", ""},      {"HA", ""},        {"LA", ""},        {"HA_NA", ""},
                {"HS", ""},      {"LS", ""},        {"HS_NA", "keep"}, {"MAXC", "keep"},
                {"MINC", ""},    {"DAY", ""},       {"F", ""}};
  ASSERT_TRUE(Load(
      "RG_types.ccs",
      {"REFER|X|REF1|0",
       "REFER|X|REF2|0|yes",  // reads "O2": 11.0 is not corrected
       "REFER STP|HALF|STP1|0", "REFER STP|K273|STP2|27", "SCALE|V|SC|4|1", "HI ALARM|HOT|HA|50",
       "LO ALARM|HOT|LA|50", "HI ALARM|NA|HA_NA|50", "HI SWITCH|HOT|HS|50", "LO SWITCH|HOT|LS|50",
       "HI SWITCH|NA|HS_NA|50", "MAXIMUM|HOT|MAXC", "MINIMUM|HOT|MINC", "DAILY|HOT|DAY",
       "FORMULA|[X]*2+1|F", "SCALE|V|MISSING|1"}));
  calc->start();
  RunFor(1);
  EXPECT_EQ(Last("REF1"), "198.00");  // 100 x 9.9 / 5.0
  EXPECT_EQ(Last("REF2"), "100.00");
  EXPECT_EQ(Last("STP1"), ".50");
  EXPECT_EQ(Last("STP2"), "300.00");  // 273 x (27 + 273) / 273
  EXPECT_EQ(Last("SC"), "11.00");
  EXPECT_EQ(Last("HA"), "ALARM");
  EXPECT_EQ(Last("LA"), "OK");
  EXPECT_EQ(Last("HA_NA"), "N.A.");
  EXPECT_EQ(Last("HS"), "0");
  EXPECT_EQ(Last("LS"), "1");
  EXPECT_EQ(Last("HS_NA"), "<none>");
  EXPECT_EQ(Last("MAXC"), "<none>");
  EXPECT_EQ(Last("MINC"), "60.00");
  EXPECT_EQ(Last("DAY"), "60.00");
  EXPECT_EQ(Last("F"), " 300");
  EXPECT_EQ(messages,
            std::vector<std::string>{
                "Channel name - MISSING - does not exist, or is not enabled in the hardware"});

  rig.values["HOT"] = "40";
  RunFor(1);
  EXPECT_EQ(Last("HA"), "OK");
  EXPECT_EQ(Last("LA"), "ALARM");
  EXPECT_EQ(Last("HS"), "1");
  EXPECT_EQ(Last("LS"), "0");
  EXPECT_EQ(Last("MINC"), "40.00");
  EXPECT_EQ(Last("DAY"), "50.00");
  rig.values["HOT"] = "70";
  RunFor(1);
  const CalcState& s = calc->state();
  EXPECT_EQ(s.table[13].total, 40);  // MINIMUM keeps the lowest
  EXPECT_EQ(s.table[6].total, 2);    // HI ALARM passes in alarm
  EXPECT_EQ(s.table[14].passes, 3);  // DAILY readings
  EXPECT_FLOAT_EQ(s.table[14].total, 170);
  EXPECT_EQ(rig.written("MAXC").size(), 0u);
}

TEST_F(EvaluationTest, AnalysisCycleAndBadReadingsRefuseReadings) {
  rig.values = {{"X", "100"}, {"GA_ANALYSE", "1"}, {"O2", "0"}, {"BAD", "Error 114 no reply"},
                {"REF", ""},  {"SC", ""},          {"AV", ""},  {"STP", ""}};
  ASSERT_TRUE(Load(
      "GA.ccs", {"REFER|X|REF|0|g", "SCALE|X|SC|1|0", "AVERAGE|X|AV|1|g", "REFER STP|BAD|STP|0"}));
  calc->start();
  RunFor(1);
  EXPECT_EQ(Last("REF"), "Unavailable");
  EXPECT_EQ(Last("SC"), "100.00");  // SCALE reads without the guard
  EXPECT_EQ(Last("AV"), "<none>");  // refused: the row is left as it is
  EXPECT_EQ(calc->state().table[3].passes, 0);
  EXPECT_EQ(Last("STP"), "Unavailable");

  rig.values["GA_ANALYSE"] = "0.5";
  RunFor(1);
  EXPECT_EQ(Last("REF"), "100.00");
  EXPECT_EQ(Last("AV"), "N.A.");
}

TEST_F(EvaluationTest, AveragesCompleteOncePerPeriodAndFeedTheChecks) {
  rig.values = {{"T", "10"}, {"TAVG", ""}, {"C95", ""}, {"C95B", ""}, {"CNONE", ""}};
  ASSERT_TRUE(Load("AV.ccs", {"AVERAGE|T|TAVG|1", "CHECK 95|TAVG|C95|15", "CHECK 95B|TAVG|C95B|25",
                              "CHECK 95|NOAVG|CNONE|0"}));
  const Micros loaded = clock.now();
  calc->start();
  RunFor(3599);
  EXPECT_EQ(Last("TAVG"), "N.A.");
  EXPECT_EQ(Last("C95"), "<none>");
  rig.values["T"] = "30";  // the reading of the pass that ends the period belongs to it
  RunFor(1);
  EXPECT_EQ(Last("TAVG"), "10.01");  // (3599 x 10 + 30) / 3600
  EXPECT_EQ(Last("C95"), "0");
  EXPECT_EQ(Last("C95B"), "0");
  const CalcState& s = calc->state();
  EXPECT_EQ(s.table[1].dueTime, loaded + 2 * kHour);
  RunFor(3600);
  EXPECT_EQ(Last("TAVG"), "30.00");
  EXPECT_EQ(Last("C95"), "1");
  EXPECT_EQ(Last("C95B"), "1");

  // Paused for three hours: one completion, and the end moves past now.
  calc->pause();
  RunFor(3 * 3600);
  calc->start();
  RunFor(1);
  EXPECT_EQ(s.table[2].total, 3);
  EXPECT_GT(s.table[1].dueTime, clock.now());
  EXPECT_EQ(s.table[1].dueTime, loaded + 6 * kHour);
  RunFor(5);
  EXPECT_EQ(s.table[2].total, 3);
  ASSERT_EQ(s.dayList.size(), 6u);  // three epochs each for C95 and C95B
  EXPECT_EQ(s.dayList[0].channel, "C95");
  EXPECT_EQ(s.dayList[1].channel, "C95B");
  EXPECT_FLOAT_EQ(s.dayList[2].value, 30);
  EXPECT_EQ(s.dayList[4].epoch, 3);
  EXPECT_EQ(Last("CNONE"), "<none>");
}

TEST_F(EvaluationTest, LoggingSwitchPausesTheOtherRowsAndStopsAndStartsTheLoggers) {
  rig.values = {{"SW", "1"}, {"V", "5"}, {"SC", ""}, {"DAY", ""}};
  ASSERT_TRUE(Load("LG.ccs", {"LOGGER ON/OFF|SW", "SCALE|V|SC|1", "DAILY|V|DAY"}));
  calc->start();
  RunFor(1);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(rig.written("SC").size(), 1u);

  rig.values["SW"] = "0";
  RunFor(3);
  const std::vector<Call> stop = {{"LG_Raw|System", "Status", "Stop"},
                                  {"LG_Avg|System", "Status", "Stop"}};
  EXPECT_EQ(calls, stop);  // once, at the change
  EXPECT_EQ(rig.written("SC").size(), 1u);
  EXPECT_FALSE(calc->state().setupLoaded);

  rig.values["SW"] = "2";
  RunFor(1);
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[2], (Call{"LG_Raw|System", "Status", "Start"}));
  EXPECT_EQ(calls[3], (Call{"LG_Avg|System", "Status", "Start"}));
  EXPECT_EQ(rig.written("SC").size(), 2u);

  // Stopped from outside: the switch sends no Stop, and Start when it turns on.
  calc->markLoggersStopped();
  rig.values["SW"] = "0";
  RunFor(1);
  ASSERT_EQ(calls.size(), 4u);
  rig.values["SW"] = "1";
  RunFor(1);
  ASSERT_EQ(calls.size(), 6u);
  EXPECT_EQ(calls[5].text, "Start");
  rig.values["SW"] = "0";
  RunFor(1);
  ASSERT_EQ(calls.size(), 8u);
  EXPECT_EQ(calls[7].text, "Stop");

  rig.values.erase("SW");
  RunFor(1);
  EXPECT_EQ(messages.back(), "Unable to read channel: SW");
}

TEST_F(EvaluationTest, LoggingSwitchIsGuardedByItsParam2LikeTheOtherRows) {
  // NEWNAME gives the prefix (so the guard is LS_ANALYSE), PARAM2 folder B.
  rig.values = {{"SW", "1"}, {"LS_ANALYSE", "0"}};
  ASSERT_TRUE(Load("XX.ccs", {"LOGGER ON/OFF|SW|LS||" + folder + "\\B"}));
  calc->start();
  RunFor(1);
  EXPECT_TRUE(messages.empty());
  EXPECT_TRUE(calc->state().setupLoaded);

  // In an analysis cycle the switch cannot be read: it keeps its position.
  rig.values["LS_ANALYSE"] = "1";
  rig.values["SW"] = "0";
  RunFor(1);
  EXPECT_EQ(messages, std::vector<std::string>{"Unable to read channel: SW"});
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(calc->state().setupLoaded);

  rig.values["LS_ANALYSE"] = "0";
  RunFor(1);
  EXPECT_EQ(calls, (std::vector<Call>{{"LS_Raw|System", "Status", "Stop"}}));
  EXPECT_FALSE(calc->state().setupLoaded);
}

TEST_F(EvaluationTest, ChangeOfLoggersWritesTheDailySummaryAndReports) {
  rig.values = {{"T", "10"},  {"P", "60"}, {"TAVG", ""}, {"C95B", ""}, {"DAY", ""},  {"MINC", ""},
                {"MAXC", ""}, {"HA", ""},  {"LA", ""},   {"REP", ""},  {"CREM", ""}, {"C95", ""}};
  ASSERT_TRUE(
      Load("AB123.ccs", {"AVERAGE|T|TAVG|1", "HI ALARM|P|HA|50", "CHECK 95B|TAVG|C95B|5",
                         "DAILY|P|DAY|55", "MINIMUM|P|MINC", "MAXIMUM|P|MAXC", "LO ALARM|P|LA|0",
                         "REPORT|P|REP|>= 60", "CREM AVG|P|CREM|59", "CHECK 95|TAVG|C95|20"}));
  calc->start();
  RunFor(2 * 3600);
  rig.values["P"] = "50";
  RunFor(2);
  rig.values["P"] = "61";
  RunFor(1);
  calc->changeLoggers();
  EXPECT_TRUE(calc->timerEnabled());
  EXPECT_TRUE(messages.empty()) << messages.front();

  EXPECT_EQ(FileText("MONTH_AB_2611.wl"),
            "\r\n"
            "DAILY SUMMARY\r\n"
            "Day\tDAY\t\tMAXC\t\tMINC\t\tC95B\t\t\tC95\t\t\tHA\t\t\tLA\t\t\r\n"
            "\t\tStatus\t\tStatus\t\tStatus\tEpochs\tcounted\tStatus\tEpochs\tcounted\tStatus\tScan"
            "s\tStatus\tin alarm\tScans\tStatus\tin alarm\r\n"
            "03\t60.00\tALARM\tn.a.\tOK\t50.00\tOK\t2\t2\tALARM\t2\t10."
            "00\tOK\t7203\tALARM\t7201\t7203\tOK\t0\r\n");
  EXPECT_EQ(FileText("AB_ALM.txt"),
            "03-11-2026 08:00:01\tREP\t60.00\tALARM\r\n"
            "03-11-2026 10:00:03\tREP\t61.00\tALARM\r\n");
  // The CREM AVG report is named after the prefix, like the other files.
  EXPECT_EQ(FileText("AB_1126.wl"),
            "Date-Time\tDuration (mins)\tCREM AVG\tStatus\tChannel\r\n"
            "03-11-2026 10:00:03\t120.0\t60.00\tAlarm\tCREM\r\n");
  EXPECT_FALSE(files.isFile(folder + "/sum/CREM_1126.wl"));

  // The next summary of the month appends under the head lines, counting afresh.
  RunFor(1);
  calc->changeLoggers();
  const std::string text = FileText("MONTH_AB_2611.wl");
  EXPECT_NE(text.find("\r\n03\t61.00\tALARM\tn.a.\tOK\t61.00\tOK\t0\t0\tOK\t0\tn.a."
                      "\tOK\t1\tALARM\t1\t1\tOK\t0\r\n"),
            std::string::npos)
      << text;
}

// Sums and means against their limits: a value equal to its limit is
// within it, and 1 epoch of 20 in alarm is not more than 5 %.
TEST_F(EvaluationTest, AValueEqualToItsLimitIsWithinIt) {
  rig.values = {{"T", "1.1"}, {"D", "1.1"}, {"M", "5.1"}, {"TAVG", ""}, {"C95", ""},
                {"C95B", ""}, {"DAY", ""},  {"MINC", ""}, {"CR1", ""},  {"CR2", ""}};
  ASSERT_TRUE(Load("EQ.ccs", {"AVERAGE|T|TAVG|0.01", "CHECK 95|TAVG|C95|1.1",
                              "CHECK 95B|TAVG|C95B|1.1", "DAILY|D|DAY|1.1", "MINIMUM|M|MINC|5.1",
                              "CREM AVG|D|CR1|1.1", "CREM AVG|M|CR2|5"}));
  calc->start();
  RunFor(19 * 36);  // 19 periods of 36 s whose means equal the limit
  EXPECT_EQ(Last("TAVG"), "1.10");
  EXPECT_EQ(Last("C95"), "0");
  EXPECT_EQ(Last("C95B"), "0");
  rig.values["T"] = "2";
  RunFor(36);
  EXPECT_EQ(Last("C95B"), "1");
  calc->changeLoggers();
  ASSERT_TRUE(messages.empty()) << messages.front();

  const std::string summary = FileText("MONTH_EQ_2611.wl");
  EXPECT_NE(summary.find("\r\n03\t1.10\tOK\t5.10\tOK\t20\t1.10\tOK\t20\t1\tOK\r\n"),
            std::string::npos)
      << summary;
  // Both CREM AVG rows share the prefix's report.
  EXPECT_EQ(FileText("EQ_1126.wl"),
            "Date-Time\tDuration (mins)\tCREM AVG\tStatus\tChannel\r\n"
            "03-11-2026 08:12:00\t12.0\t1.10\t   OK\tCR1\r\n"
            "03-11-2026 08:12:00\t12.0\t5.10\tAlarm\tCR2\r\n");

  // Two epochs of twenty above the limit are more than 5 %.
  CalcState state;
  state.table.resize(2);
  state.table[1].type = calc_type::kCheck95B;
  state.table[1].newName = "C";
  state.table[1].total = 20;
  state.table[1].counter = 1;
  EXPECT_EQ(DailySummaryRow(state, clock.now()), "03\t20\t1\tOK");
  state.table[1].counter = 2;
  EXPECT_EQ(DailySummaryRow(state, clock.now()), "03\t20\t2\tALARM");
  state.table[1].total = 60;
  state.table[1].counter = 3;
  EXPECT_EQ(DailySummaryRow(state, clock.now()), "03\t60\t3\tOK");
}

TEST_F(EvaluationTest, ANewDayWritesTheSummaryOfTheDayThatEnded) {
  rig.values = {{"P", "5"}, {"DAY", ""}};
  ASSERT_TRUE(Load("ND.ccs", {"DAILY|P|DAY"}, "60"));
  calc->start();
  RunFor(16 * 3600 - 1);  // 08:00:00 to 23:59:59
  EXPECT_EQ(FileText("MONTH_ND_2611.wl"), "");
  RunFor(1);  // the pass at midnight belongs to the new day
  EXPECT_NE(FileText("MONTH_ND_2611.wl").find("\r\n03\t5.00\tOK\r\n"), std::string::npos);
  EXPECT_EQ(calc->state().table[1].passes, 1);
}

TEST_F(EvaluationTest, ReportRowsWithAnUnknownOperatorComplainEveryPass) {
  rig.values = {{"P", "5"}, {"REP", ""}};
  ASSERT_TRUE(Load("RP.ccs", {"REPORT|P|REP|=> 4"}));
  calc->start();
  RunFor(2);
  EXPECT_EQ(messages, std::vector<std::string>(
                          2, "Calculated Channel type REPORT:\rUnrecognised operator: =>"));
  EXPECT_TRUE(rig.writes.empty());
}

TEST_F(EvaluationTest, AFailingSummaryWriteIsReported) {
  rig.values = {{"P", "5"}, {"DAY", ""}};
  ASSERT_TRUE(Load("FW.ccs", {"DAILY|P|DAY"}));
  files.put(folder + "/sum", "a file where the folder should be");
  calc->start();
  RunFor(1);
  calc->changeLoggers();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_NE(messages[0].find("sum"), std::string::npos);
  EXPECT_EQ(calc->state().table[1].passes, 1);  // kept for the next attempt
}

// The disk refuses to let the summary grow (a file size limit makes every
// append fail, for root too): the failure is shown, the rows already on file
// stay as they were, and the day's counters wait for the next write.
TEST_F(EvaluationTest, ASummaryThatCannotGrowKeepsItsRowsAndTheDaysCounters) {
  rig.values = {{"P", "5"}, {"DAY", ""}};
  ASSERT_TRUE(Load("FG.ccs", {"DAILY|P|DAY"}));
  calc->start();
  RunFor(1);
  calc->changeLoggers();
  ASSERT_TRUE(messages.empty()) << messages.front();
  const std::string before = FileText("MONTH_FG_2611.wl");
  ASSERT_NE(before.find("\r\n03\t5.00\tOK\r\n"), std::string::npos) << before;

  // The disk is full when the next row is appended.
  files.failWrite(1, MemoryFileSystem::Fault::kNoSpace);
  rig.values["P"] = "7";
  RunFor(2);
  calc->changeLoggers();

  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].rfind("Cannot append to", 0), 0u) << messages[0];
  EXPECT_NE(messages[0].find("MONTH_FG_2611.wl"), std::string::npos) << messages[0];
  EXPECT_EQ(FileText("MONTH_FG_2611.wl"), before);
  EXPECT_EQ(calc->state().table[1].passes, 2);

  // Room again: the next write appends the kept day after the earlier rows.
  RunFor(1);
  calc->changeLoggers();
  EXPECT_EQ(messages.size(), 1u);
  const std::string after = FileText("MONTH_FG_2611.wl");
  EXPECT_EQ(after.rfind(before, 0), 0u) << after;
  EXPECT_NE(after.find("\r\n03\t", before.size() - 2), std::string::npos) << after;
}

TEST(ReportCondition, OperatorsAndLimits) {
  std::string op;
  double limit = 0;
  EXPECT_TRUE(ParseReportCondition(" <= 4.5", op, limit));
  EXPECT_EQ(op, "<=");
  EXPECT_EQ(limit, 4.5);
  EXPECT_FALSE(ParseReportCondition("=< 4", op, limit));
  EXPECT_EQ(op, "=<");
  EXPECT_TRUE(CompareByOperator(4, "<>", 5));
  EXPECT_FALSE(CompareByOperator(5, "<>", 5));
  EXPECT_TRUE(CompareByOperator(5, ">=", 5));
  EXPECT_FALSE(CompareByOperator(5, ">", 5));
  EXPECT_TRUE(CompareByOperator(5, "=", 5));
  EXPECT_TRUE(CompareByOperator(4, "<", 5));
}

}  // namespace
}  // namespace tavrix
