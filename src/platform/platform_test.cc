#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/files.h"
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
