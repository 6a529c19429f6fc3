// Test sockets: the station file's checks, channel mapping inside each
// socket's engine, the shared link's one exchange per device, the sockets'
// turns on one virtual clock, and `tavrix-cli run --station` end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "cli_test_support.h"

#ifndef _WIN32
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif
#include "common/event_loop.h"
#include "instrument/tcp/library_service.h"
#include "instrument/tcp/rig_server.h"
#include "instrument/tcp/tcp_link.h"
#include "station_link.h"
#include "station_run.h"
#include "station_time.h"
#include "testing/stub_links.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Two ovens on devices of their own, and the room's temperature for both.
constexpr const char* kRig =
    "D 1\n"
    "  10001 E=1 M=A N=S1_HEATER U=% V=0\n"
    "  10002 E=1 M=A N=S1_OVEN U=degC V=20 FOLLOW=S1_HEATER K=1 BIAS=20 LAG=5\n"
    "D 2\n"
    "  20001 E=1 M=A N=S2_HEATER U=% V=0\n"
    "  20002 E=1 M=A N=S2_OVEN U=degC V=20 FOLLOW=S2_HEATER K=1 BIAS=20 LAG=5\n"
    "  20003 E=1 M=A N=OVEN2_FAN U=rpm V=0\n"
    "D 3\n"
    "  30001 E=1 M=A N=AMBIENT U=degC V=21.5\n";

class StationTest : public CliTestBase {
 protected:
  StationTest() {
    File("rig.ims", kRig);
    File("heat.wts", "SEND HEATER, 40\r\nWAIT OVEN > 50\r\nSEND FAN, 100\r\nSTOP\r\n");
  }

  std::string Station(const std::string& sockets) {
    return File("station.toml", "setup = \"rig.ims\"\nsequence = \"heat.wts\"\n" + sockets);
  }

  int RunStation(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"run",
                                     "--virtual-time",
                                     "--start",
                                     "2026-11-15 08:00:00",
                                     "--no-control-socket",
                                     "--results-store",
                                     "off",
                                     "--trace",
                                     Path("t.jsonl"),
                                     "--station",
                                     Path("station.toml")};
    args.insert(args.end(), extra.begin(), extra.end());
    return Cli(args);
  }

  std::string Trace(const std::string& socket) {
    std::string text;
    testFiles().readFile(Path("t." + socket + ".jsonl"), text, nullptr);
    return text;
  }
};

TEST_F(StationTest, AStationFileThatCannotBeUsedStartsNothing) {
  struct Case {
    std::string file;
    std::string message;
  };
  const std::string both = "[socket.S1]\nprefix = \"S1_\"\n";
  const std::vector<Case> cases = {
      {"[socket.S1\nprefix = \"S1_\"\n", "station.toml line 3: "},
      {both + "[socket.S2]\nprefx = \"S2_\"\n", "line 6: socket S2: unknown key \"prefx\""},
      {"colour = 2\n", "line 3: unknown key \"colour\""},
      {both + "[socket.S1]\nprefix = \"S2_\"\n", "S1"},
      {both + "[socket.S2]\nprefix = \"S9_\"\n",
       "line 6: socket S2: prefix \"S9_\" names no channel of the rig's setup"},
      {both + "[socket.S2]\nmap = { HEATER = \"NOPE\" }\n",
       "line 6: socket S2: map.HEATER names \"NOPE\", no channel of the rig's setup"},
      {both + "[socket.S2]\nprefix = \"S2_\"\nsequence = \"missing.wts\"\n",
       "line 7: socket S2: cannot read the sequence"},
      {both + "[socket.S2]\nprefix = \"S2_\"\nanswers = \"missing.answers\"\n",
       "line 5: socket S2: cannot read the answers file"},
      {both + "[socket.S2]\nprefix = \"S2_\"\nlink = \"tcp://127.0.0.1:1\"\n",
       "line 5: socket S2: the sockets of a station share one link"},
      {both + "[socket.S2]\nmap = { HEATER = \"S1_HEATER\" }\n",
       "line 6: socket S2: writes the rig's channel S1_HEATER as socket S1 (line 4) does"},
      {both + "[socket.S2]\nprefix = \"S1_\"\n", "socket S2: writes the rig's prefixes"},
      {"[socket.A-1]\n[socket.\"a b\"]\n", "socket a b: a socket's name has"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    Station(c.file);
    EXPECT_EQ(RunStation(), kExitUsage);
    EXPECT_THAT(err_, HasSubstr(c.message));
    EXPECT_THAT(err_, HasSubstr(Path("station.toml")));
    std::string trace;
    EXPECT_FALSE(testFiles().readFile(Path("t.S1.jsonl"), trace, nullptr)) << "a socket started";
    const std::string runError = err_;
    EXPECT_EQ(Cli({"lint", "--station", Path("station.toml")}), kExitUsage);
    EXPECT_EQ(err_, runError) << "lint says what run says";
  }
  // What the station file says, or what holds one run, is not given again.
  Station(both);
  for (const auto& extra : std::vector<std::vector<std::string>>{{"--setup", Path("rig.ims")},
                                                                 {"--break", "1"},
                                                                 {"--max-lines", "5"},
                                                                 {"--reply-timeout", "40000"}}) {
    EXPECT_EQ(RunStation(extra), kExitUsage) << extra[0];
    EXPECT_THAT(err_, HasSubstr(extra[0]));
  }
  // A station without a sequence for every socket.
  File("station.toml", "setup = \"rig.ims\"\n[socket.S1]\nprefix = \"S1_\"\n");
  EXPECT_EQ(RunStation(), kExitUsage);
  EXPECT_THAT(err_, HasSubstr("line 2: socket S1: names no sequence"));
  // The SEQUENCE argument gives every socket one; lint then passes.
  EXPECT_EQ(Cli({"lint", "--station", Path("station.toml"), Path("heat.wts")}), kExitOk) << err_;
  EXPECT_THAT(out_, HasSubstr("1 socket ready"));
}

TEST_F(StationTest, EachSocketDrivesItsOwnChannelsAndSharesTheOthers) {
  // S3 maps by a table: FAN is the rig's OVEN2_FAN; S1's heater is hidden
  // from it.
  File("fan.wts", "SEND FAN, 5\r\nWAIT AMBIENT > 20\r\nSEND S1_HEATER, 1\r\n");
  Station(
      "[socket.S1]\nprefix = \"S1_\"\n"
      "[socket.S2]\nprefix = \"S2_\"\n"
      "[socket.S3]\nmap = { FAN = \"OVEN2_FAN\" }\nsequence = \"fan.wts\"\n");
  File("heat.wts", "SEND HEATER, 40\r\nWAIT OVEN > 50\r\nWAIT AMBIENT > 20\r\nSTOP\r\n");
  // S3 ends alone in its sequence error; the others go on to their STOP.
  EXPECT_EQ(RunStation(), kExitSequenceError) << err_;
  for (const std::string s : {"S1", "S2"}) {
    SCOPED_TRACE(s);
    const std::string trace = Trace(s);
    EXPECT_THAT(trace, HasSubstr("WRI " + s + "_HEATER 40"));
    EXPECT_THAT(trace, HasSubstr("REA " + s + "_OVEN"));
    EXPECT_THAT(trace, HasSubstr("REA AMBIENT"));
    EXPECT_THAT(trace, HasSubstr("\"end\",\"reason\":\"stop\",\"code\":0"));
  }
  const std::string s3 = Trace("S3");
  EXPECT_THAT(s3, HasSubstr("WRI OVEN2_FAN 5"));
  EXPECT_THAT(s3, HasSubstr("REA AMBIENT"));
  EXPECT_THAT(s3, Not(HasSubstr("S1_HEATER 1")));
  EXPECT_THAT(out_, HasSubstr("S3: Channel name - S1_HEATER - does not exist"));
  EXPECT_THAT(out_, HasSubstr("S1: ended by stop: exit status 0\nS2: ended by stop: exit status 0\n"
                              "S3: ended by error: exit status 1\n"));
}

TEST_F(StationTest, AMonitorChannelASocketMakesIsItsOwn) {
  // Both sockets make a monitor MON: each is made under the socket's name
  // for it, and each socket's later uses of MON reach its own.
  File("mon.wts", "MONITOR 1, MON, Q=1\r\nKILLMONITOR MON\r\nSTOP\r\n");
  Station(
      "[socket.S1]\nprefix = \"S1_\"\nsequence = \"mon.wts\"\n"
      "[socket.S2]\nprefix = \"S2_\"\nsequence = \"mon.wts\"\n");
  EXPECT_EQ(RunStation(), kExitOk) << err_ << out_;
  for (const std::string s : {"S1", "S2"}) {
    SCOPED_TRACE(s);
    EXPECT_THAT(Trace(s), HasSubstr(" N=" + s + "_MON\""));
    EXPECT_THAT(Trace(s), HasSubstr("CLEAR " + s + "_MON"));
  }
}

TEST_F(StationTest, SharedChannelsAndOutputs) {
  File("ramp.wts", "RAMP AMBIENT, 0 TO 10 OVER 5 IN 10\r\nSTOP\r\n");
  File("own.wts", "RAMP HEATER, 0 TO 10 OVER 5 IN 10\r\nSTOP\r\n");
  Station(
      "[socket.S1]\nprefix = \"S1_\"\nsequence = \"own.wts\"\n"
      "[socket.S2]\nprefix = \"S2_\"\nsequence = \"ramp.wts\"\n");
  // A ramp on the shared channel ends S2 alone with a sequence error; S1's
  // ramp of its own heater runs to its end.
  EXPECT_EQ(RunStation(), kExitSequenceError) << err_;
  EXPECT_THAT(out_, HasSubstr("S2: Channel AMBIENT is shared by the station's sockets"));
  EXPECT_THAT(out_, HasSubstr("S1: ended by stop: exit status 0"));
  EXPECT_THAT(out_, HasSubstr("S2: ended by error: exit status 1"));
  EXPECT_THAT(out_, HasSubstr("Station: exit status 1"));
  EXPECT_THAT(Trace("S1"), HasSubstr("WRI S1_HEATER  10"));
  EXPECT_THAT(Trace("S2"), Not(HasSubstr("WRI AMBIENT")));
}

TEST_F(StationTest, ADryRunIsTheSameEveryTime) {
  File("a.wts", "SEND HEATER, 40\r\nWAIT OVEN > 50\r\nWAITSECONDS 7\r\nREAD AMBIENT\r\nSTOP\r\n");
  File("b.wts", "WAITSECONDS 3\r\nSEND HEATER, 80\r\nWAIT OVEN > 60\r\nSTOP\r\n");
  Station(
      "[socket.S1]\nprefix = \"S1_\"\nsequence = \"a.wts\"\n"
      "[socket.S2]\nprefix = \"S2_\"\nsequence = \"b.wts\"\n");
  ASSERT_EQ(RunStation(), kExitOk) << err_;
  const std::string first1 = Trace("S1");
  const std::string first2 = Trace("S2");
  ASSERT_EQ(RunStation(), kExitOk) << err_;
  EXPECT_EQ(Trace("S1"), first1);
  EXPECT_EQ(Trace("S2"), first2);
  // Both ran on one clock: S2's heater went on 3 s in, while S1 waited.
  EXPECT_THAT(first2,
              HasSubstr("{\"t\":3.000,\"ev\":\"iml\",\"dev\":2,\"cmd\":\"WRI S2_HEATER 80\""));
}

// The Windows builds have no results store, and their tests serve no rig.
#ifndef _WIN32
TEST_F(StationTest, OverARigServerEachSocketRunsAsOnTheSimulatedRig) {
  File("a.wts",
       "SEND HEATER, 40\r\nWAIT OVEN > 50\r\nWAITSECONDS 7\r\nWAIT AMBIENT > 20\r\nSTOP\r\n");
  File("b.wts", "WAITSECONDS 3\r\nSEND HEATER, 80\r\nWAIT OVEN > 60\r\nSTOP\r\n");
  const std::string sockets =
      "[socket.S1]\nprefix = \"S1_\"\nsequence = \"a.wts\"\n"
      "[socket.S2]\nprefix = \"S2_\"\nsequence = \"b.wts\"\n";
  Station(sockets);
  ASSERT_EQ(RunStation(), kExitOk) << err_;
  const std::string sim1 = Trace("S1");
  const std::string sim2 = Trace("S2");
  RigServer server;
  std::string error;
  ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
  std::atomic<bool> stop{false};
  std::thread serving([&] { server.serve(stop); });
  // Each socket has a connection of its own; the setup is loaded once, so
  // neither restarts the rig under the other, and their order is the same.
  Station("link = \"tcp://127.0.0.1:" + std::to_string(server.port()) + "\"\n" + sockets);
  EXPECT_EQ(RunStation(), kExitOk) << err_;
  EXPECT_EQ(Trace("S1"), sim1);
  EXPECT_EQ(Trace("S2"), sim2);
  stop = true;
  serving.join();
}

// A person at the terminal answers the sockets' questions one at a time,
// each under its socket's name; Ctrl+C stops every socket.
TEST_F(StationTest, APersonAnswersEachSocketAtTheTerminal) {
  // A menu, whose question a stop closes (a message box it does not).
  File("ask.wts", "SELECTMENU Unit fitted?, A, B\r\nA:\r\nSEND HEATER, 5\r\nSTOP\r\nB:\r\n");
  Station(
      "[socket.S1]\nprefix = \"S1_\"\nsequence = \"ask.wts\"\n"
      "[socket.S2]\nprefix = \"S2_\"\nsequence = \"ask.wts\"\n");
  for (const bool interrupt : {false, true}) {
    SCOPED_TRACE(interrupt ? "Ctrl+C" : "answered");
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
      dup2(out[1], 2);
      close(master);
      close(out[0]);
      close(out[1]);
      execl(TAVRIX_CLI_PATH, "tavrix-cli", "run", "--virtual-time", "--no-control-socket",
            "--results-store", "off", "--station", Path("station.toml").c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    close(slave);
    close(out[1]);
    std::string shown;
    size_t asked = 0;
    char buf[512];
    for (;;) {
      // The bound only keeps a question that stays open from hanging the test.
      pollfd p{out[0], POLLIN, 0};
      if (::poll(&p, 1, 30000) != 1) {
        kill(child, SIGKILL);
        ADD_FAILURE() << "stuck: " << shown;
        break;
      }
      const ssize_t n = read(out[0], buf, sizeof buf);
      if (n <= 0) break;
      shown.append(buf, static_cast<size_t>(n));
      size_t prompts = 0;
      for (size_t at = shown.find("\n> "); at != std::string::npos; at = shown.find("\n> ", at + 1))
        ++prompts;
      if (prompts > asked) {
        asked = prompts;
        if (interrupt) {
          ASSERT_EQ(kill(child, SIGINT), 0);
        } else {
          ASSERT_EQ(write(master, "1\n", 2), 2);
        }
      }
    }
    close(out[0]);
    close(master);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << shown;
    if (interrupt) {
      EXPECT_EQ(WEXITSTATUS(status), kExitStopped) << shown;
      EXPECT_EQ(asked, 1u) << shown;
      EXPECT_THAT(shown, HasSubstr("S1: ended by abort: exit status 3"));
      EXPECT_THAT(shown, HasSubstr("S2: ended by abort: exit status 3"));
    } else {
      EXPECT_EQ(WEXITSTATUS(status), kExitOk) << shown;
      const size_t first = shown.find("S1: Unit fitted?");
      const size_t second = shown.find("S2: Unit fitted?");
      ASSERT_NE(first, std::string::npos) << shown;
      ASSERT_NE(second, std::string::npos) << shown;
      EXPECT_LT(first, second) << "in station order, one at a time";
      EXPECT_THAT(shown, HasSubstr("S2: ended by stop: exit status 0"));
    }
  }
}

TEST_F(StationTest, EachUutRecordNamesItsSocket) {
  const std::string t = "\t";
  File("details.txt", "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nOven test" + t + t +
                          "1" + t + t + Path("fields.txt") + t + Path("stages.txt") + t +
                          Path("results") + "\r\n");
  File("fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
  File("stages.txt",
       "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
       "1\tMEASURE\tHEATER\t\t30\t50\tHeater\t%\r\n");
  File("uut.wts", "DB_DATAENTRY " + Path("details.txt") +
                      "\r\nSEND HEATER, 40\r\nDB_STAGECHECK 1\r\nSTOP\r\n");
  File("s1.answers", "DATAENTRY: Accept|serial=101|operator=Ann Lee|description=Oven\n");
  File("s2.answers", "DATAENTRY: Accept|serial=202|operator=Ann Lee|description=Oven\n");
  File("station.toml",
       "name = \"LINE3\"\nsetup = \"rig.ims\"\nsequence = \"uut.wts\"\n"
       "[socket.S1]\nprefix = \"S1_\"\nanswers = \"s1.answers\"\n"
       "[socket.S2]\nprefix = \"S2_\"\nanswers = \"s2.answers\"\n");
  ASSERT_EQ(
      Cli({"run", "--virtual-time", "--no-control-socket", "--station", Path("station.toml")}),
      kExitOk)
      << err_;
  ASSERT_EQ(Cli({"results", "list"}), 0) << err_;
  EXPECT_THAT(out_, testing::ContainsRegex("LINE3/S1 .*101 .*PASS"));
  EXPECT_THAT(out_, testing::ContainsRegex("LINE3/S2 .*202 .*PASS"));
  // Each socket's stage check read the heater of its own socket (40 %), so
  // both passed; the sockets' files share the day's summary.
  std::string summary;
  for (const auto& entry : std::filesystem::directory_iterator(Path("results"))) {
    if (entry.path().filename().string().rfind("Oven test_", 0) == 0)
      testFiles().readFile(entry.path().string(), summary, nullptr);
  }
  EXPECT_THAT(summary, HasSubstr("101\tPASS"));
  EXPECT_THAT(summary, HasSubstr("202\tPASS"));
}
#endif

// A loop of its own for each socket, on the station's clock; each socket
// writes where it is, and waits its own time, three times. The order is the
// same whether the sockets take their turns on threads of their own or on
// one thread.
TEST(StationTimeTest, SocketsTakeTurnsOnOneClockInAFixedOrder) {
  for (const bool oneThread : {false, true}) {
    SCOPED_TRACE(oneThread ? "run()" : "threads of their own");
    const Micros start = 1'000'000'000;
    StationTime time(start, 3);
    std::mutex mutex;
    std::vector<std::string> log;
    std::set<std::thread::id> threadIds;
    const auto body = [&](size_t i) {
      auto clock = time.clockFor(i);
      EventLoop loop(*clock);
      for (int k = 0; k < 3; ++k) {
        {
          std::lock_guard guard(mutex);
          log.push_back(std::to_string(i) + "@" +
                        std::to_string((clock->now() - start) / 1'000'000));
          threadIds.insert(std::this_thread::get_id());
        }
        bool due = false;
        Timer timer(loop, static_cast<Micros>(i + 1) * 10'000'000, [&due] { due = true; });
        timer.setEnabled(true);
        loop.waitUntil([&due] { return due; });
      }
    };
    if (oneThread) {
      time.run(body);
      EXPECT_EQ(threadIds.size(), StationTime::switchesStacks() ? 1u : 3u);
    } else {
      std::vector<std::thread> threads;
      for (size_t i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
          time.enter(i);
          body(i);
          time.leave(i);
        });
      }
      for (auto& t : threads) t.join();
    }
    // At 20 s both S0 and S1 are due: the turn goes on from the one that ran
    // last, S0, so S1 runs first.
    EXPECT_EQ(log, (std::vector<std::string>{"0@0", "1@0", "2@0", "0@10", "1@20", "0@20", "2@30",
                                             "1@40", "2@60"}));
    EXPECT_EQ(time.now() - start, 90'000'000);
  }
}

// Sockets started on demand: each enters when it is told to, whatever the
// others do; one that waits for a person steps out of the turns, so the
// others' time goes on; and a socket whose run is over enters again for its
// next one.
TEST(StationTimeTest, SocketsStartedOnDemandGoOnWhileOneWaitsForAPerson) {
  const Micros start = 1'000'000'000;
  StationTime time(start, 2, StationTime::Start::kOnDemand);
  std::vector<std::string> log;
  std::mutex mutex;
  const auto note = [&](const std::string& what, const Clock& clock) {
    std::lock_guard guard(mutex);
    log.push_back(what + "@" + std::to_string((clock.now() - start) / 1'000'000));
  };
  const auto wait = [](EventLoop& loop, Micros length) {
    bool due = false;
    Timer timer(loop, length, [&due] { due = true; });
    timer.setEnabled(true);
    loop.waitUntil([&due] { return due; });
  };
  std::promise<EventLoop*> asking;
  bool answered = false;
  std::thread second([&] {
    auto clock = time.clockFor(1);
    EventLoop loop(*clock);
    time.enter(1);  // the first socket has not started
    {
      EventLoop::OutsideWait person(loop);
      asking.set_value(&loop);
      loop.waitUntil([&] { return answered; });
    }
    note("answered", *clock);
    wait(loop, 10'000'000);
    note("second done", *clock);
    time.leave(1);
    time.enter(1);
    wait(loop, 5'000'000);
    note("second again", *clock);
    time.leave(1);
  });
  EventLoop* person = asking.get_future().get();
  std::thread first([&] {
    auto clock = time.clockFor(0);
    EventLoop loop(*clock);
    time.enter(0);
    wait(loop, 30'000'000);
    note("first waited", *clock);
    person->post([&answered] { answered = true; });
    time.leave(0);
  });
  first.join();
  second.join();
  EXPECT_EQ(log, (std::vector<std::string>{"first waited@30", "answered@30", "second done@40",
                                           "second again@45"}));
}

// A backend that takes every command and has a reply only on the second poll.
class SlowBackend : public StubLinkLibrary {
 public:
  std::vector<std::string> sent;
  int32_t sendCommand(int16_t, int16_t device, std::string_view command, bool) override {
    sent.push_back(std::to_string(device) + ":" + std::string(BufferText(command)));
    polls_[device] = 0;
    return 0;
  }
  int32_t getReply(int16_t, int16_t device, std::string& buffer, bool) override {
    if (polls_[device]++ == 0) return link_result::kNotReady;
    WriteBuffer(buffer, "0");
    return 0;
  }
  int32_t setupLibVersion(std::string&) override { return 5; }
  int32_t loadAndLockSetup(const std::string&, int32_t, SetupLoad& load) override {
    ++loads;
    load.setupName = "rig";
    return 0;
  }
  int loads = 0;

 private:
  int polls_[100] = {};
};

TEST(SharedLinkTest, OneExchangePerDeviceInTheOrderAsked) {
  auto owned = std::make_unique<SlowBackend>();
  SlowBackend& backend = *owned;
  SharedBackend shared(std::move(owned));
  DeviceGate gate;
  SocketLink a(0, gate, shared), b(1, gate, shared), c(2, gate, shared);
  int16_t handle = 0;
  ASSERT_EQ(a.openInterface(handle), 0);
  ASSERT_EQ(b.openInterface(handle), 0);
  SetupLoad load;
  EXPECT_EQ(a.loadAndLockSetup("rig.ims", 0, load), 0);
  EXPECT_EQ(b.loadAndLockSetup("rig.ims", 0, load), 0);
  EXPECT_EQ(backend.loads, 1) << "a second load would restart the shared rig";
  EXPECT_EQ(load.setupName, "rig");

  std::string reply(20, ' ');
  EXPECT_EQ(a.sendCommand(1, 5, "REA X", true), 0);
  // C asks before B; both wait while A's reply is out.
  EXPECT_EQ(c.sendCommand(1, 5, "REA Z", true), link_result::kNotReady);
  EXPECT_EQ(b.sendCommand(1, 5, "REA Y", true), link_result::kNotReady);
  // Another device is free.
  EXPECT_EQ(b.sendCommand(1, 6, "REA W", true), 0);
  EXPECT_EQ(a.getReply(1, 5, reply, true), link_result::kNotReady);
  EXPECT_EQ(b.sendCommand(1, 5, "REA Y", true), link_result::kNotReady);
  EXPECT_EQ(a.getReply(1, 5, reply, true), 0);
  // Device 5 is free: C asked first.
  EXPECT_EQ(b.sendCommand(1, 5, "REA Y", true), link_result::kNotReady);
  EXPECT_EQ(c.sendCommand(1, 5, "REA Z", true), 0);
  c.abortReply(1, 5);
  EXPECT_EQ(b.sendCommand(1, 5, "REA Y", true), 0);
  EXPECT_EQ(backend.sent, (std::vector<std::string>{"5:REA X", "6:REA W", "5:REA Z", "5:REA Y"}));
  // A socket whose link goes lets go of what it held.
  b.closeInterface(1);
  EXPECT_EQ(a.sendCommand(1, 5, "REA V", true), 0);
}

// A backend whose reply to a command is the command itself, on the second
// poll; it logs what it is asked.
class EchoBackend : public SlowBackend {
 public:
  std::vector<std::string> log;
  int32_t sendCommand(int16_t, int16_t device, std::string_view command, bool) override {
    last_ = std::string(BufferText(command));
    polls_ = 0;
    log.push_back(std::to_string(device) + " send");
    return 0;
  }
  int32_t getReply(int16_t, int16_t device, std::string& buffer, bool) override {
    log.push_back(std::to_string(device) + " reply");
    if (polls_++ == 0) return link_result::kNotReady;
    WriteBuffer(buffer, last_);
    return 0;
  }

 private:
  std::string last_;
  int polls_ = 0;
};

// Eight sockets on connections of their own to one rig server, all asking
// the same device at once on the system's clock: the device sees one
// exchange at a time (its command, then polls until its reply), and each
// socket gets the reply to its own command.
TEST(SharedLinkTest, SocketsOnARigServerShareADeviceOneExchangeAtATime) {
  auto owned = std::make_unique<EchoBackend>();
  EchoBackend& backend = *owned;
  auto service = std::make_unique<LibraryService>(std::move(owned), testFiles());
  std::string error;
  ASSERT_TRUE(service->open(&error)) << error;
  RigServer server;
  server.serveLibrary(std::move(service));
  ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
  std::atomic<bool> stop{false};
  std::thread serving([&] { server.serve(stop); });
  DeviceGate gate(true);
  SetupOnce setup;
  constexpr int kSockets = 8;
  constexpr int kExchanges = 50;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int s = 0; s < kSockets; ++s) {
    threads.emplace_back([&, s] {
      SystemClock clock;
      auto tcp = std::make_unique<TcpLink>(clock, "127.0.0.1", server.port(), testFiles(),
                                           TcpLinkOptions{.responseWaitMs = 10'000});
      SocketLink link(s, gate, setup, std::move(tcp));
      int16_t handle = 0;
      if (link.openInterface(handle) != 0) {
        ++wrong;
        return;
      }
      for (int n = 0; n < kExchanges; ++n) {
        const std::string command = "REA S" + std::to_string(s) + "N" + std::to_string(n);
        int32_t result = link_result::kNotReady;
        while (result == link_result::kNotReady)
          result = link.sendCommand(handle, 5, command, true);
        std::string reply(40, ' ');
        result = link_result::kNotReady;
        while (result == link_result::kNotReady) result = link.getReply(handle, 5, reply, true);
        if (result != 0 || BufferText(reply) != command) ++wrong;
      }
      link.closeInterface(handle);
    });
  }
  for (auto& t : threads) t.join();
  stop = true;
  serving.join();
  EXPECT_EQ(wrong, 0);
  std::vector<std::string> expected;
  for (int i = 0; i < kSockets * kExchanges; ++i)
    expected.insert(expected.end(), {"5 send", "5 reply", "5 reply"});
  EXPECT_EQ(backend.log, expected);
}

}  // namespace
}  // namespace tavrix
