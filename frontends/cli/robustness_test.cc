// `tavrix-cli` against inputs a careless or hostile user gives it: limits on
// the run's length and virtual waits that always end, files that are no
// regular files, warnings that say what is wrong, and links that cannot be
// reached. Every case ends with a clear message, a documented exit status
// and a line end.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <sstream>

#include "cli_test_support.h"
#include "common/text_file.h"
#include "run_command.h"
#include "sequencer/sequence_file.h"

namespace tavrix {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

class RobustnessTest : public CliTestBase {
 protected:
  // The trace's last line.
  std::string LastTraceLine() const {
    std::istringstream in(out_);
    std::string line;
    std::string last;
    while (std::getline(in, line)) last = line;
    return last;
  }
  int TraceEvents(const std::string& kind) const {
    int count = 0;
    for (size_t at = out_.find("\"ev\":\"" + kind + "\""); at != std::string::npos;
         at = out_.find("\"ev\":\"" + kind + "\"", at + 1)) {
      ++count;
    }
    return count;
  }
};

TEST_F(RobustnessTest, LimitsEndEndlessRunsWithStatusFive) {
  // A monitoring loop on the virtual clock: ended after two days of it.
  const std::string monitor = File("monitor.wts", "TOP:\r\nWAITSECONDS 60\r\nGOTO TOP\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--stop-after", "48h", "--trace", "-", monitor}),
            kExitLimit);
  EXPECT_THAT(err_, HasSubstr("tavrix-cli: --stop-after 48h ended the run\n"));
  EXPECT_EQ(LastTraceLine(), R"({"t":172800.000,"ev":"end","reason":"limit","code":5})");
  EXPECT_THAT(out_, HasSubstr(R"("ev":"status","text":"Stopped")"));

  // A loop without a wait: ended after the given number of lines.
  const std::string spin = File("spin.wts", "TOP:\r\nGOTO TOP\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--max-lines", "1000", "--trace", "-", spin}),
            kExitLimit);
  EXPECT_EQ(TraceEvents("line"), 1000);
  EXPECT_THAT(err_, HasSubstr("tavrix-cli: --max-lines 1000 ended the run\n"));
  // The same on the real clock.
  EXPECT_EQ(Cli({"run", "--max-lines", "50", "--trace", "-", spin}), kExitLimit);
  EXPECT_EQ(TraceEvents("line"), 50);
  // A run that ends first is not touched by its limits.
  EXPECT_EQ(Cli({"run", "--virtual-time", "--stop-after", "7d", "--max-lines", "9",
                 File("short.wts", "WAITSECONDS 5\r\n")}),
            kExitOk);

  for (const std::string bad : {"7y", "0s", "-5s", "1e308h", "nan", "inf", "h", ""}) {
    EXPECT_EQ(Cli({"run", "--virtual-time", "--stop-after", bad, spin}), kExitUsage) << bad;
    EXPECT_THAT(err_, HasSubstr("--stop-after wants a span such as 90s, 30m, 48h or 7d")) << bad;
  }
  for (const std::string bad : {"0", "-1", "1e19", "99999999999999999999", "12x"}) {
    EXPECT_EQ(Cli({"run", "--virtual-time", "--max-lines", bad, spin}), kExitUsage) << bad;
    EXPECT_THAT(err_, HasSubstr("--max-lines wants a whole number")) << bad;
  }
}

TEST_F(RobustnessTest, VirtualWaitsJumpAndEndAsTheirLengthSays) {
  // A year's wait ends at its instant (one jump of the clock, not a tick a
  // second).
  EXPECT_EQ(
      Cli({"run", "--virtual-time", "--trace", "-", File("year.wts", "WAITSECONDS 31536000\r\n")}),
      kExitOk);
  EXPECT_EQ(LastTraceLine(), R"({"t":31536000.000,"ev":"end","reason":"eof","code":0})");
  // A length beyond the single-precision range is infinite: nothing but
  // Stop, a jump or the timeout can end the wait, so on a virtual clock
  // with nothing else pending the run says it can never end...
  const std::string forever = File("forever.wts", "WAITSECONDS 1e308\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", forever}), kExitSequenceError);
  EXPECT_THAT(err_, HasSubstr("Wait can never end"));
  // ...and a limit ends it.
  EXPECT_EQ(Cli({"run", "--virtual-time", "--stop-after", "90s", "--trace", "-", forever}),
            kExitLimit);
  EXPECT_EQ(LastTraceLine(), R"({"t":90.000,"ev":"end","reason":"limit","code":5})");

  // A loop without a wait on the virtual clock is warned of once, naming
  // its lines; the run itself goes on until its limit.
  RunOptions options;
  options.sequence = File("loop.wts", "REM start\r\nTOP:\r\nREM busy\r\nGOTO TOP\r\n");
  options.virtualTime = true;
  options.maxLines = "5000";
  options.loopWarningLines = 1000;
  std::FILE* err = std::tmpfile();
  std::FILE* out = std::tmpfile();
  EXPECT_EQ(RunSequence(testHost(), options, nullptr, out, err), kExitLimit);
  std::fclose(out);
  const std::string text = Slurp(err);
  EXPECT_THAT(text, HasSubstr("tavrix-cli: warning: 1000 lines have run without the virtual clock "
                              "moving: lines 3-4 of " +
                              options.sequence +
                              " loop without a wait; --max-lines N ends such a run\n"
                              "tavrix-cli: --max-lines 5000 ended the run\n"));
}

TEST_F(RobustnessTest, OnlyRegularFilesAreRead) {
  const std::string seq = File("ok.wts", "WAITSECONDS 1\r\n");
  const std::string fifo = Path("pipe.wts");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // A FIFO without a writer would block for ever; /dev/zero never ends.
  EXPECT_EQ(Cli({"run", "--virtual-time", fifo}), kExitUsage);
  EXPECT_THAT(err_, HasSubstr(fifo + ": it is not a regular file"));
  EXPECT_EQ(Cli({"lint", fifo}), kExitUsage);
  EXPECT_THAT(err_, HasSubstr("not a regular file"));
  for (const std::string option : {"--answers", "--setup", "--instrument-settings"}) {
    EXPECT_EQ(Cli({"run", "--virtual-time", option, "/dev/zero", seq}), kExitUsage) << option;
    EXPECT_THAT(err_, HasSubstr("/dev/zero")) << option;
    EXPECT_THAT(err_, HasSubstr("not a regular file")) << option;
    EXPECT_THAT(err_, EndsWith("\n")) << option;
  }
  // A line beyond the bound of one line.
  const std::string longLine = File("long.answers", std::string(kMaxTextLineBytes + 1, 'x'));
  EXPECT_EQ(Cli({"run", "--virtual-time", "--answers", longLine, seq}), kExitUsage);
  EXPECT_THAT(err_, HasSubstr("a line is longer than 1 MiB"));
}

TEST_F(RobustnessTest, WarningsAndMessagesSayWhatIsWrong) {
  // Bare line feeds: the file is one long line; lint and run both say so.
  const std::string lf = File("lf.wts", "WAITSECONDS 1\nGOTO NOWHERE\n");
  EXPECT_EQ(Cli({"lint", lf}), 0);
  EXPECT_THAT(out_, HasSubstr(lf + ":1: warning: its lines end in bare line feeds"));
  EXPECT_THAT(out_, HasSubstr("save it with CR LF line ends\n"));
  EXPECT_EQ(Cli({"run", "--virtual-time", lf}), kExitOk);
  EXPECT_THAT(err_, HasSubstr("tavrix-cli: warning: " + lf + ": " +
                              std::string(kBareLineFeedWarning) + "\n"));
  EXPECT_EQ(Cli({"lint", File("crlf.wts", "WAITSECONDS 1\r\n")}), 0);
  EXPECT_EQ(out_, "");

  // A refused link names the cause and the address: a loopback port that
  // nobody listens on.
  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(probe);
  const std::string port = std::to_string(ntohs(address.sin_port));
  EXPECT_EQ(Cli({"run", "--virtual-time", "--link", "tcp://127.0.0.1:" + port,
                 File("t.wts", "WAITSECONDS 1\r\n")}),
            kExitUsage);
  EXPECT_THAT(err_,
              HasSubstr("tavrix-cli: cannot open the instrument link tcp://127.0.0.1:" + port +
                        ": IML error:  31 (connection refused: 127.0.0.1:" + port + ")\n"));

  // Every message ends with a line end, the sequence error report and a
  // file that is not text among them.
  EXPECT_EQ(Cli({"run", "--virtual-time", File("nul.wts", std::string("WAIT\0SECONDS 1\r\n", 16))}),
            kExitUsage);
  EXPECT_THAT(err_, EndsWith("\n"));
  EXPECT_EQ(Cli({"run", "--virtual-time", File("bad.wts", "GOTO NOWHERE")}), kExitSequenceError);
  EXPECT_THAT(err_, EndsWith("\n"));
  EXPECT_EQ(Cli({"run", "--virtual-time", File("q.wts", "CONTINUEOK Ready?")}), kExitSequenceError);
  EXPECT_THAT(err_, EndsWith("\n"));
}

}  // namespace
}  // namespace tavrix
