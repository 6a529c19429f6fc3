#include "calcchan/setup_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "testing/fake_channels.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

constexpr Micros kNow = 1'700'000'000LL * kMicrosPerSecond;

struct SetupFileTest : ::testing::Test {
  std::vector<std::string> messages;
  CalcState state;
  CalcPorts ports;
  MemoryFileSystem files;

  static std::string Folder() { return "/data/setups/"; }

  SetupFileTest() {
    ports.files = &files;
    ports.showMessage = [this](std::string_view m) { messages.emplace_back(m); };
    ports.dataFolder = [] { return std::string("c:\\corvane\\data\\"); };
    ports.summaryFolder = [] { return std::string("c:\\corvane\\data\\summary"); };
    // Setup files in the tests are named "dir\NAME" and live in Folder().
    ports.resolvePath = [](std::string_view spec) {
      const size_t slash = spec.find_last_of('\\');
      return Folder() +
             std::string(slash == std::string_view::npos ? spec : spec.substr(slash + 1));
    };
  }

  bool Load(const std::string& name, std::string_view text) {
    files.put(Folder() + name, std::string(text));
    return LoadCalcChannelSetup("d:\\setups\\" + name, state, ports, kNow);
  }
};

TEST_F(SetupFileTest, ReadsBlocksInFileOrder) {
  ASSERT_TRUE(Load("AB123.CCS",
                   "This line comes before the header, TYPE=junk\r\n"
                   "[Calculated Channels] for rig 4\r\n"
                   "ignored between blocks\r\n"
                   "[CHANNEL]\r\n"
                   "TYPE= average \r\n"
                   "rem the period is in hours\r\n"
                   "Remark: also a comment\r\n"
                   "SOURCE=T1\r\n"
                   "NEWNAME=T1AVG\r\n"
                   "PARAM1=2\r\n"
                   "COLOUR=red\r\n"
                   "[END CHANNEL]\r\n"
                   "[channel]\r\n"
                   "PARAM1=first\r\n"
                   "newname=F1\r\n"
                   "\"SOURCE=[T1]*2, then more\"\r\n"
                   "Type=formula\r\n"
                   "PARAM1=second\r\n"
                   "PARAM2=A=B\r\n"
                   "[END CHANNEL]\r\n"
                   "[CHANNEL]\r\n"
                   "TYPE=CREM AVG\r\n"
                   "[END CHANNEL]\r\n"));
  EXPECT_TRUE(messages.empty());
  ASSERT_EQ(state.table.size(), 4u);
  EXPECT_TRUE(state.table[0].type.empty());
  const CalcChannel& avg = state.table[1];
  EXPECT_EQ(avg.type, "AVERAGE");
  EXPECT_EQ(avg.source, "T1");
  EXPECT_EQ(avg.newName, "T1AVG");
  EXPECT_EQ(avg.param1, "2");
  EXPECT_TRUE(avg.armed);
  EXPECT_EQ(avg.dueTime, kNow + 2 * 3600 * kMicrosPerSecond);
  const CalcChannel& formula = state.table[2];
  EXPECT_EQ(formula.type, "FORMULA");
  EXPECT_EQ(formula.source, "[T1]*2, then more");
  EXPECT_EQ(formula.param1, "second");
  EXPECT_EQ(formula.param2, "A=B");
  EXPECT_EQ(formula.dueTime, kNow);
  EXPECT_FALSE(state.table[3].armed);  // CREM AVG starts disarmed

  EXPECT_EQ(state.summaryPrefix, "AB");
  EXPECT_EQ(state.summaryFolderA, "c:\\corvane\\data");
  EXPECT_EQ(state.summaryFolderB, "c:\\corvane\\data\\summary");
  EXPECT_TRUE(state.dailyTrackingWanted);
  EXPECT_TRUE(state.setupLoaded);
  EXPECT_TRUE(state.firstPassPending);
  EXPECT_EQ(state.loadDate, kNow);
}

TEST_F(SetupFileTest, HeaderAloneGivesAnEmptyTableAndAReloadStartsAfresh) {
  ASSERT_TRUE(
      Load("x1.ccs", "[CHANNEL]\r\nTYPE=SCALE\r\n[END CHANNEL]\r\n[CALCULATED CHANNELS]\r\n"));
  EXPECT_EQ(state.table.size(), 1u);
  EXPECT_FALSE(state.dailyTrackingWanted);

  state.evaluationTickCount = 7;
  ASSERT_TRUE(
      Load("x2.ccs", "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=DAILY\r\n[END CHANNEL]\r\n"));
  ASSERT_TRUE(
      Load("x3.ccs", "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\n[END CHANNEL]\r\n"));
  ASSERT_EQ(state.table.size(), 2u);
  EXPECT_EQ(state.table[1].type, "SCALE");
  EXPECT_FALSE(state.dailyTrackingWanted);
  EXPECT_EQ(state.ticksRemaining, 7);
}

TEST_F(SetupFileTest, DailyTrackingIsWantedByAverageDailyOrABlockWhoseFirstKeyIsNotType) {
  ASSERT_TRUE(
      Load("d1.ccs",
           "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\nSOURCE=A\r\n[END CHANNEL]\r\n"));
  EXPECT_FALSE(state.dailyTrackingWanted);
  // The quirk: SOURCE= before TYPE= sets the flag whatever the type.
  ASSERT_TRUE(
      Load("d2.ccs",
           "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nSOURCE=A\r\nTYPE=SCALE\r\n[END CHANNEL]\r\n"));
  EXPECT_TRUE(state.dailyTrackingWanted);
  ASSERT_TRUE(
      Load("d3.ccs", "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=DAILY\r\n[END CHANNEL]\r\n"));
  EXPECT_TRUE(state.dailyTrackingWanted);
}

TEST_F(SetupFileTest, LoggerRowReplacesPrefixAndFoldersOnlyWithNonEmptyValues) {
  ASSERT_TRUE(Load("XY9.ccs",
                   "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=LOGGER ON/OFF\r\nSOURCE=LOGSW\r\n"
                   "PARAM2=e:\\logs\\\r\n[END CHANNEL]\r\n"));
  EXPECT_EQ(state.summaryPrefix, "XY");
  EXPECT_EQ(state.summaryFolderA, "c:\\corvane\\data");
  EXPECT_EQ(state.summaryFolderB, "e:\\logs\\");
  ASSERT_TRUE(Load("XY9.ccs",
                   "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=LOGGER ON/OFF\r\nNEWNAME=K7\r\n"
                   "PARAM1=f:\\raw\r\n[END CHANNEL]\r\n"));
  EXPECT_EQ(state.summaryPrefix, "K7");
  EXPECT_EQ(state.summaryFolderA, "f:\\raw");
  EXPECT_EQ(state.summaryFolderB, "c:\\corvane\\data\\summary");
  EXPECT_FALSE(state.dailyTrackingWanted);
}

TEST_F(SetupFileTest, UnknownTypeIsDroppedWithItsMessageAndLoadingGoesOn) {
  ASSERT_TRUE(
      Load("u.ccs",
           "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SQUARE ROOT\r\nSOURCE=A\r\n[END CHANNEL]\r\n"
           "[CHANNEL]\r\nTYPE=HI ALARM\r\n[END CHANNEL]\r\n[CHANNEL]\r\n[END CHANNEL]\r\n"));
  EXPECT_EQ(messages,
            (std::vector<std::string>{"Calculated Channel - Unrecognised type:\rSQUARE ROOT",
                                      "Calculated Channel - Unrecognised type:\r"}));
  ASSERT_EQ(state.table.size(), 2u);
  EXPECT_EQ(state.table[1].type, "HI ALARM");
}

TEST_F(SetupFileTest, BadFilesFailWithTheirMessages) {
  const std::string unable =
      "Unable to find or process calculated channel setup file:\r" + Folder();
  struct Case {
    std::string text;
    std::vector<std::string> messages;
  };
  const std::vector<Case> cases = {
      {"[CHANNEL]\r\nTYPE=SCALE\r\n[END CHANNEL]\r\n", {unable + "bad.ccs"}},
      {"", {unable + "bad.ccs"}},
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\nSOURCE=A\r\n", {unable + "bad.ccs"}},
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\njust words\r\n[END CHANNEL]\r\n",
       {"Invalid Calculated Channel file entry:\rjust words", unable + "bad.ccs"}},
      // Quoted items keep their blanks: neither is a comment or the end marker.
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\n\" REM x\"\r\n[END CHANNEL]\r\n",
       {"Invalid Calculated Channel file entry:\r REM x", unable + "bad.ccs"}},
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\n\"[END CHANNEL]  \"\r\n",
       {"Invalid Calculated Channel file entry:\r[END CHANNEL]  ", unable + "bad.ccs"}},
      {std::string("\0\1\2\3 binary", 10), {unable + "bad.ccs"}},
      // An averaging period that does not fit the clock is an error while
      // loading, never an overflow.
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=AVERAGE\r\nPARAM1=1e308\r\n[END CHANNEL]\r\n",
       {unable + "bad.ccs"}},
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=AVERAGE\r\nPARAM1=-1e308\r\n[END CHANNEL]\r\n",
       {unable + "bad.ccs"}},
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=AVERAGE\r\nPARAM1=1e19\r\n[END CHANNEL]\r\n",
       {unable + "bad.ccs"}},
      {"[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=AVERAGE\r\nPARAM1=2.4e+39\r\n[END CHANNEL]\r\n",
       {unable + "bad.ccs"}},
  };
  for (const auto& c : cases) {
    messages.clear();
    state = CalcState{};
    EXPECT_FALSE(Load("bad.ccs", c.text)) << c.text;
    EXPECT_EQ(messages, c.messages) << c.text;
    EXPECT_FALSE(state.setupLoaded);
  }
  // Rows read before the failure stay.
  EXPECT_FALSE(Load("bad.ccs",
                    "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\n[END "
                    "CHANNEL]\r\n[CHANNEL]\r\nTYPE=DAILY\r\n"));
  EXPECT_EQ(state.table.size(), 3u);

  messages.clear();
  EXPECT_FALSE(LoadCalcChannelSetup("d:\\setups\\missing.ccs", state, ports, kNow));
  EXPECT_EQ(messages, std::vector<std::string>{unable + "missing.ccs"});
}

TEST(SummaryPrefix, TwoCharactersAfterTheLastSeparator) {
  EXPECT_EQ(SummaryPrefixOf("c:\\rigs\\a.b\\AB123.CCS"), "AB");
  EXPECT_EQ(SummaryPrefixOf("QZ.ccs"), "QZ");
  EXPECT_EQ(SummaryPrefixOf("setups/K"), "K");
  EXPECT_EQ(WithoutTrailingSeparator("c:\\x\\\\"), "c:\\x\\");
}

}  // namespace
}  // namespace tavrix
