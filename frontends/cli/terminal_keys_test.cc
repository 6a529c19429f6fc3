// Keys at the terminal drive a run held at breakpoints, through a
// pseudo-terminal: w adds a channel to the watch line, b lists the
// breakpoints, s steps, k skips, space resumes, q stops; what is typed for
// a question goes to the question, never to the keys.
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "cli_test_support.h"
#include "run_command.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

// A pseudo-terminal that types each step's keys once the output holds the
// step's text (read on a thread of its own).
class ScriptedTerminal {
 public:
  struct Step {
    std::string waitFor;
    std::string type;
  };
  explicit ScriptedTerminal(std::vector<Step> script) : script_(std::move(script)) {
    if (openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0) ADD_FAILURE() << "openpty";
    reader_ = std::thread([this] {
      char buf[4096];
      size_t next = 0;
      size_t searchFrom = 0;
      for (;;) {
        const ssize_t n = read(master_, buf, sizeof buf);
        if (n <= 0) return;
        std::lock_guard guard(mutex_);
        text_.append(buf, static_cast<size_t>(n));
        while (next < script_.size()) {
          const size_t at = text_.find(script_[next].waitFor, searchFrom);
          if (at == std::string::npos) break;
          searchFrom = at + script_[next].waitFor.size();
          const std::string& keys = script_[next++].type;
          if (write(master_, keys.data(), keys.size()) < 0) return;
        }
        typed_ = next;
      }
    });
  }
  ~ScriptedTerminal() {
    if (reader_.joinable()) Finish();
  }
  std::FILE* Stream(const char* mode) { return fdopen(dup(slave_), mode); }
  const std::string& Finish() {
    close(slave_);
    reader_.join();
    close(master_);
    return text_;
  }
  size_t typed() {
    std::lock_guard guard(mutex_);
    return typed_;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::vector<Step> script_;
  std::mutex mutex_;
  std::string text_;
  size_t typed_ = 0;
  std::thread reader_;
};

class TerminalKeysTest : public CliTestBase {};

// (It once hung after other runs in the same process: the keys' watch timer
// outlived its engine and wrote into freed memory.)
TEST_F(TerminalKeysTest, KeysWatchListStepSkipResumeAndStopButNeverAnswerAQuestion) {
  const std::string setup = File("rig.ims", "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
  const std::string seq = File("keys.wts",
                               "SEND OUT, 5\r\n"               // 1
                               "WAITSECONDS 10\r\n"            // 2
                               "WAITSECONDS 10\r\n"            // 3
                               "WAITSECONDS 10\r\n"            // 4
                               "ENTERSEND Set point, OUT\r\n"  // 5
                               "WAITSECONDS 1\r\n"             // 6
                               "WAITSECONDS 1\r\n");           // 7
  ScriptedTerminal terminal({{"held before line 2", "w OUT\r"},
                             {"watch: OUT=5", "b"},
                             {"breakpoint 2: line 7", "s"},
                             {"held before line 3 (step)", "k"},
                             {"held before line 4 (step)", " "},
                             // The question's own prompt, not the line's display.
                             {"Set point\r\n> ", "8 sk q\r"},
                             {"held before line 7", "q"}});
  std::FILE* in = terminal.Stream("r");
  std::FILE* out = terminal.Stream("w");
  std::FILE* err = terminal.Stream("w");
  const int status =
      TavrixCliMain(testHost(),
                    {"tavrix-cli", "run", "--virtual-time", "--setup", setup, "--break", "2",
                     "--break", "7", "--trace", Path("keys.jsonl"), seq},
                    in, out, err);
  // The terminal is left as it was found: lines and echo again.
  termios after{};
  ASSERT_EQ(tcgetattr(fileno(in), &after), 0);
  EXPECT_EQ(after.c_lflag & (ICANON | ECHO), static_cast<tcflag_t>(ICANON | ECHO));
  std::fclose(in);
  std::fclose(out);
  std::fclose(err);
  const std::string shown = terminal.Finish();
  EXPECT_EQ(terminal.typed(), 7u) << shown;
  // q at the last hold stopped the run.
  EXPECT_EQ(status, kExitStopped) << shown;
  std::string trace;
  ASSERT_TRUE(testFiles().readFile(Path("keys.jsonl"), trace, nullptr));
  // The question got every key typed for it.
  EXPECT_NE(trace.find("\"answer\":\"8 sk q\""), std::string::npos) << trace;
  EXPECT_NE(trace.find("\"ev\":\"resume\",\"by\":\"skip\""), std::string::npos) << trace;
  EXPECT_NE(trace.find("\"ev\":\"hold\",\"n\":7,\"reason\":\"break\",\"id\":2"), std::string::npos)
      << trace;
  EXPECT_NE(shown.find("watch: OUT=8"), std::string::npos) << shown;
}

}  // namespace
}  // namespace tavrix
