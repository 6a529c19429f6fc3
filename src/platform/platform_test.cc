#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "platform/files.h"
#include "platform/local_endpoint.h"
#include "platform/sockets.h"
#include "platform/wildcard.h"

namespace tavrix::platform {
namespace {

TEST(Wildcard, StarsQuestionMarksAndSets) {
  EXPECT_TRUE(matchesWildcard("RUN???.DAT", "RUN001.DAT"));
  EXPECT_FALSE(matchesWildcard("RUN???.DAT", "RUN01.DAT"));
  EXPECT_TRUE(matchesWildcard("*.log", ".hidden.log"));
  EXPECT_TRUE(matchesWildcard("a*b*c", "aXbYbZc"));
  EXPECT_FALSE(matchesWildcard("a*b*c", "aXbYbZ"));
  EXPECT_TRUE(matchesWildcard("*", ""));
  EXPECT_TRUE(matchesWildcard("[a-c]x", "bx"));
  EXPECT_FALSE(matchesWildcard("[!a-c]x", "bx"));
  EXPECT_TRUE(matchesWildcard("[!a-c]x", "dx"));
  EXPECT_TRUE(matchesWildcard("[]]", "]"));
  // An unclosed set is an ordinary '['.
  EXPECT_TRUE(matchesWildcard("a[b", "a[b"));
  EXPECT_EQ(matchesWildcard("run*.DAT", "RUN1.dat"), fileNamesIgnoreCase());
}

// A fresh folder for one test, removed after.
struct Scratch {
  std::string path;
  Scratch() {
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp != nullptr && *tmp != 0 ? tmp : "/tmp";
    for (int i = 0; path.empty() && i < 1000; ++i) {
      const std::string p =
          base + "/platform-" + std::to_string(processId()) + "-" + std::to_string(i);
      if (makeFolder(p) == 0) path = p;
    }
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

std::string readAll(const std::string& path) {
  FileHandle f = kNoFile;
  if (openFile(path, OpenMode::kRead, f) != 0) return "<missing>";
  std::string text;
  char buf[64];
  size_t got = 0;
  while (readSome(f, buf, sizeof buf, got) == 0 && got > 0) text.append(buf, got);
  closeFile(f);
  return text;
}

int writeFile(const std::string& path, const std::string& text) {
  FileHandle f = kNoFile;
  if (const int err = openFile(path, OpenMode::kCreateOrTruncate, f); err != 0) return err;
  const int err = writeAll(f, text.data(), text.size());
  closeFile(f);
  return err;
}

TEST(Files, ReplaceAppendIdentityAndLocks) {
  Scratch dir;
  ASSERT_FALSE(dir.path.empty());
  // Names beyond ASCII survive the round trip through the system's names.
  const std::string target = dir.path + "/r\xC3\xA9sultats \xE6\x97\xA5.dat";
  const std::string temp = dir.path + "/new.tmp";

  PathInfo info;
  ASSERT_EQ(pathInfo(target, info), 0);
  EXPECT_EQ(info.kind, PathKind::kMissing);
  FileHandle f = kNoFile;
  EXPECT_EQ(openFile(target, OpenMode::kRead, f), ENOENT);

  ASSERT_EQ(writeFile(target, "old"), 0);
  PathInfo first;
  ASSERT_EQ(pathInfo(target, first), 0);
  EXPECT_EQ(first.kind, PathKind::kFile);
  EXPECT_EQ(first.size, 3u);

  // The rename replaces the target in one step.
  ASSERT_EQ(writeFile(temp, "new text"), 0);
  EXPECT_EQ(replaceFile(temp, target), 0);
  EXPECT_EQ(readAll(target), "new text");
  EXPECT_EQ(readAll(temp), "<missing>");
  PathInfo second;
  ASSERT_EQ(pathInfo(target, second), 0);
  EXPECT_FALSE(second.device == first.device && second.inode == first.inode)
      << "a replaced file is another file";

  // Appends land at the end; a cut-back takes them away again.
  FileHandle app = kNoFile;
  ASSERT_EQ(openFile(target, OpenMode::kAppend, app), 0);
  ASSERT_EQ(writeAll(app, "+1", 2), 0);
  PathInfo grown;
  ASSERT_EQ(fileInfo(app, grown), 0);
  EXPECT_EQ(grown.size, 10u);
  EXPECT_EQ(truncateFile(app, 8), 0);
  closeFile(app);
  EXPECT_EQ(readAll(target), "new text");

  // A second open of the file cannot take a lock already held.
  FileHandle one = kNoFile;
  FileHandle two = kNoFile;
  ASSERT_EQ(openFile(target, OpenMode::kReadWrite, one), 0);
  ASSERT_EQ(openFile(target, OpenMode::kReadWrite, two), 0);
  EXPECT_EQ(tryLockFile(one), 0);
  EXPECT_EQ(tryLockFile(two), EWOULDBLOCK);
  closeFile(one);
  EXPECT_EQ(tryLockFile(two), 0);
  closeFile(two);

  EXPECT_EQ(openFile(temp, OpenMode::kCreateNew, f), 0);
  closeFile(f);
  EXPECT_EQ(openFile(temp, OpenMode::kCreateNew, f), EEXIST);

  std::vector<std::string> names;
  ASSERT_EQ(listFolder(dir.path, names), 0);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"new.tmp", "r\xC3\xA9sultats \xE6\x97\xA5.dat"}));
  EXPECT_EQ(removeFile(temp), 0);
  EXPECT_EQ(removeFile(temp), ENOENT);
  PathInfo folder;
  ASSERT_EQ(pathInfo(dir.path, folder), 0);
  EXPECT_EQ(folder.kind, PathKind::kFolder);
}

// Serves what `server` has until `done` says so (at most `rounds` waits),
// echoing each line back upper-cased; what it read and saw is kept.
struct EchoServer {
  explicit EchoServer(LocalServer& s) : server(s) {}
  LocalServer& server;
  std::map<int, std::string> in, out;
  std::vector<int> ended;
  void serve(const std::function<bool()>& done, int rounds = 200) {
    for (int round = 0; round < rounds && !done(); ++round) {
      std::vector<LocalServer::Interest> interests;
      for (const auto& [id, text] : out) interests.push_back({id, true, !text.empty()});
      std::vector<int> accepted;
      std::vector<LocalServer::Ready> ready;
      ASSERT_TRUE(server.wait(true, interests, 5000, accepted, ready));
      for (const int id : accepted) out[id];
      for (const LocalServer::Ready& r : ready) {
        if (r.readable) {
          char buf[256];
          long n;
          while ((n = server.read(r.id, buf, sizeof buf)) > 0) {
            for (long i = 0; i < n; ++i) {
              in[r.id] += buf[i];
              out[r.id] += static_cast<char>(std::toupper(static_cast<unsigned char>(buf[i])));
            }
          }
          if (n == 0 || n == LocalServer::kBroken) {
            ended.push_back(r.id);
            out.erase(r.id);
            server.close(r.id);
            continue;
          }
        }
        if (r.writable && !out[r.id].empty()) {
          const long n = server.write(r.id, out[r.id].data(), out[r.id].size());
          ASSERT_NE(n, 0);
          if (n > 0) out[r.id].erase(0, static_cast<size_t>(n));
        }
      }
    }
  }
};

std::string Receive(LocalConnection& c, size_t size) {
  std::string text;
  char buf[256];
  while (text.size() < size) {
    const long n = c.receive(buf, sizeof buf, 5000);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  return text;
}

TEST(LocalEndpoint, OwnerOnlySeveralClientsAFullPipeAndAStaleEndpoint) {
  Scratch dir;
  const std::string path = dir.path + "/control.sock";
  std::string error;
  auto server = LocalServer::Listen(path, &error);
  ASSERT_TRUE(server) << error;
  std::string why;
  EXPECT_TRUE(server->onlyOwnerMayConnect(&why)) << why;
  // Being listened on twice is refused: the file is there.
  EXPECT_FALSE(LocalServer::Listen(path, &error));

  // wake() from before the wait still ends it.
  server->wake();
  std::vector<int> accepted;
  std::vector<LocalServer::Ready> ready;
  ASSERT_TRUE(server->wait(true, {}, -1, accepted, ready));
  EXPECT_TRUE(accepted.empty());

  // Two clients at once, each answered on its own connection.
  std::unique_ptr<LocalConnection> a, b;
  ASSERT_EQ(LocalConnection::Connect(path, a, &error), LocalConnection::Outcome::kConnected)
      << error;
  // A pipe takes its next client once the server has seen the last one.
  EchoServer echo(*server);
  echo.serve([&] { return echo.out.size() == 1; });
  ASSERT_EQ(LocalConnection::Connect(path, b, &error), LocalConnection::Outcome::kConnected)
      << error;
  ASSERT_TRUE(a->send("first\n", 6));
  ASSERT_TRUE(b->send("second\n", 7));
  echo.serve([&] {
    return echo.in.size() == 2 && echo.out.size() == 2 && echo.out.begin()->second.empty() &&
           echo.out.rbegin()->second.empty();
  });
  EXPECT_EQ(Receive(*a, 6), "FIRST\n");
  EXPECT_EQ(Receive(*b, 7), "SECOND\n");
  // A client that goes is seen to go; the other one stays served.
  a.reset();
  echo.serve([&] { return !echo.ended.empty(); });
  ASSERT_EQ(echo.ended.size(), 1u);
  ASSERT_EQ(echo.out.size(), 1u);
  const int bId = echo.out.begin()->first;
  ASSERT_TRUE(b->send("again\n", 6));
  echo.serve([&] { return echo.in[bId] == "second\nagain\n" && echo.out[bId].empty(); });
  EXPECT_EQ(Receive(*b, 6), "AGAIN\n");

  // A client that never reads: the server's writes stop being taken, they
  // never block, and the connection can be closed all the same.
  std::unique_ptr<LocalConnection> sleeper;
  ASSERT_EQ(LocalConnection::Connect(path, sleeper, &error), LocalConnection::Outcome::kConnected);
  int id = 0;
  for (int round = 0; id == 0 && round < 100; ++round) {
    accepted.clear();
    ASSERT_TRUE(server->wait(true, {}, 5000, accepted, ready));
    if (!accepted.empty()) id = accepted.front();
  }
  ASSERT_NE(id, 0);
  const std::string block(64 * 1024, 'x');
  size_t taken = 0;
  bool full = false;
  for (int round = 0; !full && round < 1000; ++round) {
    const long n = server->write(id, block.data(), block.size());
    ASSERT_NE(n, LocalServer::kBroken);
    if (n > 0) taken += static_cast<size_t>(n);
    if (n == LocalServer::kWouldBlock) {
      // Room may come as the system moves data along; a full pipe stays full.
      ready.clear();
      accepted.clear();
      ASSERT_TRUE(server->wait(false, {{id, false, true}}, 50, accepted, ready));
      full = ready.empty();
    }
  }
  EXPECT_TRUE(full) << taken << " bytes were taken";
  EXPECT_LT(taken, 64u * 1024 * 1024);
  server->close(id);
  // What was taken is there to read.
  char first[16];
  EXPECT_GT(sleeper->receive(first, sizeof first, 5000), 0);

  // A server that went leaves its file, which a client finds stale; so is
  // a path where nothing ever listened.
  server.reset();
  sleeper.reset();
  std::unique_ptr<LocalConnection> late;
  EXPECT_EQ(LocalConnection::Connect(path, late), LocalConnection::Outcome::kGone);
  EXPECT_EQ(LocalConnection::Connect(dir.path + "/none.sock", late),
            LocalConnection::Outcome::kGone);
  // What the client got from the server that went: the end.
  EXPECT_EQ(b->receive(first, sizeof first, 5000), 0);
#ifndef _WIN32
  // The check sees a socket others may open.
  std::filesystem::remove(path);
  server = LocalServer::Listen(path, &error);
  ASSERT_TRUE(server) << error;
  std::filesystem::permissions(path, std::filesystem::perms::others_write,
                               std::filesystem::perm_options::add);
  EXPECT_FALSE(server->onlyOwnerMayConnect(&why));
  EXPECT_NE(why.find("mode 602"), std::string::npos) << why;
#endif
}

}  // namespace
}  // namespace tavrix::platform

// Which addresses a server may listen on without a key: the loopback block
// only, and only written as an IPv4 address.
TEST(Addresses, Ipv4TextAndTheLoopbackBlock) {
  using namespace tavrix::platform;
  for (const char* loopback : {"127.0.0.1", "127.255.1.2", "127.0.0.0"}) {
    EXPECT_TRUE(isLoopbackAddress(loopback)) << loopback;
  }
  for (const char* other : {"0.0.0.0", "10.0.0.1", "128.0.0.1", "255.255.255.255"}) {
    EXPECT_TRUE(isIpv4Address(other)) << other;
    EXPECT_FALSE(isLoopbackAddress(other)) << other;
  }
  for (const char* notAnAddress : {"localhost", "", "1.2.3", "1.2.3.4.5", "256.1.1.1", "01.2.3.4",
                                   "127.0.0.1 ", "127..0.1", "1.2.3.-4", "1234.1.1.1", "::1"}) {
    EXPECT_FALSE(isIpv4Address(notAnAddress)) << notAnAddress;
    EXPECT_FALSE(isLoopbackAddress(notAnAddress)) << notAnAddress;
  }
  EXPECT_EQ(peerText(0x7f000001, 5025), "127.0.0.1:5025");
  EXPECT_EQ(peerText(0xc0a8fe0a, 0), "192.168.254.10:0");
}
