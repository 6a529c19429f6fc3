// What `tavrix-cli run` shows: on a pseudo-terminal the live view, anywhere
// else (or with --quiet, or with the trace on standard output) only messages
// and the summary.

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "cli_test_support.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

// A pseudo-terminal whose far side is read on a thread of its own, so that
// a long output never blocks the run. `answer` is typed once the output
// contains `prompt`.
class Terminal {
 public:
  explicit Terminal(std::string prompt = {}, std::string answer = {})
      : prompt_(std::move(prompt)), answer_(std::move(answer)) {
    if (openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0) ADD_FAILURE() << "openpty";
    termios raw{};
    tcgetattr(slave_, &raw);
    cfmakeraw(&raw);  // no echo, "\n" stays "\n"
    tcsetattr(slave_, TCSANOW, &raw);
    reader_ = std::thread([this] {
      char buf[4096];
      bool typed = false;
      for (;;) {
        const ssize_t n = read(master_, buf, sizeof buf);
        if (n <= 0) return;
        text_.append(buf, static_cast<size_t>(n));
        if (!typed && !prompt_.empty() && text_.find(prompt_) != std::string::npos) {
          typed = true;
          if (write(master_, answer_.data(), answer_.size()) < 0) return;
        }
      }
    });
  }
  ~Terminal() {
    if (reader_.joinable()) Finish();
  }

  // A stream on the terminal's near side.
  std::FILE* Stream(const char* mode) { return fdopen(dup(slave_), mode); }

  // Everything written, once the near side is closed.
  const std::string& Finish() {
    close(slave_);
    reader_.join();
    close(master_);
    return text_;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string prompt_;
  std::string answer_;
  std::string text_;
  std::thread reader_;
};

class TerminalViewTest : public CliTestBase {
 protected:
  // Runs with standard output (and, with `errToo`, the error stream and
  // input) on `terminal`.
  int OnTerminal(Terminal& terminal, std::vector<std::string> args, bool errToo = false) {
    args.insert(args.begin(), "tavrix-cli");
    std::FILE* out = terminal.Stream("w");
    std::FILE* in = errToo ? terminal.Stream("r") : nullptr;
    std::FILE* err = errToo ? terminal.Stream("w") : std::tmpfile();
    const int status = TavrixCliMain(testHost(), args, in, out, err);
    std::fclose(out);
    if (in != nullptr) std::fclose(in);
    if (errToo) {
      std::fclose(err);
    } else {
      err_ = Slurp(err);
    }
    return status;
  }

  static bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }
};

TEST_F(TerminalViewTest, OnATerminalTheRunIsShownLineByLineWithALiveStatus) {
  const std::string seq = File("view.wts",
                               "ONTIMEOUT 7200, LATE\r\nWAITSECONDS 3600\r\n"
                               "CONTINUEOK Fit the unit\r\nSTOP\r\nLATE:\r\n");
  const std::string answers = File("view.ans", "CONTINUEOK: Continue\n");
  Terminal terminal;
  EXPECT_EQ(OnTerminal(terminal, {"run", "--virtual-time", "--start", "2026-03-01 12:00:00",
                                  "--answers", answers, seq}),
            kExitOk);
  const std::string shown = terminal.Finish();
  // Each dispatched line with its clock time, the status changes, the
  // question and its scripted answer.
  EXPECT_TRUE(Has(shown, "12:00:00  -- Running\n")) << shown;
  EXPECT_TRUE(Has(shown, "12:00:00  1  ONTIMEOUT 7200, LATE\n")) << shown;
  EXPECT_TRUE(Has(shown, "12:00:00  2  WAITSECONDS 3600\n")) << shown;
  EXPECT_TRUE(Has(shown, "13:00:00  3  CONTINUEOK Fit the unit\n")) << shown;
  EXPECT_TRUE(Has(shown, "13:00:00  ? Fit the unit [Continue]\n")) << shown;
  EXPECT_TRUE(Has(shown, "-> Continue\n")) << shown;
  EXPECT_TRUE(Has(shown, "13:00:00  -- Stopped\n")) << shown;
  // The live status is drawn in place: erased and redrawn on one line, with
  // the clock, the line, the time-out left and the pace in run time.
  EXPECT_TRUE(Has(shown, "\r\x1b[K13:00:00 | line 3: CONTINUEOK Fit the unit | time-out "))
      << shown;
  EXPECT_TRUE(Has(shown, " lines/s")) << shown;
  // A line that stays is never written over a status left standing.
  for (size_t at = shown.find("  -- "); at != std::string::npos; at = shown.find("  -- ", at + 1)) {
    const size_t start = shown.rfind('\n', at);
    const size_t erase = shown.rfind("\x1b[K", at);
    EXPECT_TRUE(start == std::string::npos || erase == std::string::npos || erase < start ||
                shown.substr(erase + 3, at - erase - 3).find('|') == std::string::npos)
        << shown.substr(start == std::string::npos ? 0 : start, 80);
  }
  // The summary closes the run, the live status gone.
  const std::string summary = "Run ended by STOP: exit status 0\n";
  ASSERT_GE(shown.size(), summary.size());
  EXPECT_EQ(shown.substr(shown.size() - summary.size()), summary) << shown;
}

TEST_F(TerminalViewTest, APersonAnswersInPlace) {
  const std::string seq =
      File("ask.wts",
           "WAITSECONDS 5\r\nENTEROKCANCEL Door shut?, OPEN\r\nSTOP\r\nOPEN:\r\nGOTO NOWHERE\r\n");
  Terminal terminal("[2] Cancel\n> ", "ok\n");
  EXPECT_EQ(OnTerminal(terminal, {"run", "--virtual-time", seq}, true), kExitOk);
  const std::string shown = terminal.Finish();
  // The status line is cleared before the question, which stands on its own.
  const size_t question = shown.find("\nDoor shut?\n");
  ASSERT_NE(question, std::string::npos) << shown;
  EXPECT_EQ(shown.rfind("\x1b[K", question), shown.rfind("\r\x1b[K", question) + 1);
  EXPECT_TRUE(Has(shown.substr(question), "-- Stopped\n")) << shown;
  EXPECT_TRUE(Has(shown, "Run ended by STOP: exit status 0\n")) << shown;
}

TEST_F(TerminalViewTest, ElsewhereOnlyMessagesAndTheSummary) {
  const std::string seq = File("err.wts", "WAITSECONDS 10\r\nGOTO NOWHERE\r\n");
  // Not a terminal: the summary alone on standard output, the message on the
  // error stream.
  EXPECT_EQ(Cli({"run", "--virtual-time", seq}), kExitSequenceError);
  EXPECT_EQ(out_, "Run ended by a sequence error: exit status 1\n");
  EXPECT_TRUE(Has(err_, "Label NOWHERE: does not exist")) << err_;

  // --quiet on a terminal: the same.
  {
    Terminal terminal;
    EXPECT_EQ(OnTerminal(terminal, {"run", "--virtual-time", "--quiet", seq}), kExitSequenceError);
    EXPECT_EQ(terminal.Finish(), "Run ended by a sequence error: exit status 1\n");
  }
  // A trace on standard output keeps the stream clean: JSON lines only, the
  // summary on the error stream.
  {
    Terminal terminal;
    EXPECT_EQ(OnTerminal(terminal, {"run", "--virtual-time", "--trace", "-", seq}),
              kExitSequenceError);
    const std::string shown = terminal.Finish();
    std::istringstream lines(shown);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
      EXPECT_EQ(line.substr(0, 5), "{\"t\":") << line;
    EXPECT_GT(count, 3);
    EXPECT_TRUE(Has(err_, "Run ended by a sequence error: exit status 1\n")) << err_;
  }
  // A trace file and the results files are named in the summary, with the
  // units' verdicts.
  const std::string d = dir_;
  File("details.txt", "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test\t\t1\t\t" + d +
                          "/fields.txt\t" + d + "/stages.txt\t" + d + "/results\r\n");
  File("fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
  File("stages.txt",
       "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n1\tMANUAL\t\t\t\t\tSeal\t\tFitted?\r\n");
  const std::string uuts = File(
      "uut.wts", "NEXT:\r\nDB_DATAENTRY " + d + "/details.txt\r\nDB_STAGECHECK 1\r\nGOTO NEXT\r\n");
  const std::string answers = File("uut.ans",
                                   "DATAENTRY: Accept|serial=1\nUUTCHECK: Pass\n"
                                   "DATAENTRY: Accept|serial=2\nUUTCHECK: Fail and Continue\n"
                                   "DATAENTRY: Cancel\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--start", "2026-11-15 14:30:05", "--no-hardware",
                 "--answers", answers, "--trace", Path("run.jsonl"), uuts}),
            kExitUutFailed);
  EXPECT_TRUE(Has(out_, "Run ended by STOP: exit status 4\nUUTs: 1 passed, 1 failed\n")) << out_;
  EXPECT_TRUE(Has(out_, "Written: " + Path("run.jsonl") + "\n")) << out_;
  EXPECT_TRUE(Has(out_, "Written: " + d + "/results/SN_1_261115_143005.txt\n")) << out_;
  EXPECT_TRUE(Has(out_, "Written: " + d + "/results/SN_2_261115_143005.txt\n")) << out_;
  const std::string summaryFile = "Written: " + d + "/results/Pump test_261115.txt\n";
  EXPECT_EQ(out_.find(summaryFile), out_.rfind(summaryFile)) << "each file once";
  EXPECT_TRUE(testFiles().isFile(d + "/results/SN_1_261115_143005.txt"));
}

}  // namespace
}  // namespace tavrix
