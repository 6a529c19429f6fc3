// The control socket with real clients: a run held at a breakpoint is
// looked at, stepped, skipped, given a breakpoint and resumed by `ctl`
// while another client follows its events; bad messages get an error reply
// and leave the run alone; the socket goes with the run; a stale socket is
// cleaned by `ctl list`; bad breakpoints end the command line at once.
#include "control_socket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>

#include "cli_test_support.h"
#include "ctl_command.h"
#include "platform/files.h"
#include "platform/local_endpoint.h"
#include "run_command.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

namespace fs = std::filesystem;

using platform::LocalConnection;

// A client speaking the protocol by hand.
class RawClient {
 public:
  explicit RawClient(const std::string& path) {
    std::string error;
    EXPECT_EQ(LocalConnection::Connect(path, connection_, &error),
              LocalConnection::Outcome::kConnected)
        << error;
  }
  // All of `text`, unless the run closed the connection.
  void send(const std::string& text) {
    if (connection_) connection_->send(text.data(), text.size());
  }
  // The next line; "" once the run closed the connection.
  std::string line() {
    for (;;) {
      const size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        std::string text = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return text;
      }
      char chunk[4096];
      const long n = connection_ ? connection_->receive(chunk, sizeof chunk) : 0;
      if (n <= 0) return "";
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }
  // Reads lines until one holds `text`; false if the connection ends first.
  bool until(const std::string& text) {
    for (std::string l = line(); !l.empty(); l = line())
      if (l.find(text) != std::string::npos) return true;
    return false;
  }

 private:
  std::unique_ptr<LocalConnection> connection_;
  std::string buffer_;
};

class ControlSocketTest : public CliTestBase {
 protected:
  std::string Home() const { return dir_ + "/home"; }
  // `ctl WORDS...`: its exit status; its output in ctlOut_, errors in ctlErr_.
  int Ctl(std::vector<std::string> words) {
    Captured out, err;
    const int status = RunCtl(Home(), words, out.stream(), err.stream());
    ctlOut_ = out.take();
    ctlErr_ = err.take();
    return status;
  }
  std::string ctlOut_, ctlErr_;
};

TEST_F(ControlSocketTest, ClientsLookStepSkipBreakAndResumeAHeldRunWhileOneFollowsIt) {
  const std::string setup = File("rig.ims", "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
  const std::string seq = File("main.wts",
                               "SEND OUT, 5\r\n"      // 1
                               "WAITSECONDS 10\r\n"   // 2
                               "WAITSECONDS 10\r\n"   // 3
                               "WAITSECONDS 10\r\n"   // 4
                               "SEND OUT, 7\r\n"      // 5
                               "WAITSECONDS 1\r\n");  // 6
  // The run tells on its standard error which breakpoint held it; the test
  // reads that through a pipe.
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::FILE* errWrite = ::fdopen(pipeFds[1], "w");
  std::FILE* errRead = ::fdopen(pipeFds[0], "r");
  Captured out;
  int status = -1;
  std::thread run([&] {
    status = TavrixCliMain(testHost(),
                           {"tavrix-cli", "run", "--virtual-time", "--quiet", "--setup", setup,
                            "--break", "2", "--trace", Path("trace.jsonl"), seq},
                           nullptr, out.stream(), errWrite);
    std::fclose(errWrite);
  });
  char buffer[4096];
  ASSERT_NE(std::fgets(buffer, sizeof buffer, errRead), nullptr);
  const std::string held = buffer;
  EXPECT_NE(held.find("tavrix-cli: held before line 2 by breakpoint 1 (line 2, hit 1 time)"),
            std::string::npos)
      << held;
  const size_t at = held.find("ctl ") + 4;
  const std::string id = held.substr(at, held.find(' ', at) - at);
  const std::string socket = Home() + "/runs/" + id + "/control.sock";
#ifndef _WIN32
  // On Windows the pipe's own access list keeps others out (platform_tests).
  EXPECT_EQ(fs::status(socket).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(Home() + "/runs/" + id).permissions() & fs::perms::all,
            fs::perms::owner_all);
#endif

  RawClient follower(socket);
  follower.send("{\"cmd\":\"events\"}\n");
  EXPECT_EQ(follower.line(), "{\"ok\":true}");
  // A client that asks for the events and never reads them holds nothing up.
  RawClient sleeper(socket);
  sleeper.send("{\"cmd\":\"events\"}\n");

  ASSERT_EQ(Ctl({id, "status"}), 0) << ctlErr_;
  EXPECT_NE(ctlOut_.find("\"state\":\"held\",\"line\":2"), std::string::npos) << ctlOut_;
  EXPECT_NE(ctlOut_.find("\"hold\":\"break\",\"breakpoint\":1"), std::string::npos) << ctlOut_;
  // The process id names the run as well as its id.
  ASSERT_EQ(Ctl({std::to_string(platform::processId()), "watch", "OUT", "NOSUCH"}), 0) << ctlErr_;
  EXPECT_NE(ctlOut_.find("\"OUT\":\"5"), std::string::npos) << ctlOut_;
  EXPECT_NE(ctlOut_.find("\"NOSUCH\":null"), std::string::npos) << ctlOut_;
  EXPECT_EQ(Ctl({id, "break", "99"}), 1);
  EXPECT_NE(ctlErr_.find("has lines 1 to 6, no line 99"), std::string::npos) << ctlErr_;
  EXPECT_EQ(Ctl({id, "break", "if", "OUT", ">=", "6"}), 1);
  EXPECT_NE(ctlErr_.find("unknown operator \">=\""), std::string::npos) << ctlErr_;
  ASSERT_EQ(Ctl({id, "break", "4"}), 0) << ctlErr_;
  EXPECT_NE(ctlOut_.find("\"id\":2"), std::string::npos);
  ASSERT_EQ(Ctl({id, "break", "if", "OUT", ">", "6"}), 0) << ctlErr_;
  EXPECT_EQ(Ctl({id, "fly"}), 1);
  EXPECT_NE(ctlErr_.find("unknown command \"fly\""), std::string::npos);

  // Bad messages get an error reply; the connection of an oversized one
  // closes; the run is unaffected.
  {
    RawClient bad(socket);
    bad.send("not json\n");
    EXPECT_NE(bad.line().find("\"ok\":false,\"error\":\"not JSON"), std::string::npos);
    bad.send("{\"cmd\":\"status\",\"extra\":1}\n");
    EXPECT_NE(bad.line().find("unknown field \\\"extra\\\""), std::string::npos);
    bad.send("{\"cmd\":\"status\"}\n");
    EXPECT_NE(bad.line().find("\"state\":\"held\""), std::string::npos);
    bad.send(std::string(70 * 1024, 'x'));
    EXPECT_NE(bad.line().find("at most 65536 bytes"), std::string::npos);
    EXPECT_EQ(bad.line(), "");
  }

  // Step runs line 2 and holds before 3; skip passes 3 and breakpoint 2
  // holds before 4; resume runs to the condition OUT > 6 (before line 6).
  ASSERT_EQ(Ctl({id, "step"}), 0) << ctlErr_;
  EXPECT_TRUE(follower.until("\"ev\":\"hold\",\"n\":3,\"reason\":\"step\"}"));
  ASSERT_EQ(Ctl({id, "skip"}), 0) << ctlErr_;
  EXPECT_TRUE(follower.until("\"ev\":\"hold\",\"n\":4,\"reason\":\"break\",\"id\":2}"));
  ASSERT_EQ(Ctl({id, "break", "clear", "1"}), 0) << ctlErr_;
  EXPECT_EQ(Ctl({id, "break", "clear", "1"}), 1);
  ASSERT_EQ(Ctl({id, "break"}), 0) << ctlErr_;
  EXPECT_EQ(ctlOut_.find("\"id\":1,"), std::string::npos) << ctlOut_;
  EXPECT_NE(ctlOut_.find("\"spec\":\"OUT > 6\""), std::string::npos) << ctlOut_;
  ASSERT_EQ(Ctl({id, "resume"}), 0) << ctlErr_;
  EXPECT_TRUE(follower.until("\"ev\":\"hold\",\"n\":6,\"reason\":\"break\",\"id\":3}"));
  ASSERT_EQ(Ctl({id, "resume"}), 0) << ctlErr_;
  EXPECT_TRUE(follower.until("\"ev\":\"end\",\"text\":\"eof\"}"));
  EXPECT_EQ(follower.line(), "");  // the run closed it
  run.join();
  std::fclose(errRead);
  EXPECT_EQ(status, kExitOk);

  // The socket went with the run (its record stays); a command is told
  // that the run has ended.
  EXPECT_FALSE(fs::exists(Home() + "/runs/" + id + "/control.sock"));
  EXPECT_TRUE(fs::exists(Home() + "/runs/" + id + "/trace.jsonl"));
  EXPECT_EQ(Ctl({id, "status"}), 1);
  EXPECT_NE(ctlErr_.find("run " + id + " has ended (eof, exit status 0)"), std::string::npos)
      << ctlErr_;
  std::string trace;
  ASSERT_TRUE(testFiles().readFile(Path("trace.jsonl"), trace, nullptr));
  EXPECT_NE(trace.find("\"ev\":\"hold\",\"n\":4,\"reason\":\"break\",\"id\":2}"),
            std::string::npos);
  EXPECT_NE(trace.find("\"ev\":\"resume\",\"by\":\"skip\"}"), std::string::npos);
}

TEST_F(ControlSocketTest, ASlowClientIsDroppedAndTheRunGoesOn) {
  // A loop in virtual time whose label is long: its events come to about
  // twice the backlog a client may leave unread, in few lines (a run of many
  // lines takes minutes where system calls are dear, as under an emulator).
  const std::string label = "TOP_" + std::string(2000, 'A');
  const std::string seq = File("loop.wts", "RESETLOOPCOUNT\r\n" + label +
                                               ":\r\nLOOPCHECK 4000, DONE\r\n"
                                               "WAITSECONDS 1\r\nGOTO " +
                                               label + "\r\nDONE:\r\n");
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::FILE* errWrite = ::fdopen(pipeFds[1], "w");
  std::FILE* errRead = ::fdopen(pipeFds[0], "r");
  Captured out;
  int status = -1;
  std::thread run([&] {
    status = TavrixCliMain(testHost(),
                           {"tavrix-cli", "run", "--virtual-time", "--quiet", "--break", "1", seq},
                           nullptr, out.stream(), errWrite);
    std::fclose(errWrite);
  });
  char buffer[4096];
  ASSERT_NE(std::fgets(buffer, sizeof buffer, errRead), nullptr);
  const std::string held = buffer;
  const size_t at = held.find("ctl ") + 4;
  const std::string id = held.substr(at, held.find(' ', at) - at);
  RawClient sleeper(Home() + "/runs/" + id + "/control.sock");
  sleeper.send("{\"cmd\":\"events\"}\n");
  ASSERT_EQ(Ctl({id, "resume"}), 0) << ctlErr_;
  run.join();
  std::fclose(errRead);
  EXPECT_EQ(status, kExitOk);
  // The sleeper was dropped before the end: what it can still read stops
  // short of the end event.
  std::string last, line;
  size_t lines = 0;
  while (!(line = sleeper.line()).empty()) {
    last = line;
    ++lines;
  }
  EXPECT_GE(lines, 1u);  // its reply, and what the socket's buffers held
  EXPECT_EQ(last.find("\"ev\":\"end\""), std::string::npos) << last;
}

TEST_F(ControlSocketTest, AStaleSocketIsCleanedByListAndBadBreakpointsEndTheRunAtOnce) {
  // A run killed without removing its socket leaves a socket nobody
  // listens on.
  const std::string stale = Home() + "/runs/20200101-000000-1";
  fs::create_directories(stale);
  std::string error;
  ASSERT_TRUE(platform::LocalServer::Listen(stale + "/control.sock", &error)) << error;
  EXPECT_EQ(Ctl({"20200101-000000-1", "pause"}), 1);
  EXPECT_NE(ctlErr_.find("is not going"), std::string::npos);
  fs::create_directories(stale);
  ASSERT_TRUE(platform::LocalServer::Listen(stale + "/control.sock", &error)) << error;
  EXPECT_EQ(Ctl({"list"}), 0);
  EXPECT_EQ(ctlOut_, "no run is going\n");
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_EQ(Ctl({"status"}), kExitUsage);

  const std::string seq = File("short.wts", "TOP:\r\nWAITSECONDS 1\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--break", "3", seq}), kExitUsage);
  EXPECT_NE(err_.find("breakpoint \"3\": " + seq + " has lines 1 to 2, no line 3"),
            std::string::npos)
      << err_;
  EXPECT_EQ(Cli({"run", "--virtual-time", "--break", "NOWHERE", seq}), kExitUsage);
  EXPECT_NE(err_.find("label NOWHERE does not exist"), std::string::npos) << err_;
  EXPECT_EQ(Cli({"run", "--virtual-time", "--break-if", "T1 ~ 80", seq}), kExitUsage);
  EXPECT_NE(err_.find("unknown operator \"~\""), std::string::npos) << err_;
  // Breakpoints that hold nothing (the label is passed once; there is no
  // channel T1) leave the run as it was.
  EXPECT_EQ(Cli({"run", "--virtual-time", "--break", "TOP:2", "--break-if", "T1 > 80", seq}),
            kExitOk)
      << err_;
  // What is left in runs/ are the records of those runs, without sockets.
  for (const auto& entry : fs::directory_iterator(Home() + "/runs")) {
    EXPECT_TRUE(fs::exists(entry.path() / "trace.jsonl")) << entry.path();
    EXPECT_FALSE(fs::exists(entry.path() / "control.sock")) << entry.path();
  }
}

std::string ReadAll(const std::string& path) {
  std::string text;
  EXPECT_TRUE(testFiles().readFile(path, text, nullptr)) << path;
  return text;
}

TEST_F(ControlSocketTest, EveryRunLeavesARecordThatListAllShowsAndEventsReplays) {
  const std::string good = File("good.wts", "WAITSECONDS 2\r\nRESETLOOPCOUNT\r\n");
  const std::string bad = File("bad.wts", "WAITSECONDS 1\r\nGOTO NOWHERE\r\n");
  const std::string traced = Path("traced.jsonl");
  // With --trace, without a control socket: the record is kept all the same.
  ASSERT_EQ(
      Cli({"run", "--virtual-time", "--quiet", "--no-control-socket", "--trace", traced, good}),
      kExitOk)
      << err_;
  const int failed = Cli({"run", "--virtual-time", "--quiet", bad});
  EXPECT_EQ(failed, ExitStatusFor(EndReason::kError)) << err_;

  ASSERT_EQ(Cli({"ctl", "list", "--all"}), kExitOk) << err_;
  const std::vector<std::string> lines = [&] {
    std::vector<std::string> out;
    std::istringstream in(out_);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
  }();
  ASSERT_EQ(lines.size(), 3u) << out_;
  EXPECT_EQ(lines[0].rfind("RUN ", 0), 0u) << out_;
  const std::string first = lines[1].substr(0, lines[1].find(' '));
  const std::string second = lines[2].substr(0, lines[2].find(' '));
  EXPECT_NE(lines[1].find(" eof       0      " + good), std::string::npos) << out_;
  EXPECT_NE(lines[2].find(" error     " + std::to_string(failed) + "      " + bad),
            std::string::npos)
      << out_;

  // The record is the trace: the same lines as --trace wrote.
  EXPECT_EQ(Ctl({first, "events"}), kExitOk) << ctlErr_;
  EXPECT_EQ(ctlOut_, ReadAll(traced));
  EXPECT_NE(ctlOut_.find("{\"t\":2.000,\"ev\":\"end\",\"reason\":\"eof\",\"code\":0}\n"),
            std::string::npos)
      << ctlOut_;
  EXPECT_EQ(ctlErr_, "");
  // By process id the latest run of that process is found.
  EXPECT_EQ(Ctl({second.substr(second.rfind('-') + 1), "events"}), kExitOk) << ctlErr_;
  EXPECT_NE(ctlOut_.find("\"text\":\"GOTO NOWHERE\""), std::string::npos) << ctlOut_;

  // Any other command to a run that has ended: how it ended, exit 1.
  EXPECT_EQ(Ctl({first, "pause"}), 1);
  EXPECT_NE(ctlErr_.find("run " + first + " has ended (eof, exit status 0)"), std::string::npos)
      << ctlErr_;
  EXPECT_EQ(Ctl({"20200101-000000-99", "events"}), 1);
  EXPECT_NE(ctlErr_.find("has no record"), std::string::npos) << ctlErr_;

  // A run killed outright leaves its record without an end.
  const std::string cut = Home() + "/runs/20200101-000000-7";
  fs::create_directories(cut);
  File("cut.json", "{\"run\":\"20200101-000000-7\",\"sequence\":\"x.wts\",\"start\":0}\n");
  fs::rename(Path("cut.json"), cut + "/run.json");
  File("cut.jsonl", "{\"t\":0.000,\"ev\":\"line\",\"n\":1,\"text\":\"X\"}\n");
  fs::rename(Path("cut.jsonl"), cut + "/trace.jsonl");
  ASSERT_EQ(Cli({"ctl", "list", "--all"}), kExitOk) << err_;
  EXPECT_NE(out_.find("20200101-000000-7        1970-01-01 00:00:00 -                   cut short "
                      "-      x.wts"),
            std::string::npos)
      << out_;
  EXPECT_EQ(Ctl({"20200101-000000-7", "events"}), kExitOk);
  EXPECT_EQ(ctlOut_, "{\"t\":0.000,\"ev\":\"line\",\"n\":1,\"text\":\"X\"}\n");
  EXPECT_NE(ctlErr_.find("has no end"), std::string::npos) << ctlErr_;

  // The limits: a size that holds one record leaves only the newest ended
  // one besides the run's own (a record without an end goes by age only);
  // bad limits end the command at once.
  const std::string settings = File("small.settings", "records_max_size = 1\n");
  ASSERT_EQ(Cli({"run", "--virtual-time", "--quiet", "--instrument-settings", settings, good}),
            kExitOk)
      << err_;
  ASSERT_EQ(Cli({"ctl", "list", "--all"}), kExitOk);
  EXPECT_EQ(out_.find(first + " "), std::string::npos) << out_;
  EXPECT_EQ(out_.find(second + " "), std::string::npos) << out_;
  EXPECT_NE(out_.find("cut short"), std::string::npos) << out_;
  const std::string aged = File("aged.settings", "records_max_age = 1s\nrecords_max_size = off\n");
  fs::last_write_time(cut + "/run.json", fs::file_time_type::clock::now() - std::chrono::hours(1));
  fs::last_write_time(cut + "/trace.jsonl",
                      fs::file_time_type::clock::now() - std::chrono::hours(1));
  ASSERT_EQ(Cli({"run", "--virtual-time", "--quiet", "--instrument-settings", aged, good}), kExitOk)
      << err_;
  EXPECT_FALSE(fs::exists(cut));
  const std::string wrong = File("wrong.settings", "records_max_size = lots\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--instrument-settings", wrong, good}), kExitUsage);
  EXPECT_NE(err_.find("records_max_size takes a size such as 1GiB"), std::string::npos) << err_;
}

}  // namespace
}  // namespace tavrix
