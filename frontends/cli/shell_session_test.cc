#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "cli_test_support.h"
#include "run_command.h"

namespace tavrix {
namespace {

class ShellTest : public CliTestBase {
 protected:
  // Runs `tavrix-cli shell` with `lines` as its input.
  int Shell(std::vector<std::string> args, const std::string& lines) {
    args.insert(args.begin(),
                {"shell", "--virtual-time", "--setup", TAVRIX_SOURCE_DIR "/examples/rig.ims"});
    return Cli(std::move(args), lines);
  }

  std::string Read(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
};

// Each line runs on the rig at once; a line that is a sequence error says
// so in the run's own words and the shell goes on; the shell's own commands
// read channels, list the channel table and start a trace; the status is
// that of the first failing line.
TEST_F(ShellTest, LinesRunOnTheRigAndAFailingLineEndsOnlyItself) {
  const std::string trace = dir_ + "/shell trace.jsonl";
  EXPECT_EQ(Shell({},
                  "SEND HEATER, 40\n"
                  ".read HEATER\n"
                  "SEND NOPE, 1\n"
                  "\n"
                  ".trace " +
                      trace +
                      "\n"
                      "SEND HEATER, 55\n"
                      "WAITSECONDS 60\n"
                      ".read HEATER OVEN\n"
                      ".channels\n"
                      ".frobnicate\n"
                      ".read\n"),
            kExitSequenceError);
  EXPECT_NE(out_.find("HEATER = 40\n"), std::string::npos) << out_;
  EXPECT_NE(err_.find("Channel name - NOPE - does not exist"), std::string::npos) << err_;
  EXPECT_NE(out_.find("HEATER = 55  OVEN = "), std::string::npos) << out_;
  EXPECT_NE(out_.find("AMBIENT        device  2  channel     1  A  degC\n"), std::string::npos)
      << out_;
  EXPECT_NE(out_.find("SPARE          device  2  channel     2  A  V  (disabled)\n"),
            std::string::npos)
      << out_;
  EXPECT_NE(out_.find(".frobnicate: not a shell command"), std::string::npos) << out_;
  EXPECT_NE(out_.find(".read wants the channels to read"), std::string::npos) << out_;

  // The trace holds what ran after .trace, on the run's clock.
  const std::string traced = Read(trace);
  EXPECT_EQ(traced.find("SEND HEATER, 40"), std::string::npos) << traced;
  EXPECT_NE(traced.find(R"("text":"SEND HEATER, 55")"), std::string::npos) << traced;
  EXPECT_NE(traced.find(R"("t":60.000,"ev":"iml","dev":1,"cmd":"REA HEATER","reply":"55")"),
            std::string::npos)
      << traced;
}

// .quit, like the end of the input, ends the run as STOP does: the lines
// after it never run, and outputs in progress stop with the run.
TEST_F(ShellTest, QuitEndsTheRunAndTheLinesAfterItNeverRun) {
  EXPECT_EQ(Shell({"--trace", dir_ + "/t.jsonl"}, "SEND FAN, 1200\n .quit \nSEND HEATER, 30\n"),
            kExitOk);
  const std::string traced = Read(dir_ + "/t.jsonl");
  EXPECT_NE(traced.find(R"("text":"SEND FAN, 1200")"), std::string::npos) << traced;
  EXPECT_NE(traced.find(R"("text":"STOP")"), std::string::npos) << traced;
  EXPECT_EQ(traced.find("HEATER"), std::string::npos) << traced;
  EXPECT_NE(traced.find(R"("ev":"end","reason":"stop","code":0)"), std::string::npos) << traced;
  EXPECT_EQ(Shell({}, ""), kExitOk);
}

}  // namespace
}  // namespace tavrix
