#include "instrument/link/iml_link.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "common/civil_time.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

// A link library whose answers each test scripts.
class FakeLibrary : public LinkLibrary {
 public:
  std::vector<std::string> calls;
  int32_t openResult = 0;
  int32_t setupVersion = 6;
  std::string directory;
  std::function<int32_t(int16_t device, std::string_view buffer)> onSend =
      [](int16_t, std::string_view) { return 0; };
  std::function<int32_t(int16_t device, std::string& text)> onReply = [](int16_t,
                                                                         std::string& text) {
    text = "0";
    return 0;
  };

  int32_t openInterface(int16_t& handle) override {
    calls.push_back("open");
    handle = 7;
    return openResult;
  }
  int32_t closeInterface(int16_t handle) override {
    calls.push_back("close " + std::to_string(handle));
    return 0;
  }
  int32_t interfaceVersion(int16_t, std::string& text) override {
    calls.push_back("version");
    WriteBuffer(text, "fake 1");
    return 0;
  }
  int32_t sendCommand(int16_t, int16_t device, std::string_view command, bool wait) override {
    calls.push_back("send " + std::to_string(device) + " " + std::string(BufferText(command)) +
                    (wait ? " wait" : ""));
    lastBuffer = std::string(command);
    return onSend(device, command);
  }
  int32_t getReply(int16_t, int16_t device, std::string& buffer, bool) override {
    ++replyPolls;
    if (writeRaw) return writeRaw(device, buffer);
    std::string text;
    const int32_t result = onReply(device, text);
    if (result == 0) WriteBuffer(buffer, text);
    return result;
  }
  bool writesOnlyTheReply() const override { return onlyTheReply; }
  // When set, replaces onReply and writes into the buffer as it likes, as a
  // vendor library may.
  std::function<int32_t(int16_t device, std::string& buffer)> writeRaw;
  bool onlyTheReply = false;
  int32_t abortReply(int16_t, int16_t device) override {
    calls.push_back("abort " + std::to_string(device));
    return 0;
  }
  int32_t millisecondCount() override { return 0; }
  int32_t dirPath(std::string& path) override {
    path = directory;
    return 0;
  }
  int32_t setupLibVersion(std::string& text) override {
    calls.push_back("imsversion");
    WriteBuffer(text, "fake ims");
    return setupVersion;
  }
  int32_t loadAndLockSetup(const std::string&, int32_t, SetupLoad&) override { return 0; }
  int32_t unlockSetup(std::string_view name, int16_t) override {
    calls.push_back("unlock [" + std::string(name) + "]");
    return 0;
  }
  int32_t requestMonitorChannel(std::string_view, MonitorChannelRecord&) override { return 0; }

  std::string lastBuffer;
  int replyPolls = 0;
};

struct LinkFixture : ::testing::Test {
  VirtualClock clock{*parseDateTime("2024-03-01 10:00:00")};
  EventLoop events{clock};
  Trace trace{clock};
  FakeLibrary library;
  ImlLink link{library, events, &trace};
};

TEST_F(LinkFixture, OpenAndCloseCallTheLibrariesOnlyWithHardware) {
  link.configure({.noHardware = true});
  EXPECT_TRUE(link.OpenLink());
  EXPECT_TRUE(link.CloseLink());
  EXPECT_TRUE(library.calls.empty());

  link.configure({});
  EXPECT_TRUE(link.OpenLink());
  EXPECT_TRUE(link.setupLibraryLoaded());
  EXPECT_EQ(link.handle(), 7);
  link.setupLoaded("RIG");
  EXPECT_TRUE(link.CloseLink());
  EXPECT_EQ(library.calls,
            (std::vector<std::string>{"open", "version", "imsversion",
                                      "unlock [RIG" + std::string(77, ' ') + "]", "close 7"}));

  // A link that does not open records the library's result.
  library.openResult = 5;
  EXPECT_FALSE(link.OpenLink());
  EXPECT_EQ(link.lastErrorNumber(), 5);
  EXPECT_EQ(link.lastErrorText(), "IML error:  5");

  // A setup library older than version 5 cannot be used.
  library.openResult = 0;
  library.setupVersion = 4;
  EXPECT_FALSE(link.OpenLink());
  EXPECT_EQ(link.lastErrorNumber(), 74);
  EXPECT_EQ(link.lastErrorText(), "IML error:  74");
}

TEST_F(LinkFixture, SendPlacesTheCommandInA199CharacterBufferAndRetriesWhileNotReady) {
  ASSERT_TRUE(link.IMLSendCommand(3, "WRI TEMP1 5", false));
  ASSERT_EQ(library.lastBuffer.size(), 199u);
  EXPECT_EQ(library.lastBuffer.substr(0, 12), std::string("WRI TEMP1 5") + '\0');
  EXPECT_EQ(library.lastBuffer.find_first_not_of(' ', 12), std::string::npos);

  // An over-long command is cut to 199 characters.
  const std::string longCommand = "WRI TEMP1 " + std::string(300, '9');
  ASSERT_TRUE(link.IMLSendCommand(3, longCommand, false));
  EXPECT_EQ(library.lastBuffer, longCommand.substr(0, 199));

  // Not ready three times, then taken: one poll interval between tries.
  int tries = 0;
  library.onSend = [&](int16_t, std::string_view) { return ++tries < 4 ? 17 : 0; };
  const Micros start = clock.now();
  EXPECT_TRUE(link.IMLSendCommand(3, "REP", true));
  EXPECT_EQ(tries, 4);
  EXPECT_EQ(clock.now() - start, 3 * kDefaultPollInterval);

  // With the reply time-out, a device that never takes the command is given
  // up once more than the time-out has passed.
  library.onSend = [](int16_t, std::string_view) { return 17; };
  link.configure({.useReplyTimeout = true, .replyTimeoutSecs = 2});
  const Micros before = clock.now();
  EXPECT_FALSE(link.IMLSendCommand(3, "REP", true));
  EXPECT_TRUE(link.timedOut());
  EXPECT_GE(clock.now() - before, 3 * kMicrosPerSecond);
  EXPECT_LT(clock.now() - before, 4 * kMicrosPerSecond);
  EXPECT_EQ(link.lastErrorNumber(), 1504);
  EXPECT_EQ(link.lastErrorText(), "IMLsend error, ret = 17");

  // Other results fail at once; with IgnoreLinkErrors nothing is recorded.
  library.onSend = [](int16_t, std::string_view) { return -3; };
  EXPECT_FALSE(link.IMLSendCommand(3, "REP", true));
  EXPECT_FALSE(link.timedOut());
  EXPECT_EQ(link.lastErrorText(), "IMLsend error, ret =-3");
  link.configure({.useReplyTimeout = true, .replyTimeoutSecs = 2, .ignoreLinkErrors = true});
  link.clearError();
  EXPECT_FALSE(link.IMLSendCommand(3, "REP", true));
  EXPECT_EQ(link.lastErrorText(), "");
}

TEST_F(LinkFixture, ReplyIsAbandonedOnlyAfter2000PollsAndTheTimeOut) {
  link.configure({.useReplyTimeout = true, .replyTimeoutSecs = 5});

  // Not ready for 10 s (1000 polls at 10 ms) with a 5 s time-out: waited for.
  int notReady = 1000;
  library.onReply = [&](int16_t, std::string& text) {
    if (notReady-- > 0) return 17;
    text = "12.5";
    return 0;
  };
  std::string reply;
  const Micros start = clock.now();
  ASSERT_TRUE(link.IMLGetReply(1, reply));
  EXPECT_EQ(BufferText(reply), "12.5");
  EXPECT_EQ(reply, std::string("12.5") + '\0');  // the library's NUL stays
  EXPECT_EQ(clock.now() - start, 10 * kMicrosPerSecond);
  EXPECT_FALSE(link.timedOut());

  // Never ready: given up at poll 2001, aborted, no error recorded.
  library.replyPolls = 0;
  library.onReply = [](int16_t, std::string&) { return 17; };
  reply.clear();
  EXPECT_FALSE(link.IMLGetReply(1, reply));
  EXPECT_EQ(library.replyPolls, 2001);
  EXPECT_TRUE(link.timedOut());
  EXPECT_EQ(library.calls.back(), "abort 1");
  EXPECT_EQ(link.lastErrorNumber(), 0);

  // With a long time-out, 2001 polls are not enough: the time-out must pass too.
  link.configure({.useReplyTimeout = true, .replyTimeoutSecs = 60});
  library.replyPolls = 0;
  const Micros before = clock.now();
  EXPECT_FALSE(link.IMLGetReply(1, reply));
  EXPECT_GT(clock.now() - before, 60 * kMicrosPerSecond);
  EXPECT_GT(library.replyPolls, 6000);

  // 30 keeps polling; any other result is a receive error.
  int pending = 2;
  library.onReply = [&](int16_t, std::string& text) {
    if (pending-- > 0) return 30;
    text = "ok";
    return 0;
  };
  reply.clear();
  EXPECT_TRUE(link.IMLGetReply(1, reply));
  library.onReply = [](int16_t, std::string&) { return 8; };
  EXPECT_FALSE(link.IMLGetReply(1, reply));
  EXPECT_EQ(link.lastErrorNumber(), 1503);
  EXPECT_EQ(link.lastErrorText(), "IMLreceive error, ret = 8");
}

TEST_F(LinkFixture, SendReceiveAndTheRepCheck) {
  std::vector<std::string> replies = {"0"};
  library.onReply = [&](int16_t, std::string& text) {
    text = replies.front();
    if (replies.size() > 1) replies.erase(replies.begin());
    return 0;
  };
  EXPECT_TRUE(link.IMLCheckReply(2));
  EXPECT_EQ(library.calls.back(), "send 2 REP wait");

  replies = {"12 bad channel"};
  EXPECT_FALSE(link.IMLCheckReply(2));
  EXPECT_EQ(link.lastErrorNumber(), 12);
  EXPECT_EQ(link.lastErrorText(), "IML error - 12 bad channel");

  // A reply that fails is asked for again by sending the command again.
  int fetches = 0;
  library.onReply = [&](int16_t, std::string& text) {
    if (++fetches == 1) return 8;
    text = "0";
    return 0;
  };
  std::string reply;
  EXPECT_TRUE(link.IMLSendReceive(2, "REP", reply));
  EXPECT_EQ(fetches, 2);

  // A device that takes no command cannot be talked to.
  library.onSend = [](int16_t, std::string_view) { return 5; };
  EXPECT_FALSE(link.IMLSendReceive(4, "REP", reply));
  EXPECT_EQ(link.lastErrorNumber(), 1501);
  EXPECT_EQ(link.lastErrorText(), "IML error - unable to talk to device: 4");

  // A reply that times out is asked for again, each time with its own
  // time-out (2000 polls of 10 ms, and at least 30 s), without limit: the
  // device that answers only the fourth command is waited for.
  int sends = 0;
  library.onSend = [&](int16_t, std::string_view) {
    ++sends;
    return 0;
  };
  library.onReply = [&](int16_t, std::string& text) {
    if (sends < 4) return 17;
    text = "0";
    return 0;
  };
  link.configure({.replyTimeoutSecs = 30});
  Micros start = clock.now();
  EXPECT_TRUE(link.IMLSendReceive(4, "REP", reply));
  EXPECT_EQ(sends, 4);
  EXPECT_GT(clock.now() - start, 3 * 30 * kMicrosPerSecond);
  EXPECT_LT(clock.now() - start, 3 * 32 * kMicrosPerSecond);

  // A device that never answers never gives a reply; only a Stop ends the
  // repetition, with the same error.
  sends = 0;
  library.onReply = [](int16_t, std::string&) { return 17; };
  bool stop = false;
  link.giveUpWaitsWhen([&] { return stop; });
  Timer stopper(events, 1000 * kMicrosPerSecond, [&] { stop = true; });
  stopper.setEnabled(true);
  start = clock.now();
  EXPECT_FALSE(link.IMLSendReceive(4, "REP", reply));
  EXPECT_EQ(link.lastErrorText(), "IML error - unable to talk to device: 4");
  EXPECT_GE(sends, 30);
  EXPECT_LT(clock.now() - start, 1001 * kMicrosPerSecond);
}

// The reply buffer is kept from one exchange to the next and blanked only
// where a reply wrote: whatever a library leaves in it, each reply reads as
// if the buffer had been all blanks, and nothing of an earlier reply shows.
TEST_F(LinkFixture, EachReplyReadsAsIfTheBufferWereFreshlyBlanked) {
  auto ask = [&](int16_t device) {
    std::string reply;
    EXPECT_TRUE(link.IMLGetReply(device, reply));
    return reply;
  };
  for (const bool onlyTheReply : {false, true}) {
    SCOPED_TRACE(onlyTheReply ? "a library that writes only the reply" : "any library");
    library.onlyTheReply = onlyTheReply;
    library.writeRaw = nullptr;
    library.onReply = [](int16_t, std::string& text) {
      text = "a reply of some length, longer than the next";
      return 0;
    };
    EXPECT_EQ(ask(1), std::string("a reply of some length, longer than the next") + '\0');
    library.onReply = [](int16_t, std::string& text) {
      text = "7  ";
      return 0;
    };
    EXPECT_EQ(ask(1), std::string("7  ") + '\0');
    // A reply that fills the whole buffer has no NUL and loses its blanks.
    library.onReply = [](int16_t, std::string& text) {
      text = std::string(kReplyBufferLength - 3, 'x') + "   ";
      return 0;
    };
    EXPECT_EQ(ask(1), std::string(kReplyBufferLength - 3, 'x'));
    EXPECT_EQ(ask(1), std::string(kReplyBufferLength - 3, 'x'));
    library.onReply = [](int16_t, std::string& text) {
      text = "5";
      return 0;
    };
    EXPECT_EQ(ask(1), std::string("5") + '\0');
  }
  // A vendor library that writes after the NUL: the reply runs to its last
  // non-blank, and the next reply shows none of it.
  library.onlyTheReply = false;
  library.writeRaw = [](int16_t, std::string& buffer) {
    buffer.replace(0, 9, std::string("12.5\0xyz ", 9));
    buffer.replace(100, 3, "end");
    return 0;
  };
  EXPECT_EQ(ask(1), std::string("12.5\0xyz", 8) + std::string(92, ' ') + "end");
  library.writeRaw = nullptr;
  EXPECT_EQ(ask(1), std::string("5") + '\0');
  // A library that lets events run inside its call while a timer exchanges
  // with another device: each gets its own reply.
  std::string inner;
  Timer display(events, 1, [&] {
    std::string value;
    if (link.IMLSendCommand(2, "REA T2", true) && link.IMLGetReply(2, value)) inner = value;
  });
  library.writeRaw = [&](int16_t device, std::string& buffer) {
    if (device == 1) {
      display.setEnabled(true);
      clock.advanceBy(1);
      events.processPendingEvents();
      display.setEnabled(false);
    }
    WriteBuffer(buffer, device == 1 ? "outer" : "the inner reply, longer than the outer");
    return 0;
  };
  EXPECT_EQ(ask(1), std::string("outer") + '\0');
  EXPECT_EQ(inner, std::string("the inner reply, longer than the outer") + '\0');
}

TEST_F(LinkFixture, WaitsLetTimersRunAndExchangesMayNest) {
  // The reply to device 1 stays not ready for 50 polls; meanwhile a timer
  // asks device 2 for a value, as a channel display would.
  int device1Polls = 0;
  library.onReply = [&](int16_t device, std::string& text) {
    if (device == 1 && device1Polls++ < 50) return 17;
    text = device == 1 ? "outer" : "inner";
    return 0;
  };
  std::vector<std::string> innerReplies;
  Timer display(events, 100'000, [&] {
    std::string value;
    if (link.IMLSendCommand(2, "REA T2", true) && link.IMLGetReply(2, value)) {
      innerReplies.emplace_back(BufferText(value));
    }
  });
  display.setEnabled(true);
  std::string reply;
  ASSERT_TRUE(link.IMLSendCommand(1, "REA T1", true));
  ASSERT_TRUE(link.IMLGetReply(1, reply));
  EXPECT_EQ(BufferText(reply), "outer");
  EXPECT_EQ(innerReplies, (std::vector<std::string>(5, "inner")));

  // A stop ends a wait that would otherwise last for ever.
  bool stop = false;
  link.giveUpWaitsWhen([&] { return stop; });
  library.onSend = [](int16_t, std::string_view) { return 17; };
  events.post([&] { stop = true; });
  link.configure({});
  EXPECT_FALSE(link.IMLSendCommand(1, "REA T1", true));
  EXPECT_TRUE(link.timedOut());
}

TEST_F(LinkFixture, EveryExchangeIsTracedWhenTheTraceIsOn) {
  MemoryFileSystem files;
  const std::string path = "/data/iml_trace.jsonl";
  trace.setOutput(files.create(path, nullptr));
  trace.setOrigin(clock.now());
  library.onReply = [](int16_t, std::string& text) {
    text = "21.5";
    return 0;
  };
  link.IMLSendCommand(1, "WRI HEATER 5", false);
  std::string reply;
  link.IMLSendCommand(1, "REA TEMP1", true);
  link.IMLGetReply(1, reply);
  library.onSend = [](int16_t, std::string_view) { return 9; };
  link.IMLSendCommand(1, "REA TEMP1", true);
  trace.setOutput(nullptr);
  link.IMLSendCommand(1, "WRI HEATER 6", false);  // trace off: nothing written

  std::string text;
  ASSERT_TRUE(files.readFile(path, text, nullptr));
  EXPECT_EQ(
      text,
      "{\"t\":0.000,\"ev\":\"iml\",\"dev\":1,\"cmd\":\"WRI HEATER 5\",\"reply\":null}\n"
      "{\"t\":0.000,\"ev\":\"iml\",\"dev\":1,\"cmd\":\"REA TEMP1\",\"reply\":\"21.5\"}\n"
      "{\"t\":0.000,\"ev\":\"iml\",\"dev\":1,\"cmd\":\"REA TEMP1\",\"reply\":null,\"ret\":9}\n");
}

TEST_F(LinkFixture, ErrorTextsDirectoriesAndReplyFields) {
  link.SetIMLError(23);
  EXPECT_EQ(link.lastErrorNumber(), 23);
  EXPECT_EQ(link.lastErrorText(), "IML error:  23");

  const Micros start = clock.now();
  clock.advanceBy(2'999'999);
  EXPECT_EQ(link.ElapsedSeconds(start), 2.0f);

  EXPECT_EQ(link.GetSetupsDirectory(), "c:\\corvane\\setups");
  EXPECT_EQ(link.GetDataDirectory(), "c:\\corvane\\data");
  library.directory = "d:";
  EXPECT_EQ(link.GetSetupsDirectory(), "d:\\setups");
  library.directory = "e:\\rig\\";
  EXPECT_EQ(link.GetDataDirectory(), "e:\\rig\\data");
  link.configure({.noHardware = true});
  EXPECT_EQ(link.GetDataDirectory(), "c:\\corvane\\data");

  EXPECT_EQ(ReplyField("E=1 M=A N=TEMP1 U=degC O=0", "N=", " "), "TEMP1");
  EXPECT_EQ(ReplyField("E=1 M=A N=TEMP1 U=degC O=-2.5", "O=", " "), "-2.5");
  EXPECT_EQ(ReplyField("E=1 M=A", "N=", " "), " ");
  EXPECT_EQ(ReplyField("E=1 N= M=A", "N=", " "), " ");
  EXPECT_EQ(ReplyField("A=1;B= two ;C=3", "B=", ";"), "two");
}

}  // namespace
}  // namespace tavrix
