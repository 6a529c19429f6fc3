#include "calcchan/expressions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <fstream>

#include "testing/fake_channels.h"
#include "testing/memory_file_system.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

struct ExpressionsTest : ::testing::Test {
  FakeChannels rig;
  std::vector<std::string> messages;
  CalcPorts ports;
  std::unique_ptr<Analyser> analyser;

  ExpressionsTest() {
    ports.channels = &rig;
    ports.files = &testFiles();
    ports.showMessage = [this](std::string_view m) { messages.emplace_back(m); };
    analyser = std::make_unique<Analyser>(ports);
    rig.values = {{"T1", "21.5 degC"}, {"T2", "-4"}, {"A[1]", "3"}};
  }

  // The value of an expression, or NAN after a failure.
  double Eval(std::string_view expression) {
    if (!analyser->EvaluateExpression(expression)) return NAN;
    EXPECT_FALSE(analyser->result().isWaveform) << expression;
    return analyser->result().number;
  }
};

TEST_F(ExpressionsTest, OperatorsShareOnePriorityAndGroupFromTheRight) {
  EXPECT_EQ(Eval("2*3+4"), 14);
  EXPECT_EQ(Eval("8-2-1"), 7);
  EXPECT_EQ(Eval("12/2*3"), 2);
  EXPECT_EQ(Eval("(2*3)+4"), 10);
  EXPECT_EQ(Eval("  ((2*3))+4 "), 10);
  EXPECT_EQ(Eval("[T1]*2"), 43);
  EXPECT_EQ(Eval("[T1]*2+1"), 64.5);  // T1 x 3: the right side is 2+1
  EXPECT_EQ(Eval("[T2]-[T1]"), -25.5);
  EXPECT_EQ(Eval("[A[1]]+1"), 4);  // nested brackets belong to the name
  // A leading sign applies to everything on its right.
  EXPECT_EQ(Eval("-2+3"), -5);
  EXPECT_EQ(Eval("5*-2"), -10);
  // An exponent's sign belongs to its number.
  EXPECT_DOUBLE_EQ(Eval("1E-3*2"), 0.002);
  EXPECT_EQ(Eval("0"), 0);
  EXPECT_EQ(Eval("0.00+1"), 1);
  EXPECT_TRUE(messages.empty()) << messages.front();
}

TEST_F(ExpressionsTest, MacroLinesStoreNamedResultsThatLaterExpressionsUse) {
  EXPECT_EQ(analyser->EvaluateMacroLine(" Gain = 2*3+4 "), " 14");
  EXPECT_EQ(analyser->EvaluateMacroLine("OUT=gain/4"), " 3.5");
  EXPECT_EQ(analyser->EvaluateMacroLine("gain=1"), " 1");  // overwritten, not added
  EXPECT_EQ(analyser->namedResults().size(), 2u);
  EXPECT_EQ(analyser->EvaluateMacroLine("X=GAIN-out"), "-2.5");
  EXPECT_EQ(analyser->EvaluateMacroLine("Y="), "");
  EXPECT_TRUE(messages.empty());

  EXPECT_EQ(analyser->EvaluateMacroLine("no equals sign"), "");
  EXPECT_EQ(messages,
            std::vector<std::string>{"Cannot parse macro line for vb analysis: no equals sign"});
}

TEST_F(ExpressionsTest, FailuresShowTheirMessages) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"((1+2)", "Expression: ((1+2) cannot be evaluated"},
      {"2*(3", "Expression: (3 cannot be evaluated"},
      {"1+", "Expression: 1+ cannot be evaluated"},
      {"*4", "Expression: *4 cannot be evaluated"},
      {"nothing+1", "Expression: nothing+1 cannot be evaluated"},
      {"[T1", "Expression: [T1 cannot be evaluated"},
      {"()", "Expression: () cannot be evaluated"},
      {"SQRT(4)", "Expression: SQRT(4) cannot be evaluated"},
      {"VALUE(W1)", "Analysis function: VALUE requires 2 arguments"},
      {"CUT(W1,1)", "Analysis function: CUT requires 3 arguments"},
      {"POS(W1,1,2)", "Analysis function: POS requires 2 arguments"},
      {"VALUE(W1,1)", "Waveform W1 has not been loaded or created"},
      {"POS(W1,1)", "Waveform W1 has not been loaded or created"},
      {"cut(W1,1,2)", "Waveform: W1 has not been loaded or created"},
  };
  for (const auto& [expression, message] : cases) {
    messages.clear();
    EXPECT_FALSE(analyser->EvaluateExpression(expression)) << expression;
    EXPECT_EQ(messages, std::vector<std::string>{message}) << expression;
  }
  // A very long chain of operators is refused, not a crash.
  std::string chain;
  for (int i = 0; i < 100000; ++i) chain += "1+";
  chain += "1";
  messages.clear();
  EXPECT_FALSE(analyser->EvaluateExpression(chain));
  EXPECT_EQ(messages.size(), 1u);
}

TEST_F(ExpressionsTest, AnUnreadableChannelCountsAsZeroAfterItsMessage) {
  EXPECT_EQ(Eval("[NOPE]+5"), 5);
  EXPECT_EQ(messages,
            std::vector<std::string>{"CalcChan: unable to get a reading from channel: NOPE"});
  // The user hook is asked first.
  ports.userValue = [](std::string_view name, double& v) {
    if (name != "NOPE") return false;
    v = 7;
    return true;
  };
  messages.clear();
  EXPECT_EQ(Eval("[NOPE]+[T2]"), 3);
  EXPECT_TRUE(messages.empty());
}

TEST_F(ExpressionsTest, WaveformsComeFromCsvFilesAndSupportValueCutAndPos) {
  MemoryFileSystem files;
  const std::string folder = "/data/waves";
  files.put(folder + "/Ramp.csv", "# pressure ramp, bar\r\n0,10,20\r\n30\r\n\r\n40,15\r\n");
  files.put(folder + "/Empty.csv", "# nothing\r\n");
  analyser->setWaveformFolder(files, folder);

  EXPECT_EQ(Eval("VALUE(ramp, 2)"), 20);
  EXPECT_EQ(Eval("VALUE(RAMP, 1.5)"), 15);  // between samples: straight line
  EXPECT_EQ(Eval("VALUE(Ramp, 5)"), 15);    // the last sample
  EXPECT_EQ(Eval("POS(Ramp, 30)"), 3);
  EXPECT_EQ(Eval("POS(Ramp, 25)"), 2.5);
  EXPECT_EQ(Eval("VALUE(Ramp, POS(Ramp, 40)-1)+1"), 31);  // 40 is at 4
  ASSERT_EQ(analyser->waveforms().size(), 1u);
  EXPECT_EQ(analyser->waveforms()[0].description, std::vector<std::string>{"pressure ramp, bar"});

  // CUT makes a waveform that a macro line keeps under its target.
  EXPECT_EQ(analyser->EvaluateMacroLine("Mid = CUT(Ramp, 1, 3)"), "");
  ASSERT_TRUE(analyser->result().isWaveform);
  const Waveform* mid = analyser->findWaveform("MID");
  ASSERT_NE(mid, nullptr);
  EXPECT_EQ(mid->samples, (std::vector<double>{10, 20, 30}));
  EXPECT_EQ(mid->description, std::vector<std::string>{"vbCreated"});
  EXPECT_EQ(Eval("VALUE(Mid, 0)"), 10);
  EXPECT_TRUE(messages.empty()) << messages.front();

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"VALUE(Ramp, 6)", "Trying to read a value beyond the end of a waveform"},
      {"VALUE(Ramp, -1)", "Trying to read a value beyond the end of a waveform"},
      {"CUT(Ramp, 4, 9)", "Trying to read a value beyond the end of a waveform"},
      {"POS(Ramp, 99)", "Analysis function: POS cannot find the value  99 in waveform Ramp"},
      {"VALUE(Empty, 0)", "Waveform Empty has not been loaded or created"},
      {"Ramp+1", "Expression: Ramp+1 cannot be evaluated"},
  };
  for (const auto& [expression, message] : cases) {
    messages.clear();
    EXPECT_FALSE(analyser->EvaluateExpression(expression)) << expression;
    EXPECT_EQ(messages, std::vector<std::string>{message}) << expression;
  }
  std::string error;
  EXPECT_FALSE(analyser->loadWaveform("E", folder + "/Empty.csv", &error));
  EXPECT_NE(error.find("holds no sample"), std::string::npos);
}

}  // namespace
}  // namespace tavrix
