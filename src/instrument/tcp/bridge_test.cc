// A rig server with a key: only links that hold the same key are served,
// whatever a client without it sends, and a recorded handshake does not
// open the door a second time. Also a link library other than the built-in
// rig served over TCP.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include "common/file_system.h"
#include "instrument/backends/link_backends.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/simrig/sim_link.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_protocol.h"
#include "instrument/tcp/rig_server.h"
#include "instrument/tcp/tcp_link.h"
#include "platform/files.h"
#include "platform/private_file.h"
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
    "D 1\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10023 E=1 M=A N=TEMP1 U=degC V=20 FOLLOW=HEATER LAG=10\n"
    "D 2 NOTREADY=3\n"
    "  20001 E=1 N=SLOW V=3\n";

ScratchFolder& Scratch() {
  static ScratchFolder folder;
  return folder;
}

std::string Path(const std::string& stem) {
  static int files = 0;
  return Scratch().file(stem + std::to_string(++files));
}

std::string TempFile(const std::string& stem, std::string_view text) {
  const std::string path = Path(stem);
  EXPECT_TRUE(testFiles().writeAtomically(path, text, nullptr));
  return path;
}

std::string NewKeyFile() {
  const std::string path = Path("key");
  std::string error;
  EXPECT_TRUE(WriteNewLinkKey(path, &error)) << error;
  return path;
}

std::string KeyOf(const std::string& keyFile) {
  std::string key;
  std::string error;
  EXPECT_TRUE(LoadLinkKey(testFiles(), keyFile, key, &error)) << error;
  return key;
}

// A rig server on a free loopback port, served by a thread, that keeps what
// it logs.
class Bridge {
 public:
  explicit Bridge(std::string key, std::unique_ptr<LibraryService> library = nullptr) {
    std::string error;
    EXPECT_TRUE(server_.listen("127.0.0.1:0", &error)) << error;
    server_.requireKey(std::move(key));
    if (library) server_.serveLibrary(std::move(library));
    server_.setClock([this] { return nowMs_.load(); });
    server_.setLog([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      log_ += line + "\n";
    });
    thread_ = std::thread([this] { server_.serve(stop_); });
  }
  ~Bridge() {
    stop_ = true;
    thread_.join();
  }
  std::string link() const { return "tcp://127.0.0.1:" + std::to_string(server_.port()); }
  uint16_t port() const { return server_.port(); }
  std::string log() {
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
  }
  void advanceMs(int64_t ms) { nowMs_ += ms; }

 private:
  RigServer server_;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> nowMs_{0};
  std::mutex mutex_;
  std::string log_;
  std::thread thread_;
};

// A plain client of the protocol, for what a link would never send.
class RawClient {
 public:
  explicit RawClient(uint16_t port) : socket_(platform::connectTcp("127.0.0.1", port, 5000)) {
    EXPECT_NE(socket_, platform::kNoSocket);
  }
  ~RawClient() { platform::closeSocket(socket_); }
  void send(std::string_view text) { testing::SendAll(socket_, text); }
  // The next line, without its end; "<closed>" at the end of the stream.
  std::string line() {
    std::string line;
    char c = 0;
    for (;;) {
      if (testing::ReadByte(socket_, c, 30'000) != testing::Read::kByte) {
        return line.empty() ? "<closed>" : line;
      }
      if (c == '\n') return line;
      line += c;
    }
  }
  std::string ask(std::string_view request) {
    send(std::string(request) + "\n");
    return line();
  }

 private:
  platform::Socket socket_;
};

// The lines a link with `key` sends in the key check, as they were sent.
struct Handshake {
  std::string keyLine;
  std::string proofLine;
};
Handshake PassKeyCheck(RawClient& client, const std::string& key) {
  const std::string nonce = NewNonce();
  Handshake sent{"1 KEY " + nonce, ""};
  const std::string answer = client.ask(sent.keyLine);
  EXPECT_EQ(answer.substr(0, 5), "1 0 =") << answer;
  const std::string serverNonce = answer.substr(5, 64);
  EXPECT_TRUE(SameProof(answer.substr(70), ServerProof(key, nonce, serverNonce))) << answer;
  sent.proofLine = "2 PROOF " + LinkProof(key, serverNonce, nonce);
  EXPECT_EQ(client.ask(sent.proofLine), "2 0");
  return sent;
}

using RunResult = testing::LinkRun;

// Runs a sequence on `clock` over `link` with the trace on.
RunResult RunOver(VirtualClock& clock, const std::string& link, const std::string& keyFile,
                  const std::vector<std::string>& lines) {
  InstrumentSettings settings;
  settings.replyTimeoutSecs = 5;
  settings.linkKeyFile = keyFile;
  return testing::RunSequenceOver(clock, Scratch().path(), link, settings, lines);
}

// The problem a TCP link reports when it does not open.
std::string OpenProblem(uint16_t port, const std::string& key) {
  VirtualClock clock(kStart);
  TcpLink link(clock, "127.0.0.1", port, testFiles());
  link.setKey(key);
  int16_t handle = 0;
  EXPECT_EQ(link.openInterface(handle), link_result::kLinkLost);
  return link.connectionProblem();
}

TEST(LinkKey, KeyFilesHoldHexDigitsAndStayPrivate) {
  std::string key;
  std::string why;
  EXPECT_TRUE(ParseLinkKey("# rig 3\n00112233 44556677\r\n8899aabbccddEEFF\n", key, &why)) << why;
  EXPECT_EQ(key,
            std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16));
  EXPECT_FALSE(ParseLinkKey("0011223344556677", key, &why));
  EXPECT_EQ(why, "the key must have 32 to 256 hex digits, not 16");
  EXPECT_FALSE(ParseLinkKey("00112233445566778899aabbccddeeff0", key, &why));
  EXPECT_EQ(why, "the key has an odd number of hex digits");
  EXPECT_FALSE(ParseLinkKey("secret-secret-secret-secret-secret", key, &why));
  EXPECT_EQ(why, "the key must be written as hex digits (0-9, a-f)");
  EXPECT_FALSE(ParseLinkKey("", key, &why));

  // A new key file is private, loads, differs from the next one and is not
  // made over an existing file.
  const std::string made = NewKeyFile();
  const std::string other = NewKeyFile();
  EXPECT_EQ(KeyOf(made).size(), kNewKeyBytes);
  EXPECT_NE(KeyOf(made), KeyOf(other));
  std::string error;
  EXPECT_FALSE(WriteNewLinkKey(made, &error));
  EXPECT_NE(error.find("cannot make the key file " + made), std::string::npos) << error;

  // A key that others may read is refused, and so is a missing file. (On
  // Windows a file's privacy is its folder's access list, not permission
  // bits: there the key loads.)
  const std::string shared = TempFile("shared", "00112233445566778899aabbccddeeff\n");
  std::filesystem::permissions(shared, std::filesystem::perms::owner_read |
                                           std::filesystem::perms::owner_write |
                                           std::filesystem::perms::group_read);
  const bool permissionBits = !platform::hasDriveLetters();
  EXPECT_EQ(platform::othersMayAccess(shared), permissionBits);
  EXPECT_EQ(LoadLinkKey(testFiles(), shared, key, &error), !permissionBits);
  if (permissionBits) {
    EXPECT_EQ(error, "the key file " + shared +
                         " may be read by other users; make it private (chmod 600) and try again");
  }
  std::filesystem::permissions(shared, std::filesystem::perms::group_read,
                               std::filesystem::perm_options::remove);
  EXPECT_TRUE(LoadLinkKey(testFiles(), shared, key, &error)) << error;
  EXPECT_FALSE(LoadLinkKey(testFiles(), Path("missing"), key, &error));
  EXPECT_NE(error.find("cannot read the key file"), std::string::npos);

  // The two proofs differ, depend on both nonces and on the key.
  const std::string a = NewNonce();
  const std::string b = NewNonce();
  EXPECT_TRUE(IsNonce(a));
  EXPECT_NE(a, b);
  EXPECT_NE(ServerProof("k1k1k1k1k1k1k1k1", a, b), LinkProof("k1k1k1k1k1k1k1k1", a, b));
  EXPECT_NE(ServerProof("k1k1k1k1k1k1k1k1", a, b), ServerProof("k1k1k1k1k1k1k1k1", b, a));
  EXPECT_NE(ServerProof("k1k1k1k1k1k1k1k1", a, b), ServerProof("k2k2k2k2k2k2k2k2", a, b));
  EXPECT_TRUE(SameProof(ServerProof("k", a, b), ServerProof("k", a, b)));
  EXPECT_FALSE(SameProof("", ""));
}

TEST(Bridge, OnlyALinkWithTheSameKeyIsServed) {
  const std::string key = KeyOf(NewKeyFile());
  Bridge bridge(key);

  // No key: the server's refusal is the link's problem, and the server logs
  // the refused peer.
  EXPECT_EQ(OpenProblem(bridge.port(), ""),
            "the bridge at 127.0.0.1:" + std::to_string(bridge.port()) +
                " refused the link: this rig server needs a key (--link-key); the connection is "
                "closed");
  EXPECT_NE(bridge.log().find("refused 127.0.0.1:"), std::string::npos) << bridge.log();
  EXPECT_NE(bridge.log().find(": it has no key"), std::string::npos) << bridge.log();

  // A wrong key: both sides see that the keys differ.
  EXPECT_EQ(OpenProblem(bridge.port(), KeyOf(NewKeyFile())),
            "the bridge at 127.0.0.1:" + std::to_string(bridge.port()) +
                " refused the key: the two sides' keys differ");
  EXPECT_NE(bridge.log().find(": its key is not this server's key"), std::string::npos)
      << bridge.log();

  // The right key opens the link.
  VirtualClock clock(kStart);
  TcpLink link(clock, "127.0.0.1", bridge.port(), testFiles());
  link.setKey(key);
  int16_t handle = 0;
  EXPECT_EQ(link.openInterface(handle), link_result::kOk) << link.connectionProblem();
  std::string version(kVersionBufferLength, ' ');
  EXPECT_EQ(link.interfaceVersion(handle, version), link_result::kOk);
  EXPECT_EQ(BufferText(version), kRigInterfaceVersion);

  // A link with a key does not use a server without one: it could be anyone.
  Bridge open("");
  EXPECT_EQ(OpenProblem(open.port(), key),
            "the rig server at 127.0.0.1:" + std::to_string(open.port()) +
                " asks for no key; a link with a key does not use a server that cannot prove it");
}

TEST(Bridge, NothingButTheKeyCheckGetsThroughBeforeIt) {
  const std::string key = KeyOf(NewKeyFile());
  Bridge bridge(key);
  const std::string refusal =
      "0 39 =this rig server needs a key (--link-key); the connection is closed";
  {
    // A recorded handshake replayed: the server's nonce is new, so the old
    // proof does not pass.
    RawClient first(bridge.port());
    const Handshake recorded = PassKeyCheck(first, key);
    EXPECT_EQ(first.ask("3 HELLO"), "3 0 =TAVRIX-RIG 1");
    RawClient replay(bridge.port());
    EXPECT_EQ(replay.ask(recorded.keyLine).substr(0, 5), "1 0 =");
    EXPECT_EQ(replay.ask(recorded.proofLine),
              "0 39 =the bridge refused the key; the connection is closed");
    EXPECT_EQ(replay.line(), "<closed>");
  }
  for (const std::string& garbage :
       {std::string("3 HELLO"), std::string("GET / HTTP/1.1"), std::string("1 KEY 1234"),
        std::string("1 PROOF 00"), std::string("\x16\x03\x01\x02", 4), std::string(600, 'x')}) {
    RawClient client(bridge.port());
    client.send(garbage + "\n");
    EXPECT_EQ(client.line(), refusal) << garbage.substr(0, 20);
    EXPECT_EQ(client.line(), "<closed>");
  }
  {
    // A second KEY after the first is not a way round the check.
    RawClient client(bridge.port());
    EXPECT_EQ(client.ask("1 KEY " + NewNonce()).substr(0, 5), "1 0 =");
    EXPECT_EQ(client.ask("2 KEY " + NewNonce()), refusal);
  }
  {
    // After the check, garbage is an unknown request like any other and
    // the connection goes on.
    RawClient client(bridge.port());
    PassKeyCheck(client, key);
    EXPECT_EQ(client.ask("GET / HTTP/1.1"), "GET 35 =unknown request");
    EXPECT_EQ(client.ask("4 KEY " + NewNonce()), "4 35 =unknown request");
    EXPECT_EQ(client.ask("5 HELLO"), "5 0 =TAVRIX-RIG 1");
  }
  {
    // A connection that never finishes the check is dropped after the
    // handshake time.
    RawClient idle(bridge.port());
    EXPECT_EQ(idle.ask("1 KEY " + NewNonce()).substr(0, 5), "1 0 =");
    bridge.advanceMs(kHandshakeTimeoutMs + 1);
    EXPECT_EQ(idle.line(), refusal);
    EXPECT_EQ(idle.line(), "<closed>");
    EXPECT_NE(bridge.log().find("no key check within 5 seconds"), std::string::npos);
  }
}

// Connections that never speak cannot lock a key holder out: they have a
// share of their own, whose oldest make room for new ones. Beyond the
// connections served, the link says the server's own reason.
TEST(Bridge, SilentConnectionsNeverKeepAKeyHolderOut) {
  const std::string key = KeyOf(NewKeyFile());
  Bridge bridge(key);
  std::vector<std::unique_ptr<RawClient>> silent;
  for (size_t i = 0; i < kMaxClients + 8; ++i) {
    silent.push_back(std::make_unique<RawClient>(bridge.port()));
  }
  for (size_t i = 0; i < kMaxClients + 8 - kMaxUnprovenClients; ++i) {
    EXPECT_EQ(silent[i]->line(),
              "0 37 =the rig server has too many connections waiting for the key check; the "
              "connection is closed")
        << i;
  }
  {
    VirtualClock clock(kStart);
    TcpLink link(clock, "127.0.0.1", bridge.port(), testFiles());
    link.setKey(key);
    int16_t handle = 0;
    EXPECT_EQ(link.openInterface(handle), link_result::kOk) << link.connectionProblem();
  }
  EXPECT_NE(bridge.log().find(": too many connections waiting for the key check"),
            std::string::npos);
  silent.clear();

  std::vector<std::unique_ptr<RawClient>> served;
  for (size_t i = 0; i < kMaxClients; ++i) {
    served.push_back(std::make_unique<RawClient>(bridge.port()));
    PassKeyCheck(*served.back(), key);
  }
  EXPECT_EQ(OpenProblem(bridge.port(), key),
            "the rig server at 127.0.0.1:" + std::to_string(bridge.port()) +
                " closed the connection: the rig server serves at most 64 connections");
  served.pop_back();
  VirtualClock clock(kStart);
  TcpLink link(clock, "127.0.0.1", bridge.port(), testFiles());
  link.setKey(key);
  int16_t handle = 0;
  EXPECT_EQ(link.openInterface(handle), link_result::kOk) << link.connectionProblem();
}

// A peer that answers with a line that never ends is given up once the
// line passes the bound, and what it sends is never read into memory
// without end; what a peer says is shown with its control characters made
// visible.
TEST(TcpLink, APeerThatSendsALineWithoutEndIsGivenUp) {
  uint16_t port = 0;
  std::string error;
  const platform::Socket listener = platform::listenTcp("127.0.0.1", port, &error);
  ASSERT_NE(listener, platform::kNoSocket) << error;
  std::atomic<bool> done{false};
  std::thread peer([&] {
    for (int connection = 0; connection < 2; ++connection) {
      std::vector<platform::Watch> ready{{listener, true, false}};
      while (platform::waitSockets(ready, 100) == 0 && !done) {
      }
      const platform::Socket client = platform::acceptClient(listener);
      if (client == platform::kNoSocket) return;
      if (connection == 0) {
        const std::string chunk(1 << 16, 'x');
        while (!done && testing::SendAll(client, chunk)) {
        }
      } else {
        testing::SendAll(client, "1 0 =\x1b[2Jforged\n");
        char c = 0;
        while (testing::ReadByte(client, c, 100) != testing::Read::kClosed && !done) {
        }
      }
      platform::closeSocket(client);
    }
  });
  EXPECT_EQ(OpenProblem(port, ""), "the rig server at 127.0.0.1:" + std::to_string(port) +
                                       " sent a line longer than 8 MiB; the link is given up");
  EXPECT_EQ(OpenProblem(port, ""), "no rig server answers at 127.0.0.1:" + std::to_string(port) +
                                       " (it said \"\\x1B[2Jforged\")");
  done = true;
  peer.join();
  platform::closeSocket(listener);
}

TEST(Bridge, ASequenceThroughTheKeyedBridgeTracesAsTheSimulatedRig) {
  const std::string rig = TempFile("rig", kRig);
  const std::string keyFile = NewKeyFile();
  const std::vector<std::string> lines = {"IMSFILESPEC " + rig, "SEND HEATER, 100",
                                          "WAIT TEMP1 > 40", "WAIT SLOW = 3", "IMLDEF HEATER, Q=1"};
  VirtualClock simClock(kStart);
  const RunResult sim = RunOver(simClock, "sim", "", lines);
  EXPECT_EQ(sim.error, "IML error - 13 bad setting");
  EXPECT_NE(sim.trace.find("\"cmd\":\"REA SLOW\",\"reply\":\"3\""), std::string::npos);

  // The built-in rig behind the key check.
  Bridge bridge(KeyOf(keyFile));
  VirtualClock bridgeClock(kStart);
  const RunResult keyed = RunOver(bridgeClock, bridge.link(), keyFile, lines);
  EXPECT_EQ(keyed.error, sim.error);
  EXPECT_EQ(keyed.trace, sim.trace);

  // A link library served as it is (here the simulated rig's own, on the
  // run's clock): the bridge a 32-bit library is served through.
  VirtualClock libraryClock(kStart);
  auto service = std::make_unique<LibraryService>(
      std::make_unique<SimLink>(libraryClock, Scratch().path(), testFiles()), testFiles());
  std::string error;
  ASSERT_TRUE(service->open(&error)) << error;
  {
    // Each request is one call of the library, no more: a device that is
    // not ready for three polls answers the fourth.
    VirtualClock clock(kStart);
    RigServer direct;
    auto simLink = std::make_unique<SimLink>(clock, Scratch().path(), testFiles());
    auto served = std::make_unique<LibraryService>(std::move(simLink), testFiles());
    ASSERT_TRUE(served->open(&error)) << error;
    direct.serveLibrary(std::move(served));
    EXPECT_EQ(direct.answer("1 SETUP =c:\\rigs\\rig.ims\t" + EscapeField(kRig)).substr(0, 5),
              "1 0 =");
    EXPECT_EQ(direct.answer("2 SEND 2 0 REA SLOW"), "2 0");
    EXPECT_EQ(direct.answer("3 REPLY 2 0"), "3 17");
    EXPECT_EQ(direct.answer("4 REPLY 2 0"), "4 17");
    EXPECT_EQ(direct.answer("5 REPLY 2 0"), "5 17");
    EXPECT_EQ(direct.answer("6 REPLY 2 0"), "6 0 =3");
    EXPECT_EQ(direct.answer("7 FETCH 1"), "7 35 =unknown request");
    // The library's own directory (the rig PC's data folder) comes through;
    // the built-in rig has none on the server's side.
    EXPECT_EQ(direct.answer("8 DIRPATH"), "8 0 =" + EscapeField(Scratch().path()));
    RigServer builtIn;
    EXPECT_EQ(builtIn.answer("9 DIRPATH"), "9 0 =");
  }
  Bridge library(KeyOf(keyFile), std::move(service));
  {
    TcpLink link(libraryClock, "127.0.0.1", library.port(), testFiles());
    link.setKey(KeyOf(keyFile));
    int16_t handle = 0;
    ASSERT_EQ(link.openInterface(handle), link_result::kOk) << link.connectionProblem();
    std::string path;
    EXPECT_EQ(link.dirPath(path), link_result::kOk);
    EXPECT_EQ(path, Scratch().path());
  }
  const RunResult served = RunOver(libraryClock, library.link(), keyFile, lines);
  EXPECT_EQ(served.error, sim.error);
  EXPECT_EQ(served.trace, sim.trace);

  // Without the key the run does not start, and says why.
  VirtualClock refusedClock(kStart);
  const RunResult refused = RunOver(refusedClock, bridge.link(), "", lines);
  EXPECT_EQ(refused.error, "IML error:  31");
}

}  // namespace
}  // namespace tavrix
