#include "run_command.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "cli_test_support.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_server.h"

namespace tavrix {
namespace {

class CliTest : public CliTestBase {
 protected:
  std::vector<std::string> TraceLines() const {
    std::vector<std::string> lines;
    std::istringstream in(out_);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
};

TEST_F(CliTest, TraceOfAVirtualTimeRun) {
  const std::string seq =
      File("a.wts", "WAITSECONDS 3600\r\nENTEROKCANCEL Hot?\rok?, OUT\r\nOUT:\r\n");
  const std::string answers = File("a.ans", "# the operator\n\nENTEROKCANCEL: Cancel\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--start", "2026-03-01 12:00:00", "--answers", answers,
                 "--trace", "-", seq}),
            kExitOk);
  const std::vector<std::string> expected = {
      R"({"t":0.000,"ev":"status","text":"Ready"})",
      R"({"t":0.000,"ev":"status","text":"Running"})",
      R"({"t":0.000,"ev":"line","n":1,"text":"WAITSECONDS 3600"})",
      R"({"t":3600.000,"ev":"line","n":2,"text":"ENTEROKCANCEL Hot?"})",
      // A carriage return ends a line: "ok?, OUT" is a line of its own, so
      // Cancel searches the empty label ":" and lands behind "OUT:".
      R"({"t":3600.000,"ev":"prompt","kind":"ENTEROKCANCEL","text":"Hot?","answer":"Cancel"})",
      R"({"t":3600.000,"ev":"status","text":"Stopped"})",
      R"({"t":3600.000,"ev":"end","reason":"eof","code":0})",
  };
  EXPECT_EQ(TraceLines(), expected);
}

TEST_F(CliTest, VersionNamesTheReleaseAndTheCommit) {
  EXPECT_EQ(Cli({"--version"}), kExitOk);
  EXPECT_TRUE(
      std::regex_match(out_, std::regex("tavrix-cli " TAVRIX_EXPECTED_VERSION
                                        " \\(commit ([0-9a-f]{12}|unknown)(\\+changes)?\\)\n")))
      << out_;
  // A subcommand cannot stand in for the version, nor the version for it.
  EXPECT_EQ(Cli({"run", "--version"}), kExitUsage);
}

TEST_F(CliTest, ExitStatusTellsHowTheRunEnded) {
  EXPECT_EQ(Cli({"run", "--virtual-time", File("stop.wts", "STOP\r\nWAITSECONDS 0\r\n")}), kExitOk);
  const std::string bad = File("bad.wts", "WAITSECONDS 1\r\nGOTO NOWHERE\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--trace", "-", bad}), kExitSequenceError);
  EXPECT_NE(err_.find("Error on line: 2\nLabel NOWHERE: does not exist"), std::string::npos)
      << err_;
  EXPECT_NE(out_.find(R"("ev":"message","title":"CV-TAVRIX","text":"Sequence file: )" + bad +
                      R"(\rError on line: 2\rLabel NOWHERE: does not exist"})"),
            std::string::npos)
      << out_;
  EXPECT_NE(out_.find(R"("ev":"end","reason":"error","code":1})"), std::string::npos);
  // A question with no answer: a clear message, status 1, no hang.
  EXPECT_EQ(Cli({"run", "--virtual-time", File("q.wts", "CONTINUEOK Ready?\r\n")}),
            kExitSequenceError);
  EXPECT_NE(err_.find("No answer to the CONTINUEOK question"), std::string::npos) << err_;
  const std::string wrong = File("wrong.ans", "ENTEROKCANCEL: Maybe\n");
  EXPECT_EQ(
      Cli({"run", "--virtual-time", "--answers", wrong, File("e.wts", "ENTEROKCANCEL Go?, X\r\n")}),
      kExitSequenceError);
  EXPECT_NE(err_.find("none of its buttons (OK, Cancel)"), std::string::npos) << err_;
}

TEST_F(CliTest, CalculatedChannelsRunOnTheRigAndASetupThatCannotLoadEndsTheProgram) {
  const std::string rig =
      File("calc_rig.ims", "  10001 E=1 N=IN V=2\n  10002 E=1 N=OUT\n  10003 E=1 N=SW V=0\n");
  File("AB.ccs",
       "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\nSOURCE=IN\r\nNEWNAME=OUT\r\n"
       "PARAM1=3\r\n[END CHANNEL]\r\n");
  File(
      "LG.ccs",
      "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=LOGGER ON/OFF\r\nSOURCE=SW\r\n[END CHANNEL]\r\n");
  const std::string good =
      File("good.wts", "IMSFILESPEC " + rig + "\r\nSTARTCALCULATEDCHANNELS " + dir_ +
                           "/AB.ccs, 2\r\nCC_START\r\nWAITSECONDS 5\r\n"
                           "CHECK OUT = 6, bad\r\nSTOP\r\nbad:\r\nGOTO nowhere\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", good}), kExitOk) << err_;

  const std::string logger =
      File("logger.wts", "IMSFILESPEC " + rig + "\r\nSTARTCALCULATEDCHANNELS " + dir_ +
                             "/LG.ccs, 1\r\nCC_START\r\nWAITSECONDS 3\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--trace", "-", logger}), kExitOk) << err_;
  int stops = 0;
  for (const auto& line : TraceLines()) {
    if (line.find(
            R"("ev":"companion","kind":"execute","topic":"LG_Raw|System","item":"Status","text":"Stop"})") !=
        std::string::npos) {
      ++stops;
    }
  }
  EXPECT_EQ(stops, 1) << out_;

  const std::string bad =
      File("bad.wts", "STARTCALCULATEDCHANNELS " + dir_ + "/none.ccs, 1\r\nSTOP\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--trace", "-", bad}), kExitSequenceError);
  const auto lines = TraceLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(
      out_.find("Unable to find or process calculated channel setup file:\\r" + dir_ + "/none.ccs"),
      std::string::npos)
      << out_;
  EXPECT_EQ(out_.find("\"text\":\"STOP\""), std::string::npos);  // the program ended at once
  EXPECT_NE(lines.back().find(R"("reason":"error","code":1)"), std::string::npos) << lines.back();
}

TEST_F(CliTest, BadUsageAndUnreadableFilesExitWithTwo) {
  EXPECT_EQ(Cli({"run", dir_ + "/missing.wts"}), kExitUsage);
  EXPECT_NE(err_.find("missing.wts"), std::string::npos);
  EXPECT_EQ(Cli({"run", File("nul.wts", std::string("STOP\r\n\0\0\0", 9))}), kExitUsage);
  EXPECT_NE(err_.find("not a text file"), std::string::npos);
  EXPECT_EQ(Cli({"run", dir_}), kExitUsage);
  EXPECT_EQ(Cli({"run"}), kExitUsage);
  EXPECT_EQ(Cli({"fly"}), kExitUsage);
  EXPECT_EQ(Cli({"run", "--virtual-time", "--start", "2026-02-30 10:00:00", File("s.wts", "")}),
            kExitUsage);
  EXPECT_EQ(Cli({"run", "--answers", dir_ + "/none.ans", File("t.wts", "")}), kExitUsage);
  EXPECT_EQ(Cli({"run", "--trace", dir_ + "/no/such/dir/t.jsonl", File("u.wts", "")}), kExitUsage);
}

TEST_F(CliTest, AFileOfOverThirtyTwoThousandLinesEndsWithAClearError) {
  std::string text;
  for (int i = 0; i < 40000; ++i) text += "REM line\r\n";
  EXPECT_EQ(Cli({"run", "--virtual-time", File("long.wts", text)}), kExitSequenceError);
  EXPECT_NE(err_.find("Error on line: 32767\nLine count overflow"), std::string::npos) << err_;
}

TEST_F(CliTest, TheInstrumentLinkOptions) {
  const std::string rig =
      File("rig.ims", "D 1\n  10001 E=1 N=HEATER\n  10002 E=1 N=OVEN V=20 FOLLOW=HEATER LAG=5\n");
  const std::string seq =
      File("heat.wts", "SEND HEATER, 80\r\nWAIT OVEN > 50\r\nSEND HEATER, 0\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--setup", rig, "--trace", "-", seq}), kExitOk) << err_;
  const std::string simTrace = out_;
  EXPECT_NE(simTrace.find(R"("ev":"iml","dev":1,"cmd":"WRI HEATER 80","reply":null})"),
            std::string::npos);

  // The same run over a rig server gives the same trace.
  std::string link;
  {
    RigServer server;
    std::string error;
    ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
    std::atomic<bool> stop{false};
    std::thread serving([&] { server.serve(stop); });
    link = "tcp://127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(Cli({"run", "--virtual-time", "--setup", rig, "--link", link, "--reply-timeout", "3",
                   "--trace", "-", seq}),
              kExitOk)
        << err_;
    EXPECT_EQ(out_, simTrace);
    stop = true;
    serving.join();
  }

  // Bad links, setups, time-outs and settings files are usage errors.
  EXPECT_EQ(Cli({"run", "--link", "serial:1", seq}), kExitUsage);
  EXPECT_NE(err_.find("unknown link \"serial:1\""), std::string::npos) << err_;
  EXPECT_EQ(Cli({"run", "--link", link, seq}), kExitUsage);
  EXPECT_NE(err_.find("IML error:  31"), std::string::npos) << err_;
  EXPECT_EQ(Cli({"run", "--setup", File("bad.ims", "rubbish\n"), seq}), kExitUsage);
  EXPECT_NE(err_.find("bad.ims line 1: "), std::string::npos) << err_;
  EXPECT_EQ(Cli({"run", "--reply-timeout", "-1", seq}), kExitUsage);
  EXPECT_EQ(Cli({"run", "--instrument-settings", File("i.cfg", "colour = red\n"), seq}),
            kExitUsage);
  EXPECT_NE(err_.find("i.cfg line 1: unknown setting \"colour\""), std::string::npos) << err_;
  // Without hardware every channel reads 0, so the wait never ends by itself:
  // a channel that is not there is not an error either.
  EXPECT_EQ(
      Cli({"run", "--virtual-time", "--no-hardware",
           File("nh.wts", "WAIT OVEN < 1\r\nCHECK X = 0, L\r\nSTOP\r\nL:\r\nGOTO NOWHERE\r\n")}),
      kExitOk)
      << err_;
  // No setup is loaded without hardware: a ramp goes on past its failed
  // writes, a SEND cannot find its channel.
  EXPECT_EQ(Cli({"run", "--virtual-time", "--no-hardware", "--setup", rig, "--trace", "-",
                 File("nhw.wts", "RAMP HEATER, 0 TO 1 OVER 1 IN 2\r\nSEND HEATER, 80\r\n")}),
            kExitSequenceError);
  EXPECT_NE(err_.find("Error on line: 2\nChannel name - HEATER - does not exist"),
            std::string::npos)
      << err_;
  EXPECT_EQ(out_.find("\"ev\":\"iml\""), std::string::npos) << out_;
  EXPECT_EQ(Cli({"rig", "--listen", "nowhere", "--setup", rig}), kExitUsage);
  EXPECT_NE(err_.find("\"nowhere\" is not HOST:PORT"), std::string::npos) << err_;
}

TEST_F(CliTest, TheRigCommandLetsOtherComputersInOnlyWithAKey) {
  const std::string key = Path("bridge.key");
  EXPECT_EQ(Cli({"rig", "--new-key", key}), kExitOk) << err_;
  EXPECT_EQ(out_, "tavrix-cli rig: wrote a new key to " + key + "\n");
  EXPECT_EQ(Cli({"rig", "--new-key", key}), kExitUsage);
  EXPECT_NE(err_.find("cannot make the key file " + key), std::string::npos) << err_;

  // An address other computers can reach needs a key; the refusal comes
  // before anything listens.
  EXPECT_EQ(Cli({"rig", "--listen", "0.0.0.0:0"}), kExitUsage);
  EXPECT_NE(err_.find("listening on 0.0.0.0 lets other computers reach the rig, so it needs a key"),
            std::string::npos)
      << err_;
  EXPECT_EQ(Cli({"rig", "--listen", "192.168.1.10:5025", "--key", Path("nokey")}), kExitUsage);
  EXPECT_NE(err_.find("cannot read the key file"), std::string::npos) << err_;
  EXPECT_EQ(Cli({"rig", "--link", "serial"}), kExitUsage);
#ifndef _WIN32
  // The rig PC's libraries load only into a Windows program.
  EXPECT_EQ(Cli({"rig", "--link", "dll"}), kExitUsage);
  EXPECT_NE(err_.find("tavrix-cli rig: "), std::string::npos) << err_;
#endif

  // A keyed server on loopback: the run with the key traces as the run on
  // the simulated rig; the run without it does not start.
  const std::string rig =
      File("rig.ims", "D 1\n  10001 E=1 N=HEATER\n  10002 E=1 N=OVEN V=20 FOLLOW=HEATER LAG=5\n");
  const std::string seq =
      File("heat.wts", "SEND HEATER, 80\r\nWAIT OVEN > 50\r\nSEND HEATER, 0\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--setup", rig, "--trace", "-", seq}), kExitOk) << err_;
  const std::string simTrace = out_;
  {
    // What `rig --key` serves: a server that needs the key.
    RigOptions options;
    options.listen = "127.0.0.1:0";
    options.key = key;
    std::atomic<bool> stopAtOnce{true};
    Captured log;
    EXPECT_EQ(RunRig(testHost(), options, nullptr, log.stream(), &stopAtOnce), kExitOk);
    EXPECT_NE(log.take().find("serving an empty rig on 127.0.0.1:"), std::string::npos);
  }
  RigServer server;
  std::string error;
  ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
  std::string keyBytes;
  ASSERT_TRUE(LoadLinkKey(testFiles(), key, keyBytes, &error)) << error;
  server.requireKey(keyBytes);
  std::atomic<bool> stop{false};
  std::thread serving([&] { server.serve(stop); });
  const std::string link = "tcp://127.0.0.1:" + std::to_string(server.port());
  EXPECT_EQ(Cli({"run", "--virtual-time", "--setup", rig, "--link", link, "--link-key", key,
                 "--trace", "-", seq}),
            kExitOk)
      << err_;
  EXPECT_EQ(out_, simTrace);
  EXPECT_EQ(Cli({"run", "--virtual-time", "--setup", rig, "--link", link, seq}), kExitUsage);
  EXPECT_NE(err_.find("refused the link: this rig server needs a key"), std::string::npos) << err_;
  // The settings file names the link and the key as well.
  const std::string settings = File("bridge.cfg", "link = " + link + "\nlink_key = " + key + "\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--setup", rig, "--instrument-settings", settings,
                 "--trace", "-", seq}),
            kExitOk)
      << err_;
  EXPECT_EQ(out_, simTrace);
  stop = true;
  serving.join();
}

}  // namespace
}  // namespace tavrix

namespace tavrix {
namespace {

// A trace that cannot be written (a full disk): the run goes on, the loss is
// reported when it first happens and summed up at the end, and the exit
// status is 6 in place of 0 or 4.
TEST_F(CliTest, LostOutputIsReportedAndEndsWithSix) {
  const std::string seq = File("a.wts", "WAITSECONDS 5\r\nSTOP\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--trace", "/dev/full", seq}), kExitOutputLost);
  EXPECT_NE(
      err_.find("tavrix-cli: output lost: Cannot write \"/dev/full\": No space left on device"),
      std::string::npos)
      << err_;
  EXPECT_EQ(err_.find("output lost:", err_.find("output lost:") + 1), std::string::npos)
      << "reported once";
  EXPECT_NE(err_.find("tavrix-cli: lost "), std::string::npos) << err_;
  EXPECT_NE(err_.find("the run ended (no UUT failed) but some of its output was lost"),
            std::string::npos)
      << err_;
  // A sequence error keeps its own status.
  EXPECT_EQ(
      Cli({"run", "--virtual-time", "--trace", "/dev/full", File("b.wts", "GOTO NOWHERE\r\n")}),
      kExitSequenceError);
}

// Closing the terminal (SIGHUP) during a real-time wait ends the run as Stop
// does: the trace is closed with its end event and the status is 3.
TEST_F(CliTest, AClosedTerminalStopsTheRun) {
  const std::string seq = File("wait.wts", "WAITSECONDS 600\r\n");
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    execl(TAVRIX_CLI_PATH, "tavrix-cli", "run", "--trace", "-", seq.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string trace;
  char buf[512];
  bool hung = false;
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) {
    trace.append(buf, static_cast<size_t>(n));
    // The wait has begun: the terminal goes away.
    if (!hung && trace.find("\"text\":\"WAITSECONDS 600\"") != std::string::npos) {
      hung = true;
      ASSERT_EQ(kill(child, SIGHUP), 0);
    }
  }
  close(out[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), kExitStopped);
  EXPECT_NE(trace.find("\"ev\":\"end\",\"reason\":\"abort\",\"code\":3"), std::string::npos)
      << trace;
}

// With a person at the terminal, SIGTERM or SIGINT while one of the
// commands that ask for a value or a choice waits ends the question and the
// run at once; nobody has to type an answer first.
TEST_F(CliTest, AStopEndsTheQuestionsOfTheCommandsAtTheTerminal) {
  const std::string rig = File("rig.ims",
                               "D 1 MONITORS=2\r\n  10001 E=1 M=A N=HEATER U=% V=0\r\n"
                               "  10002 E=1 M=A N=OVEN U=degC V=20\r\n");
  const std::vector<std::pair<std::string, int>> cases = {
      {"ENTERSEND Heater power?, HEATER\r\nSEND HEATER, 99\r\n", SIGTERM},
      {"SELECTMENU Pick a step, A, B\r\nA:\r\nSEND HEATER, 99\r\nB:\r\n", SIGINT},
      {"DOWITHSHOW Watch the oven, OVEN\r\nSEND HEATER, 99\r\n", SIGTERM},
      {"MANUALADJUST HEATER, 5, Set the heater\r\nSEND HEATER, 99\r\n", SIGINT}};
  for (const auto& [text, signal] : cases) {
    SCOPED_TRACE(text);
    const std::string seq = File("ask.wts", text);
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      dup2(slave, 0);
      dup2(out[1], 1);
      dup2(out[1], 2);  // the question is asked there
      close(master);
      close(out[0]);
      close(out[1]);
      execl(TAVRIX_CLI_PATH, "tavrix-cli", "run", "--virtual-time", "--setup", rig.c_str(),
            "--trace", "-", seq.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(slave);
    close(out[1]);
    std::string shown;
    bool sent = false;
    bool stuck = false;
    char buf[512];
    for (;;) {
      // The bound only keeps a question that stays open from hanging the
      // test; an answer is never typed.
      pollfd p{out[0], POLLIN, 0};
      if (::poll(&p, 1, 30000) != 1) {
        stuck = true;
        kill(child, SIGKILL);
        break;
      }
      const ssize_t n = read(out[0], buf, sizeof buf);
      if (n <= 0) break;
      shown.append(buf, static_cast<size_t>(n));
      // The question is shown and waits for its answer: Stop.
      if (!sent && shown.find("\n> ") != std::string::npos) {
        sent = true;
        ASSERT_EQ(kill(child, signal), 0);
      }
    }
    close(out[0]);
    close(master);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_FALSE(stuck) << "the question stayed open after the stop: " << shown;
    EXPECT_TRUE(sent) << shown;
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), kExitStopped) << shown;
    EXPECT_NE(shown.find("\"ev\":\"end\",\"reason\":\"abort\",\"code\":3"), std::string::npos)
        << shown;
    // The command did not act on an answer, and the run went no further.
    EXPECT_EQ(shown.find("99"), std::string::npos) << shown;
  }
}

}  // namespace
}  // namespace tavrix
