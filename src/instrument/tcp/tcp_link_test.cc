#include "instrument/tcp/tcp_link.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "common/file_system.h"
#include "instrument/backends/link_backends.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "instrument/tcp/rig_protocol.h"
#include "instrument/tcp/rig_server.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/recording_operator.h"
#include "testing/sequence_run.h"
#include "testing/socket_io.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

constexpr std::string_view kRig =
    "D 1 MONITORS=1\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10023 E=1 M=A N=TEMP1 U=degC V=20 FOLLOW=HEATER LAG=10 JITTER=0.2\n"
    "D 2 NOTREADY=5 LATENCY=30\n"
    "  20001 E=1 N=SLOW V=3\n";

// The files of this test program: a folder of its own, removed at its end.
ScratchFolder& Scratch() {
  static ScratchFolder folder;
  return folder;
}

std::string TempFile(const std::string& stem, std::string_view text) {
  static int files = 0;
  const std::string path = Scratch().file(stem + std::to_string(++files));
  EXPECT_TRUE(testFiles().writeAtomically(path, text, nullptr));
  return path;
}

void Remove(const std::string& path) { testFiles().remove(path, nullptr); }

// A rig server on an ephemeral loopback port, served by a thread.
class ServerThread {
 public:
  // Listens on `port` of 127.0.0.1 (0: a free one).
  explicit ServerThread(uint16_t port = 0) {
    std::string error;
    EXPECT_TRUE(server_.listen("127.0.0.1:" + std::to_string(port), &error)) << error;
    thread_ = std::thread([this] { server_.serve(stop_); });
  }
  ~ServerThread() { stop(); }
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  std::string link() const { return "tcp://127.0.0.1:" + std::to_string(server_.port()); }
  uint16_t port() const { return server_.port(); }

 private:
  RigServer server_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

using RunResult = testing::LinkRun;

// Runs a sequence on a virtual clock over the given link, with the trace on.
RunResult RunOver(const std::string& link, const std::vector<std::string>& lines,
                  const std::function<std::unique_ptr<Timer>(EventLoop&)>& duringRun = {}) {
  VirtualClock clock(kStart);
  InstrumentSettings settings;
  settings.replyTimeoutSecs = 5;
  return testing::RunSequenceOver(clock, Scratch().path(), link, settings, lines, duringRun);
}

TEST(TcpLink, TheSameSequenceGivesTheSameTraceOverBothLinks) {
  const std::string rig = TempFile("tcprig", kRig);
  ServerThread server;
  const std::vector<std::string> lines = {"IMSFILESPEC " + rig, "SEND HEATER, 100",
                                          "WAIT TEMP1 > 40", "WAIT SLOW = 3", "IMLDEF HEATER, Q=1"};
  const RunResult sim = RunOver("sim", lines);
  const RunResult tcp = RunOver(server.link(), lines);
  EXPECT_EQ(sim.error, "IML error - 13 bad setting");
  EXPECT_EQ(tcp.error, sim.error);
  EXPECT_NE(sim.trace.find("\"ev\":\"iml\",\"dev\":1,\"cmd\":\"WRI HEATER 100\",\"reply\":null"),
            std::string::npos);
  EXPECT_NE(sim.trace.find("\"cmd\":\"REA SLOW\",\"reply\":\"3\""), std::string::npos);
  EXPECT_EQ(tcp.trace, sim.trace);
  Remove(rig);
}

TEST(TcpLink, ARigServerThatGoesAwayEndsTheRunWithAClearError) {
  const std::string rig = TempFile("tcprig", kRig);
  auto server = std::make_unique<ServerThread>();
  const auto realStart = std::chrono::steady_clock::now();
  const std::vector<std::string> lines = {"IMSFILESPEC " + rig, "SEND HEATER, 10", "WAITSECONDS 5",
                                          "SEND HEATER, 20"};
  const RunResult result = RunOver(server->link(), lines, [&](EventLoop& events) {
    auto kill = std::make_unique<Timer>(events, 2 * kMicrosPerSecond, [&] { server->stop(); });
    kill->setEnabled(true);
    return kill;
  });
  EXPECT_EQ(result.error, "IML error - unable to talk to device: 1");
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(60));
  EXPECT_NE(result.trace.find("\"cmd\":\"WRI HEATER 20\",\"reply\":null,\"ret\":31"),
            std::string::npos);

  // No server at all: the link does not open.
  const std::string link = server->link();
  server.reset();
  const RunResult none = RunOver(link, {"SEND HEATER, 1"});
  EXPECT_EQ(none.error, "IML error:  31");
  Remove(rig);
}

// The rig server is killed in the middle of a run and started again on the
// same port: the run ends at its next exchange with the documented message,
// what it had written before stays written, and the next run talks to the
// new server.
TEST(TcpLink, ARigServerRestartedMidRunServesTheNextRun) {
  const std::string rig = TempFile("tcprig", kRig);
  auto server = std::make_unique<ServerThread>();
  const uint16_t port = server->port();
  VirtualClock clock(kStart);
  EventLoop events(clock);
  Trace trace(clock);
  RecordingOperator op;
  PathMap paths(Scratch().path());
  Sequencer seq(events, op, trace, testFiles(), paths);
  RegisterSequencerCommands(seq);
  InstrumentSettings settings;
  settings.replyTimeoutSecs = 5;
  std::string error;
  auto instrument =
      MakeInstrument(events, trace, settings, server->link(), testFiles(), paths, &error);
  ASSERT_NE(instrument, nullptr) << error;
  RegisterInstrumentCommands(seq, *instrument);
  const std::string sequence = TempFile("restart", "IMSFILESPEC " + rig +
                                                       "\r\nSEND HEATER, 10\r\nWAITSECONDS 5\r\n"
                                                       "SEND HEATER, 20\r\n");
  ASSERT_TRUE(seq.prepareFile(sequence, &error)) << error;

  Timer kill(events, 2 * kMicrosPerSecond, [&] {
    server.reset();
    server = std::make_unique<ServerThread>(port);
  });
  kill.setEnabled(true);
  seq.start();
  kill.setEnabled(false);
  EXPECT_EQ(seq.lastSequenceError(), "IML error - unable to talk to device: 1");
  EXPECT_EQ(server->port(), port);

  // The new server has a fresh rig: the next run loads the setup into it and
  // both writes arrive.
  ASSERT_TRUE(seq.prepareFile(sequence, &error)) << error;
  seq.start();
  EXPECT_EQ(seq.lastSequenceError(), "");
  std::string value;
  ASSERT_TRUE(instrument->channels().ReadChannel("HEATER", value));
  EXPECT_EQ(value, "20");
  Remove(sequence);
  Remove(rig);
}

// A server that greets and then answers nothing: each request it reads is
// handed to `heard` (on the server's thread).
testing::ScriptedServer::Reply Silent(std::function<void(const std::string&)> heard) {
  return [heard = std::move(heard)](const std::string& line) -> std::vector<std::string> {
    if (line.find(" HELLO") != std::string::npos)
      return {line.substr(0, line.find(' ')) + " 0 =TAVRIX-RIG 1\n"};
    heard(line);
    return {};
  };
}

// While a call waits for its response the run's loop goes on: a task posted
// meanwhile runs at once, the virtual clock stands still, the response time
// is real time, and a task that closes the link ends the wait.
TEST(TcpLink, WaitsForAResponseGoThroughTheRunsEventLoop) {
  VirtualClock clock(kStart);
  EventLoop events(clock);
  TcpLink* linkInUse = nullptr;
  bool ranDuringTheWait = false;
  bool closeTheLink = false;
  testing::ScriptedServer server(Silent([&](const std::string&) {
    events.post([&] {
      ranDuringTheWait = true;
      if (closeTheLink) linkInUse->closeInterface(1);
    });
  }));
  ASSERT_TRUE(server.listening()) << server.error();
  TcpLink link(clock, "127.0.0.1", server.port(), testFiles());
  link.useEventLoop(events);
  linkInUse = &link;
  int16_t handle = 0;
  ASSERT_EQ(link.openInterface(handle), link_result::kOk) << link.connectionProblem();
  std::string command(kCommandBufferLength, ' ');
  WriteBuffer(command, "REA TEMP1");
  const auto realStart = std::chrono::steady_clock::now();
  EXPECT_EQ(link.sendCommand(handle, 1, command, true), link_result::kNotReady);
  EXPECT_GE(std::chrono::steady_clock::now() - realStart,
            std::chrono::milliseconds(TcpLinkOptions{}.responseWaitMs));
  EXPECT_TRUE(ranDuringTheWait);
  EXPECT_EQ(clock.now(), kStart);

  ranDuringTheWait = false;
  closeTheLink = true;
  EXPECT_EQ(link.sendCommand(handle, 1, command, true), link_result::kLinkLost);
  EXPECT_TRUE(ranDuringTheWait);
}

TEST(RigProtocol, RequestsAndResponses) {
  RigServer server;
  RigSetup setup;
  std::string error;
  ASSERT_TRUE(ParseRigSetup(kRig, "rig.ims", setup, &error));
  server.model().load(std::move(setup));
  EXPECT_EQ(server.answer("1 HELLO"), "1 0 =TAVRIX-RIG 1");
  EXPECT_EQ(server.answer("2 SEND 1 5000000 WRI HEATER 5"), "2 0 =0");
  EXPECT_EQ(server.answer("3 SEND 2 5000000 REA SLOW"), "3 0");
  EXPECT_EQ(server.answer("4 REPLY 2 5000000"), "4 17");
  EXPECT_EQ(server.answer("5 ABORT 2"), "5 0");
  EXPECT_EQ(server.answer("6 REPLY 2 5000000"), "6 34");
  EXPECT_EQ(server.answer("7 MONITOR 1 =rig"), "7 0 =9000");
  EXPECT_EQ(server.answer("8 MONITOR 1 =rig"), "8 76");
  EXPECT_EQ(server.answer("9 SETUP =x.ims\tD 1\\n  10001 N=A\\n"),
            "9 0 =x\\nD 1\\r\\n  10001 N=A\\r\\n");
  EXPECT_EQ(server.answer("10 SETUP =x.ims\tgarbage"),
            "10 81 =x.ims line 1: not a channel line (too short)");
  EXPECT_EQ(server.answer("11 SEND one 2 REP"), "11 35 =unknown request");
  EXPECT_EQ(server.answer("12 FLY"), "12 35 =unknown request");

  RigResponse response;
  ASSERT_TRUE(ParseRigResponse("42 0 =a\\tb\\\\c\\n", response));
  EXPECT_EQ(response.id, 42u);
  EXPECT_EQ(response.code, 0);
  EXPECT_EQ(response.text, "a\tb\\c\n");
  ASSERT_TRUE(ParseRigResponse("43 17", response));
  EXPECT_FALSE(response.text.has_value());
  EXPECT_FALSE(ParseRigResponse("43 x", response));
  EXPECT_FALSE(ParseRigResponse("43 0 x", response));
  EXPECT_EQ(UnescapeField(EscapeField(std::string("a\r\n\t\\\0z", 7))),
            std::string("a\r\n\t\\\0z", 7));

  std::string host;
  uint16_t port = 0;
  EXPECT_TRUE(ParseHostPort("127.0.0.1:5025", host, port));
  EXPECT_EQ(host, "127.0.0.1");
  EXPECT_EQ(port, 5025);
  EXPECT_TRUE(ParseHostPort(":7", host, port));
  EXPECT_EQ(host, "127.0.0.1");
  EXPECT_FALSE(ParseHostPort("127.0.0.1:70000", host, port));
  EXPECT_FALSE(ParseHostPort("127.0.0.1", host, port));
  EXPECT_FALSE(ParseHostPort("h:", host, port));
}

TEST(RigServer, RunRigServerReportsBadSetupsAndAddresses) {
  const std::string bad = TempFile("badrig", "nonsense\n");
  std::FILE* log = std::tmpfile();
  ASSERT_NE(log, nullptr);
  std::atomic<bool> stop{true};
  const auto serve = [&](std::string listen, std::string setup) {
    RigServing serving;
    serving.listen = std::move(listen);
    serving.setupFile = std::move(setup);
    return RunRigServer(testFiles(), std::move(serving), log, &stop);
  };
  EXPECT_EQ(serve("127.0.0.1:0", bad), 2);
  EXPECT_EQ(serve("localhost:0", ""), 2);
  EXPECT_EQ(serve("127.0.0.1:0", ""), 0);
  std::rewind(log);
  std::string text;
  for (int c; (c = std::fgetc(log)) != EOF;) text += static_cast<char>(c);
  std::fclose(log);
  EXPECT_NE(text.find(bad + " line 1: a channel line starts"), std::string::npos) << text;
  EXPECT_NE(text.find("the host \"localhost\" is not an IPv4 address"), std::string::npos) << text;
  EXPECT_NE(text.find("serving an empty rig on 127.0.0.1:"), std::string::npos) << text;
  Remove(bad);
}

}  // namespace
}  // namespace tavrix
