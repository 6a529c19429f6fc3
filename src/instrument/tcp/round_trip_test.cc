// A command and its reply in one round trip: the link and a server that
// both speak the second protocol use SENDREPLY, an older server still gets
// SEND and REPLY, and a library behind the server sees the same calls
// either way. Responses are matched to their requests by id with several in
// flight, and a peer that goes away in the middle of an exchange ends it at
// once.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "instrument/tcp/library_service.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_protocol.h"
#include "instrument/tcp/rig_server.h"
#include "instrument/tcp/tcp_link.h"
#include "testing/socket_io.h"
#include "testing/stub_links.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

// A library whose devices answer each command with "echo:<command>" after
// `notReady` polls that are not ready yet; it logs every call it gets.
class EchoLibrary final : public StubLinkLibrary {
 public:
  int notReady = 0;

  std::vector<std::string> calls() {
    std::lock_guard guard(mutex_);
    return calls_;
  }
  int32_t interfaceVersion(int16_t, std::string& text) override {
    WriteBuffer(text, "echo");
    return 0;
  }
  int32_t sendCommand(int16_t, int16_t device, std::string_view command, bool) override {
    std::lock_guard guard(mutex_);
    last_[device] = std::string(BufferText(command));
    polls_[device] = notReady;
    calls_.push_back("send " + std::to_string(device) + " " + last_[device]);
    return 0;
  }
  int32_t getReply(int16_t, int16_t device, std::string& buffer, bool) override {
    std::lock_guard guard(mutex_);
    calls_.push_back("reply " + std::to_string(device));
    if (polls_[device]-- > 0) return link_result::kNotReady;
    WriteBuffer(buffer, "echo:" + last_[device]);
    return 0;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> calls_;
  std::string last_[100];
  int polls_[100] = {};
};

// The echo library behind a rig server with a key, as the bridge serves a
// library, speaking `protocol`.
class Bridge {
 public:
  explicit Bridge(int protocol) {
    auto owned = std::make_unique<EchoLibrary>();
    library = owned.get();
    auto service = std::make_unique<LibraryService>(std::move(owned), testFiles());
    std::string error;
    EXPECT_TRUE(service->open(&error)) << error;
    server_.serveLibrary(std::move(service));
    server_.requireKey(key);
    server_.speakProtocol(protocol);
    EXPECT_TRUE(server_.listen("127.0.0.1:0", &error)) << error;
    thread_ = std::thread([this] { server_.serve(stop_); });
  }
  ~Bridge() {
    stop_ = true;
    thread_.join();
  }
  std::unique_ptr<TcpLink> link(const Clock& clock) {
    auto link = std::make_unique<TcpLink>(clock, "127.0.0.1", server_.port(), testFiles(),
                                          TcpLinkOptions{.responseWaitMs = 5000});
    link->setKey(key);
    return link;
  }

  const std::string key = std::string(kNewKeyBytes, '\x21');
  EchoLibrary* library = nullptr;

 private:
  RigServer server_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string Command(std::string_view text) {
  std::string buffer(kCommandBufferLength, ' ');
  WriteBuffer(buffer, text);
  return buffer;
}

// Polls for a reply as the link layer does (without the wait between
// polls): each poll's result, and the reply.
std::vector<int32_t> PollReply(TcpLink& link, int16_t device, std::string& reply) {
  std::vector<int32_t> results;
  std::string buffer(kReplyBufferLength, ' ');
  int32_t result = link_result::kNotReady;
  while (result == link_result::kNotReady && results.size() < 10) {
    result = link.getReply(1, device, buffer, true);
    results.push_back(result);
  }
  reply = std::string(BufferText(buffer));
  return results;
}

TEST(RoundTrip, TheLibraryBehindTheServerSeesTheSameCallsWithEitherProtocol) {
  for (const int protocol : {1, 2}) {
    SCOPED_TRACE("a server of protocol " + std::to_string(protocol));
    Bridge bridge(protocol);
    bridge.library->notReady = 2;
    VirtualClock clock(kStart);
    auto link = bridge.link(clock);
    int16_t handle = 0;
    ASSERT_EQ(link->openInterface(handle), 0) << link->connectionProblem();
    EXPECT_EQ(link->protocol(), protocol);

    // A command without a reply to poll for is sent alone: no poll reaches
    // the library that the link layer did not make.
    EXPECT_EQ(link->sendCommand(handle, 4, Command("WRI FAN 5"), false), 0);
    // One with a reply: every poll's result is the library's, in order.
    EXPECT_EQ(link->sendCommand(handle, 4, Command("REA TEMP"), true), 0);
    std::string reply;
    EXPECT_EQ(PollReply(*link, 4, reply), (std::vector<int32_t>{17, 17, 0}));
    EXPECT_EQ(reply, "echo:REA TEMP");
    // A reply ready at once, on another device.
    bridge.library->notReady = 0;
    EXPECT_EQ(link->sendCommand(handle, 7, Command("REA \\ \t PRESS"), true), 0);
    EXPECT_EQ(PollReply(*link, 7, reply), (std::vector<int32_t>{0}));
    EXPECT_EQ(reply, "echo:REA \\ \t PRESS");
    // A reply that came with its command is given once: the next poll asks
    // the library again.
    EXPECT_EQ(PollReply(*link, 7, reply), (std::vector<int32_t>{0}));
    EXPECT_EQ(
        bridge.library->calls(),
        (std::vector<std::string>{"send 4 WRI FAN 5", "send 4 REA TEMP", "reply 4", "reply 4",
                                  "reply 4", "send 7 REA \\ \t PRESS", "reply 7", "reply 7"}));
    link->closeInterface(handle);
  }
}

// Eight links at once, each on a connection of its own and a device of its
// own: every reply is the one to its own command.
TEST(RoundTrip, RepliesGoToTheirOwnRequestsWithManyInFlight) {
  Bridge bridge(2);
  constexpr int kLinks = 8;
  constexpr int kExchanges = 200;
  std::atomic<int> wrong{0};
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kLinks; ++i) {
    threads.emplace_back([&, i] {
      SystemClock clock;
      auto link = bridge.link(clock);
      int16_t handle = 0;
      if (link->openInterface(handle) != 0) {
        ++wrong;
        return;
      }
      const auto device = static_cast<int16_t>(10 + i);
      for (int n = 0; n < kExchanges; ++n) {
        const std::string command = "REA L" + std::to_string(i) + "N" + std::to_string(n);
        std::string reply;
        if (link->sendCommand(handle, device, Command(command), true) != 0 ||
            PollReply(*link, device, reply) != std::vector<int32_t>{0} ||
            reply != "echo:" + command) {
          ++wrong;
        } else {
          ++done;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(done, kLinks * kExchanges);
}

// A peer that speaks the second protocol, scripted: `heard` gets each
// request line but HELLO and returns the lines to send back ("" ends the
// connection at once).
testing::ScriptedServer::Reply SecondProtocol(testing::ScriptedServer::Reply heard) {
  return [heard = std::move(heard)](const std::string& line) -> std::vector<std::string> {
    const std::string id = line.substr(0, line.find(' '));
    if (line == id + " HELLO 2") return {id + " 0 =TAVRIX-RIG 2\n"};
    return heard(line);
  };
}

// The request's id and its command (the text after the device and time).
std::pair<std::string, std::string> IdAndCommand(const std::string& line) {
  size_t at = 0;
  for (int blanks = 0; blanks < 4 && at != std::string::npos; ++blanks) at = line.find(' ', at + 1);
  return {line.substr(0, line.find(' ')), at == std::string::npos ? "" : line.substr(at + 1)};
}

// While one request waits for its response, a task of the run makes a
// request of its own on the same connection; the peer answers the second
// first. Each gets its own response.
TEST(RoundTrip, ResponsesOutOfOrderOnOneConnectionReachTheirOwnRequests) {
  SystemClock clock;
  EventLoop events(clock);
  TcpLink* link = nullptr;
  std::string firstId;
  std::string nestedReply;
  int32_t nestedResult = -1;
  testing::ScriptedServer peer(
      SecondProtocol([&](const std::string& line) -> std::vector<std::string> {
        const auto [id, command] = IdAndCommand(line);
        if (command == "REA FIRST") {
          firstId = id;
          events.post([&] {
            nestedResult = link->sendCommand(1, 2, Command("REA SECOND"), true);
            std::string buffer(kReplyBufferLength, ' ');
            if (nestedResult == 0) nestedResult = link->getReply(1, 2, buffer, true);
            nestedReply = std::string(BufferText(buffer));
          });
          return {};
        }
        return {id + " 0 =0:two\n", firstId + " 0 =0:one\n"};
      }));
  ASSERT_TRUE(peer.listening()) << peer.error();
  TcpLink own(clock, "127.0.0.1", peer.port(), testFiles(),
              TcpLinkOptions{.responseWaitMs = 10'000});
  link = &own;
  own.useEventLoop(events);
  int16_t handle = 0;
  ASSERT_EQ(own.openInterface(handle), 0) << own.connectionProblem();
  ASSERT_EQ(own.protocol(), 2);
  EXPECT_EQ(own.sendCommand(handle, 1, Command("REA FIRST"), true), 0);
  std::string reply;
  EXPECT_EQ(PollReply(own, 1, reply), (std::vector<int32_t>{0}));
  EXPECT_EQ(reply, "one");
  EXPECT_EQ(nestedResult, 0);
  EXPECT_EQ(nestedReply, "two");
}

// A peer that closes the connection in the middle of an exchange, or cuts a
// response short, or answers a command with something that is no reply:
// the link is lost at once (not "not ready", which would be polled until
// the reply time-out), and stays lost without waiting.
TEST(RoundTrip, APeerThatGoesAwayMidExchangeLosesTheLinkAtOnce) {
  const std::vector<
      std::pair<std::string, std::function<std::vector<std::string>(const std::string&)>>>
      peers = {
          {"closes", [](const std::string&) { return std::vector<std::string>{""}; }},
          {"cuts short",
           [](const std::string& line) {
             return std::vector<std::string>{IdAndCommand(line).first + " 0 =0:hal", ""};
           }},
          {"answers nonsense",
           [](const std::string& line) {
             return std::vector<std::string>{IdAndCommand(line).first + " 0 =what\n"};
           }},
      };
  for (const auto& [what, heard] : peers) {
    SCOPED_TRACE("a peer that " + what);
    testing::ScriptedServer peer(SecondProtocol(heard));
    ASSERT_TRUE(peer.listening()) << peer.error();
    SystemClock clock;
    // Long enough that a wait for the response would not end by itself
    // within the test's time.
    TcpLink link(clock, "127.0.0.1", peer.port(), testFiles(),
                 TcpLinkOptions{.responseWaitMs = 20'000});
    int16_t handle = 0;
    ASSERT_EQ(link.openInterface(handle), 0) << link.connectionProblem();
    EXPECT_EQ(link.sendCommand(handle, 3, Command("REA X"), true), link_result::kLinkLost);
    std::string buffer(kReplyBufferLength, ' ');
    EXPECT_EQ(link.getReply(handle, 3, buffer, true), link_result::kLinkLost);
    EXPECT_EQ(link.sendCommand(handle, 3, Command("REA X"), true), link_result::kLinkLost);
    if (what == "answers nonsense") {
      EXPECT_NE(
          link.connectionProblem().find("answered a command with \"what\", which is no reply"),
          std::string::npos)
          << link.connectionProblem();
    }
  }
}

TEST(RoundTrip, SendReplyTexts) {
  int32_t code = -1;
  std::string reply = "old";
  EXPECT_TRUE(ParseSendReplyText(SendReplyText(0, "a:b"), code, reply));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(reply, "a:b");
  EXPECT_TRUE(ParseSendReplyText(SendReplyText(0, ""), code, reply));
  EXPECT_EQ(reply, "");
  EXPECT_TRUE(ParseSendReplyText(SendReplyText(17, "ignored"), code, reply));
  EXPECT_EQ(code, 17);
  for (const char* bad : {"", "x", "0", "17:text", ":a", "0 a"}) {
    EXPECT_FALSE(ParseSendReplyText(bad, code, reply)) << bad;
  }
}

}  // namespace
}  // namespace tavrix
