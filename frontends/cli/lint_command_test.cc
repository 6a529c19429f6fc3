// The linter against good and bad sequences.

#include "lint_command.h"

#include <gtest/gtest.h>

#include "cli_test_support.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/text_file.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

class LintTest : public ::testing::Test {
 protected:
  LintTest() : paths_("/nonexistent") { paths_.setDrive('c', dir_); }

  std::string Write(const std::string& name, const std::vector<std::string>& lines) {
    const std::string path = dir_ + "/" + name;
    EXPECT_TRUE(writeTextFileAtomically(testFiles(), path, lines, nullptr));
    return path;
  }

  // "LINE: error|warning: text" for each message.
  std::vector<std::string> Lint(const std::vector<std::string>& lines) {
    std::vector<LintMessage> messages;
    std::string error;
    EXPECT_TRUE(LintSequenceFile(testFiles(), Write("s.wts", lines), paths_, messages, &error))
        << error;
    std::vector<std::string> out;
    for (const auto& m : messages) {
      out.push_back(std::to_string(m.line) + ": " + (m.error ? "error" : "warning") + ": " +
                    m.text);
    }
    return out;
  }

  ScratchFolder scratch_;
  std::string dir_ = scratch_.path();
  PathMap paths_;
};

using Msgs = std::vector<std::string>;

TEST_F(LintTest, AGoodSequenceHasNothingToReport) {
  Write("sub.wts", {"PART2:", "RETURN"});
  EXPECT_EQ(Lint({"[HELPTEXT]",
                  "Wait, then GOTO nowhere",
                  "[END]",
                  "' a comment",
                  "START:",
                  "EXECUTEDEFINE cool, GOTO START",
                  "ONTIMEOUT 60, COOL",
                  "ONTIMEOUT 60, START",
                  "WAITSECONDS 0.5",
                  "RAMP DAC1, 0 to 10 over 5 in 10",
                  "[GROUPRAMPS]",
                  "RAMP A, 0 TO 1 OVER 1 IN 10",
                  "ramp B, 5 TO 0 OVER 2 IN 4",
                  "[END]",
                  "SINEOUT DAC2, AMPLITUDE 2 OFFSET 1 FREQUENCY 1 CYCLES 2 PEAK TO P1",
                  "PULSEOUTPUT DO1, lo, 32000",
                  "CHECK T1 <> 5, START",
                  "WAIT T1 > 50",
                  "MT_MAINTAIN HOLD LOAD AT 5 USING OUT WITH RATE 1 GAIN 2",
                  "MT_RAMP 0 TO 10 OVER 10 IN 10 AT LOAD USING OUT",
                  "LOOPCHECK 3, START",
                  "AFTERTIMECOUNT 2, minutes, START",
                  "ENTEROKCANCEL Ready?, START",
                  "CHAIN sub.wts, PART2",
                  "CHAIN c:\\sub.wts",
                  "SELECTMENU Which?, START, START",
                  "STOP"}),
            Msgs{});
}

TEST_F(LintTest, NearKeywordsAreWarnedAbout) {
  EXPECT_EQ(
      Lint({"WAITSECONDSX 5", "WAIT,5", "WIATSECONDS 5", "CONTINUE please",
            "LABEL:", "HELLO there"}),
      (Msgs{"1: warning: \"WAITSECONDSX\" is no keyword and is ignored; did you mean WAITSECONDS?",
            "2: warning: \"WAIT,5\" is no keyword and is ignored; did you mean WAIT?",
            "3: warning: \"WIATSECONDS\" is no keyword and is ignored; did you mean WAITSECONDS?",
            "4: warning: \"CONTINUE\" is no keyword and is ignored; did you mean CONTINUEOK?"}));
}

TEST_F(LintTest, JumpsToMissingLabelsAreErrors) {
  Write("sub.wts", {"STOP"});
  EXPECT_EQ(
      Lint({"GOTO NOWHERE", "CHECK T1 > 5, HOT", "LOOPCHECK 2, OUT", "ENTEROKCANCEL Go?, BACK",
            "AFTERTIMECOUNT 1, HOURS, LATE", "ONTIMEOUT 10, TIMEDOUT", "CHAIN sub.wts, PART2",
            "CHAIN missing.wts", "SELECTMENU Pick, A", "EXECUTEDEFINE undefined"}),
      (Msgs{"1: error: Label NOWHERE: does not exist", "2: error: Label HOT: does not exist",
            "3: error: Label OUT: does not exist", "4: error: Label BACK: does not exist",
            "5: error: Label LATE: does not exist", "6: error: Label TIMEDOUT: does not exist",
            "7: error: Label PART2: does not exist in " + dir_ + "/sub.wts",
            "8: error: Chain - Cannot open sequence file " + dir_ +
                "/missing.wts: No such file or directory",
            "9: error: Label A: does not exist", "10: error: Define undefined: does not exist"}));
}

TEST_F(LintTest, ParametersAndSetupStringsThatWillNotParse) {
  EXPECT_EQ(
      Lint({"WAITSECONDS 0", "WAITSECONDS abc", "PULSEOUTPUT DO1, UP, 32001",
            "RAMP A, 0 TO 10 OVER 0.5 IN 10", "RAMP A, 5 TO 0 OVER 10 IN 0", "RAMP A, 0 UPTO 10",
            "SINEOUT B, AMPLITUDE 1 OFFSET 0 FREQUENCY 10 CYCLES 1", "SINEOUT B, AMPLITUDE 1",
            "MT_MAINTAIN HOLD LOAD AT 5 USING OUT", "MT_RAMP 0 TO 10 OVER 10 IN 10",
            "CHECK T1>50, X", "WAIT T1 >= 50", "AFTERTIMECOUNT 0, WEEKS, X", "X:"}),
      (Msgs{"1: error: Invalid parameter - 0 - for a WaitSeconds statement",
            "2: error: Invalid parameter - abc - for a WaitSeconds statement",
            "3: error: Invalid parameter - 32001 - for a PulseOutput command",
            "4: error: Ramp Setup String - Time between steps must be >= 0.1",
            "5: error: Ramp Setup String - Number of steps must be >0",
            "6: error: Cannot parse Ramp setup string",
            "7: error: Sine Output Setup String - There are no points to output",
            "8: error: Cannot parse SineOut setup string",
            "9: error: Cannot parse MT_Maintain setup string",
            "10: error: Cannot parse Ramp setup string",
            "11: error: Cannot parse Wait condition - T1>50",
            "12: error: Operator - >= - is not supported",
            "13: error: AfterTimeCount - unrecognised units: WEEKS"}));
}

TEST_F(LintTest, GroupRampBlocksHoldOnlyRampsAndEnd) {
  EXPECT_EQ(Lint({"[GROUPRAMPS]", "RAMP A, 0 TO 1 OVER 0.1 IN 10", "WAITSECONDS 2", "[END]"}),
            (Msgs{"2: error: GroupRamp Setup String - Time between steps must be >= 0.1",
                  "3: error: Group Ramps: a non-Ramp command has been found"}));
  EXPECT_EQ(Lint({"[GROUPRAMPS]", "RAMP A, 0 TO 1 OVER 1 IN 10"}),
            (Msgs{"1: error: [GROUPRAMPS] block has no [END]"}));
  EXPECT_EQ(
      Lint({"[HELPTEXT]", "text"}),
      (Msgs{"1: warning: [HELPTEXT] section has no [END]: the rest of the file is help text"}));
}

TEST_F(LintTest, ExitStatusAndOutputLikeACompiler) {
  const std::string good = Write("good.wts", {"STOP"});
  const std::string bad = Write("bad.wts", {"GOTO NOWHERE", "WAITSECONDSX 1"});
  Captured out;
  EXPECT_EQ(RunLint(testHost(), {good}, out.stream(), stderr), 0);
  EXPECT_EQ(RunLint(testHost(), {good, bad}, out.stream(), stderr), 1);
  EXPECT_EQ(RunLint(testHost(), {dir_ + "/none.wts"}, out.stream(), stderr), 2);
  EXPECT_EQ(out.take(), bad + ":1: error: Label NOWHERE: does not exist\n" + bad +
                            ":2: warning: \"WAITSECONDSX\" is no keyword and is ignored; did you "
                            "mean WAITSECONDS?\n");
}

// A line fails lint with the very message with which it fails the run.
class LintAgainstRunTest : public CliTestBase {
 protected:
  // The message of lint's first error for the line, or "" when it passes.
  std::string LintMessage(const std::string& line) {
    const std::string file = File("lint.wts", line + "\r\n");
    Cli({"lint", file});
    const std::string prefix = file + ":1: error: ";
    const size_t at = out_.find(prefix);
    if (at == std::string::npos) return "";
    return out_.substr(at + prefix.size(), out_.find('\n', at) - at - prefix.size());
  }
  // The sequence error the run reports for the line, or "" when there is none.
  std::string RunMessage(const std::string& line) {
    const std::string file = File("run.wts", line + "\r\n");
    Cli({"run", "--virtual-time", "--trace", "-", file});
    const std::string marker = "Error on line: 1\\r";
    const size_t at = out_.find(marker);
    if (at == std::string::npos) return "";
    const size_t begin = at + marker.size();
    return out_.substr(begin, out_.find('"', begin) - begin);
  }
};

TEST_F(LintAgainstRunTest, RampStepsOutOfRangeOrKeywordsOutOfOrder) {
  for (const std::string line :
       {"RAMP HEATER, 0 IN 10 OVER 5 TO 20", "RAMP HEATER, 0 TO 20 OVER 5000 IN 40000",
        "RAMP HEATER, STOP 0 OVER 5 IN 10"}) {
    EXPECT_EQ(RunMessage(line), "Cannot parse Ramp setup string") << line;
    EXPECT_EQ(LintMessage(line), "Cannot parse Ramp setup string") << line;
  }
}

TEST_F(LintAgainstRunTest, MaintainWithARateOfZero) {
  const std::string line = "MT_MAINTAIN HOLD LOAD AT 5 USING OUT WITH RATE 0 GAIN 1";
  EXPECT_EQ(RunMessage(line), "MT_Maintain setup string - RATE must be >0");
  EXPECT_EQ(LintMessage(line), RunMessage(line));
}

TEST_F(LintAgainstRunTest, SineOfMoreThan32767Points) {
  // Five points a cycle at 1 Hz: 6553 cycles are 32765 points, 6554 too many.
  EXPECT_EQ(LintMessage("SINEOUT B, AMPLITUDE 1 OFFSET 0 FREQUENCY 1 CYCLES 6553"), "");
  const std::string line = "SINEOUT B, AMPLITUDE 1 OFFSET 0 FREQUENCY 1 CYCLES 6554";
  EXPECT_EQ(RunMessage(line),
            "Sine Output Setup String - There are too many points to output (at most 32767)");
  EXPECT_EQ(LintMessage(line), RunMessage(line));
}

TEST_F(LintAgainstRunTest, ArgumentErrorsTheRunReportsAfterAStateCheck) {
  // The run checks that a count is running before it looks at the units, so
  // with a count running the units are reported; lint reports them always.
  const std::string file =
      File("late.wts", "STARTTIMECOUNT\r\nAFTERTIMECOUNT 1, WEEKS, X\r\nX:\r\n");
  Cli({"run", "--virtual-time", "--trace", "-", file});
  EXPECT_NE(out_.find("Error on line: 2\\rAfterTimeCount - unrecognised units: WEEKS"),
            std::string::npos);
  EXPECT_EQ(LintMessage("AFTERTIMECOUNT 1, WEEKS, X\r\nX:"),
            "AfterTimeCount - unrecognised units: WEEKS");
  EXPECT_EQ(RunMessage("AFTERTIMECOUNT 1, WEEKS, X"),
            "AfterTimeCount - a StartTimeCount command has not been executed");
}

}  // namespace
}  // namespace tavrix
