#include "resultsdb/results_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "common/file_system.h"
#include "testing/store_fixture.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using testing::SampleUut;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Keys(const std::vector<StoredUut>& uuts) {
  std::vector<std::string> keys;
  for (const auto& u : uuts) keys.push_back(u.key);
  return keys;
}

TEST(ResultsQueue, RecordsSurviveAReopenInOrderUntilAcknowledged) {
  testing::TempFolder folder;
  const std::string path = folder.file("data root/results-queue.journal");
  {
    ResultsQueue queue(testFiles(), path);
    std::string error;
    ASSERT_TRUE(queue.open(&error)) << error;
    for (const char* key : {"a", "b", "c"}) {
      StoredUut u = SampleUut(key, key, "2026-11-15 10:00:00", 2);
      u.description = "line one\r\nline two\ttab, \xE9t\xE9";  // not UTF-8
      u.files = {"/data/results/summary.txt", "/data/results/SN_" + std::string(key) + ".txt"};
      if (u.key == "b") u.resumed = "went on at 12:00\nwent on at 13:00";
      ASSERT_TRUE(queue.append(u, &error)) << error;
    }
    ASSERT_TRUE(queue.acknowledge({"a"}, &error)) << error;
  }
  ResultsQueue reopened(testFiles(), path);
  std::string error;
  ASSERT_TRUE(reopened.open(&error)) << error;
  const auto waiting = reopened.front(10);
  EXPECT_THAT(Keys(waiting), ::testing::ElementsAre("b", "c"));
  EXPECT_EQ(waiting[0].checks.size(), 2u);
  EXPECT_THAT(waiting[0].files,
              ::testing::ElementsAre("/data/results/summary.txt", "/data/results/SN_b.txt"));
  EXPECT_EQ(waiting[0].description.substr(0, 19), "line one\r\nline two\t");
  // A test that went on after an abrupt end keeps its resume notes.
  EXPECT_EQ(waiting[0].resumed, "went on at 12:00\nwent on at 13:00");
  EXPECT_EQ(waiting[1].resumed, "");

  // Drained, the journal is replaced by an empty one, with no temporary
  // file left beside it.
  ASSERT_TRUE(reopened.acknowledge({"b", "c"}, &error));
  EXPECT_EQ(Slurp(path), "");
  EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST(ResultsQueue, ACutOffOrDamagedEntryIsPassedOverAndTheRestKept) {
  testing::TempFolder folder;
  const std::string path = folder.file("results-queue.journal");
  {
    ResultsQueue queue(testFiles(), path);
    std::string error;
    ASSERT_TRUE(queue.open(&error));
    for (const char* key : {"a", "b", "c"}) {
      ASSERT_TRUE(queue.append(SampleUut(key, key, "2026-11-15 10:00:00"), &error));
    }
  }
  std::string text = Slurp(path);
  // Damage b's entry in the middle, and cut c's entry off as a crash would.
  const size_t second = text.find('\n') + 1;
  text[second + 40] ^= 0x20;
  text.resize(text.size() - 30);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;

  ResultsQueue reopened(testFiles(), path);
  std::string error;
  ASSERT_TRUE(reopened.open(&error)) << error;
  EXPECT_THAT(Keys(reopened.front(10)), ::testing::ElementsAre("a"));
  // The rewritten journal holds only whole entries.
  ResultsQueue again(testFiles(), path);
  ASSERT_TRUE(again.open(&error));
  EXPECT_EQ(again.size(), 1u);
  const std::string rewritten = Slurp(path);
  ASSERT_EQ(rewritten.back(), '\n');
  for (size_t start = 0, end; (end = rewritten.find('\n', start)) != std::string::npos;
       start = end + 1) {
    std::string json;
    EXPECT_TRUE(ResultsQueue::ParseEntryLine(rewritten.substr(start, end - start), json));
  }
}

TEST(ResultsQueue, ARecordWaitsForTheStoreItWasMadeForAndNoOther) {
  testing::TempFolder folder;
  const std::string path = folder.file("results-queue.journal");
  // A journal of an earlier version names no store: its record is for the
  // database file beside it.
  {
    std::ofstream(path, std::ios::binary) << ResultsQueue::EntryLine(
        "{\"uut\":" + StoredUutToJson(SampleUut("old", "0", "2026-11-14 10:00:00")) + "}");
  }
  ResultsQueue file(testFiles(), path, "/plant/results.sqlite");
  ResultsQueue server(testFiles(), path, "host=db dbname=results user=rig");
  ResultsQueue beside(testFiles(), path);
  std::string error;
  ASSERT_TRUE(file.open(&error)) << error;
  ASSERT_TRUE(server.open(&error)) << error;
  ASSERT_TRUE(file.append(SampleUut("f1", "1", "2026-11-15 10:00:00"), &error)) << error;
  ASSERT_TRUE(server.append(SampleUut("s1", "2", "2026-11-15 10:00:00"), &error)) << error;
  ASSERT_TRUE(file.append(SampleUut("f2", "3", "2026-11-15 10:00:00"), &error)) << error;
  EXPECT_THAT(Keys(file.front(10)), ::testing::ElementsAre("f1", "f2"));
  EXPECT_THAT(Keys(server.front(10)), ::testing::ElementsAre("s1"));
  EXPECT_THAT(Keys(beside.front(10)), ::testing::ElementsAre("old"));
  EXPECT_EQ(file.ownWaiting(), 2u);
  EXPECT_EQ(beside.ownWaiting(), 0u);

  // The file's records taken, the server's still waits, and another run of
  // the same store sees what is left, not a copy of its own.
  ASSERT_TRUE(file.acknowledge({"f1", "f2"}, &error)) << error;
  EXPECT_EQ(file.size(), 0u);
  EXPECT_EQ(file.ownWaiting(), 0u);
  ResultsQueue again(testFiles(), path, "host=db dbname=results user=rig");
  ASSERT_TRUE(again.open(&error)) << error;
  EXPECT_THAT(Keys(again.front(10)), ::testing::ElementsAre("s1"));
  ASSERT_TRUE(again.acknowledge({"s1"}, &error)) << error;
  EXPECT_EQ(server.size(), 0u);
  EXPECT_EQ(server.ownWaiting(), 0u);  // taken by the other run
  std::vector<QueuedRecord> all;
  ASSERT_TRUE(ResultsQueue::ReadAll(testFiles(), path, "", all, &error)) << error;
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].uut.key, "old");
  EXPECT_EQ(all[0].store, folder.file("results.sqlite"));
}

}  // namespace
}  // namespace tavrix
