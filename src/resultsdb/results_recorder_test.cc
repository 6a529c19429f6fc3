// The recorder and the faults a store meets: whatever happens to the
// database, every record stays in the queue until the store has it, the
// store holds whole records only, and the engine's side never waits.
#include "resultsdb/results_recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "resultsdb/sqlite_connection.h"
#include "common/file_system.h"
#include "resultsdb/store_test_support.h"

namespace tavrix {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::SampleUut;

// A store that keeps what it is given, fails while told to, and can be held
// inside a write.
class FakeStore : public ResultsStore {
 public:
  struct Shared {
    std::mutex gate;  // held by the test: record() waits for it
    std::mutex mutex;
    std::vector<std::string> keys;
    int failuresLeft = 0;
  };
  explicit FakeStore(Shared& shared) : shared_(shared) {}
  bool record(const std::vector<StoredUut>& batch, std::string* error) override {
    std::lock_guard gate(shared_.gate);
    std::lock_guard lock(shared_.mutex);
    if (shared_.failuresLeft > 0) {
      --shared_.failuresLeft;
      *error = "the store is down";
      return false;
    }
    for (const auto& u : batch) shared_.keys.push_back(u.key);
    return true;
  }
  bool list(const UutFilter&, std::vector<StoredUut>&, std::string*) override { return true; }
  bool fetch(const UutFilter&, std::vector<StoredUut>&, std::string*) override { return true; }
  bool yield(const UutFilter&, std::vector<YieldRow>&, std::string*) override { return true; }
  std::string describe() const override { return "fake"; }

 private:
  Shared& shared_;
};

class RecorderTest : public ::testing::Test {
 protected:
  // `reachableByAll`: the folder is for a child running as another account.
  explicit RecorderTest(bool reachableByAll = false) : folder_(reachableByAll) {}

  void Queue(ResultsQueue& queue, std::initializer_list<const char*> keys, int checks = 4) {
    std::string error;
    ASSERT_TRUE(queue.open(&error)) << error;
    for (const char* key : keys) {
      ASSERT_TRUE(queue.append(SampleUut(key, key, "2026-11-15 10:00:00", checks), &error))
          << error;
    }
  }

  // How many records the journal on disk holds, read afresh.
  size_t JournalHolds(const std::string& path) {
    ResultsQueue reread(localFiles(), path);
    std::string error;
    EXPECT_TRUE(reread.open(&error)) << error;
    return reread.size();
  }

  static ResultsRecorder::StoreOpener SqliteOpener(const std::string& path, int busyMs = 0) {
    return [path, busyMs](std::string* error) -> std::unique_ptr<ResultsStore> {
      return OpenResultsStore({StoreSpec::Kind::kSqlite, path}, error, busyMs);
    };
  }

  // Every record of the store with its checks; none may lack one.
  static std::vector<std::string> StoredKeys(const StoreSpec& spec) {
    std::string error;
    auto store = OpenResultsStore(spec, &error);
    EXPECT_TRUE(store) << error;
    std::vector<StoredUut> uuts;
    EXPECT_TRUE(store && store->fetch({}, uuts, &error)) << error;
    std::vector<std::string> keys;
    for (const auto& u : uuts) {
      EXPECT_EQ(static_cast<int>(u.checks.size()), u.checkCount) << u.key;
      keys.insert(keys.begin(), u.key);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
  }

  // Runs `body` in a child process (as `account` when given and this is
  // root); returns its exit status.
  static int InChild(const std::function<int()>& body, const passwd* account = nullptr) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      if (account && (::setgid(account->pw_gid) != 0 || ::setuid(account->pw_uid) != 0)) _exit(90);
      _exit(body());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
  }

  testing::TempFolder folder_;
};

TEST_F(RecorderTest, TheEngineSideNeverWaitsAndTheStoreGetsEachRecordOnceInOrder) {
  ResultsQueue queue(localFiles(), folder_.file("q.journal"));
  FakeStore::Shared shared;
  ResultsRecorder recorder(queue,
                           [&](std::string*) { return std::make_unique<FakeStore>(shared); });
  std::string error;
  ASSERT_TRUE(queue.open(&error));
  recorder.start();
  {
    // The store is held inside a write: submitting still returns.
    std::lock_guard hold(shared.gate);
    for (const char* key : {"a", "b", "c"}) {
      ASSERT_TRUE(recorder.submit(SampleUut(key, key, "2026-11-15 10:00:00"), &error));
    }
  }
  ASSERT_TRUE(recorder.flush(std::chrono::seconds(60)));
  recorder.stop();
  std::lock_guard lock(shared.mutex);
  EXPECT_THAT(shared.keys, ElementsAre("a", "b", "c"));
  EXPECT_EQ(JournalHolds(queue.path()), 0u);
}

TEST_F(RecorderTest, AStoreThatFailsOrCannotBeReachedLeavesTheQueueWhole) {
  ResultsQueue queue(localFiles(), folder_.file("q.journal"));
  Queue(queue, {"a", "b", "c"});
  FakeStore::Shared shared;
  bool reachable = false;
  ResultsRecorder recorder(queue, [&](std::string* error) -> std::unique_ptr<ResultsStore> {
    if (!reachable) {
      *error = "the server does not answer";
      return nullptr;
    }
    return std::make_unique<FakeStore>(shared);
  });
  recorder.batchSize = 2;
  EXPECT_EQ(recorder.drain(), 0u);
  EXPECT_EQ(recorder.lastError(), "the server does not answer");
  reachable = true;
  shared.failuresLeft = 1;
  EXPECT_EQ(recorder.drain(), 0u);
  EXPECT_EQ(recorder.lastError(), "the store is down");
  EXPECT_EQ(recorder.waiting(), 3u);
  EXPECT_EQ(JournalHolds(queue.path()), 3u);
  EXPECT_EQ(recorder.drain(), 3u);
  EXPECT_EQ(recorder.lastError(), "");
  EXPECT_THAT(shared.keys, ElementsAre("a", "b", "c"));
  EXPECT_EQ(JournalHolds(queue.path()), 0u);
}

TEST_F(RecorderTest, ALockedDatabaseFileKeepsTheRecordsQueued) {
  const std::string db = folder_.file("results.sqlite");
  ResultsQueue queue(localFiles(), folder_.file("q.journal"));
  Queue(queue, {"a", "b"});
  std::string error;
  ASSERT_TRUE(OpenResultsStore({StoreSpec::Kind::kSqlite, db}, &error)) << error;
  auto other = OpenSqlite(db, {}, &error);
  ASSERT_TRUE(other && other->script("BEGIN EXCLUSIVE", &error)) << error;

  ResultsRecorder recorder(queue, SqliteOpener(db));
  EXPECT_EQ(recorder.drain(), 0u);
  EXPECT_THAT(recorder.lastError(), HasSubstr("locked"));
  EXPECT_EQ(JournalHolds(queue.path()), 2u);

  ASSERT_TRUE(other->script("ROLLBACK", &error));
  EXPECT_EQ(recorder.drain(), 2u);
  EXPECT_THAT(StoredKeys({StoreSpec::Kind::kSqlite, db}), ElementsAre("a", "b"));
}

class SharedFolderRecorderTest : public RecorderTest {
 protected:
  SharedFolderRecorderTest() : RecorderTest(true) {}
};

TEST_F(SharedFolderRecorderTest, AReadOnlyDatabaseFileKeepsTheRecordsQueued) {
  const std::string db = folder_.file("results.sqlite");
  const StoreSpec spec{StoreSpec::Kind::kSqlite, db};
  ResultsQueue queue(localFiles(), folder_.file("q.journal"));
  Queue(queue, {"a", "b"});
  std::string error;
  {
    auto store = OpenResultsStore(spec, &error);
    ASSERT_TRUE(store && store->record({SampleUut("before", "0", "2026-11-14 10:00:00")}, &error));
  }
  ::chmod(db.c_str(), 0444);
  ::chmod(folder_.path().c_str(), 0555);
  // Root writes whatever the file's mode says, so the write is tried by an
  // account that the mode binds.
  const passwd* account = ::geteuid() == 0 ? ::getpwnam("nobody") : nullptr;
  if (::geteuid() == 0 && account == nullptr) GTEST_SKIP() << "no unprivileged account";
  const int status = InChild(
      [&] {
        ResultsQueue childQueue(localFiles(), queue.path());
        if (!childQueue.open(nullptr) && childQueue.size() != 2) return 3;
        ResultsRecorder recorder(childQueue, SqliteOpener(db));
        if (recorder.drain() != 0) return 1;
        return recorder.lastError().empty() ? 2 : 0;
      },
      account);
  ::chmod(folder_.path().c_str(), 0777);
  ::chmod(db.c_str(), 0644);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(JournalHolds(queue.path()), 2u);
  EXPECT_THAT(StoredKeys(spec), ElementsAre("before"));

  ResultsQueue reopened(localFiles(), queue.path());
  ASSERT_TRUE(reopened.open(&error));
  ResultsRecorder recorder(reopened, SqliteOpener(db));
  EXPECT_EQ(recorder.drain(), 2u);
  EXPECT_THAT(StoredKeys(spec), ElementsAre("a", "b", "before"));
}

TEST_F(RecorderTest, AFullDiskKeepsTheRecordsQueuedAndTheDatabaseWhole) {
  // The disk fills for the child alone: no file may grow beyond a size a
  // little above what the database holds now. The journal, larger already,
  // can still be read but not rewritten.
  const std::string db = folder_.file("results.sqlite");
  const StoreSpec spec{StoreSpec::Kind::kSqlite, db};
  ResultsQueue queue(localFiles(), folder_.file("q.journal"));
  Queue(queue, {"a", "b", "c", "d"}, 200);
  std::string error;
  ASSERT_TRUE(OpenResultsStore(spec, &error)) << error;
  const auto size = [](const std::string& p) {
    std::error_code ec;
    const auto s = std::filesystem::file_size(p, ec);
    return ec ? 0 : static_cast<rlim_t>(s);
  };
  const rlim_t limit = std::max(size(db), size(db + "-wal")) + 8192;
  const int status = InChild([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit r{limit, limit};
    if (::setrlimit(RLIMIT_FSIZE, &r) != 0) return 4;
    ResultsQueue childQueue(localFiles(), queue.path());
    childQueue.open(nullptr);
    ResultsRecorder recorder(childQueue, SqliteOpener(db));
    if (recorder.drain() != 0) return 1;
    return recorder.lastError().empty() ? 2 : 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(JournalHolds(queue.path()), 4u);
  auto check = OpenSqlite(db, {}, &error);
  SqlRows rows;
  ASSERT_TRUE(check && check->exec("PRAGMA integrity_check", {}, &rows, nullptr, &error)) << error;
  EXPECT_EQ(rows.at(0).at(0), "ok");
  EXPECT_THAT(StoredKeys(spec), ElementsAre());

  ResultsQueue reopened(localFiles(), queue.path());
  ASSERT_TRUE(reopened.open(&error));
  ResultsRecorder recorder(reopened, SqliteOpener(db));
  EXPECT_EQ(recorder.drain(), 4u);
  EXPECT_THAT(StoredKeys(spec), ElementsAre("a", "b", "c", "d"));
}

TEST_F(RecorderTest, AServerKilledInTheMiddleOfABatchLosesNothingAndDuplicatesNothing) {
  ThrowawayPostgres server;
  std::string reason;
  if (!server.start(&reason)) {
    if (ThrowawayPostgres::BinaryFolder().empty()) GTEST_SKIP() << reason;
    FAIL() << reason;
  }
  const StoreSpec spec{StoreSpec::Kind::kPostgres, server.conninfo()};
  ResultsQueue queue(localFiles(), folder_.file("q.journal"));
  Queue(queue, {"a", "b", "c", "d", "e"});
  bool killed = false;
  ResultsRecorder recorder(queue, [&](std::string* error) -> std::unique_ptr<ResultsStore> {
    auto store = OpenResultsStore(spec, error);
    if (store) {
      store->afterRecordSent = [&](size_t index) {
        if (index == 2 && !killed) killed = server.kill();
      };
    }
    return store;
  });
  EXPECT_EQ(recorder.drain(), 0u);
  ASSERT_TRUE(killed);
  EXPECT_NE(recorder.lastError(), "");
  EXPECT_EQ(JournalHolds(queue.path()), 5u);

  ASSERT_TRUE(server.restart(&reason)) << reason;
  EXPECT_THAT(StoredKeys(spec), ElementsAre());
  EXPECT_EQ(recorder.drain(), 5u);
  EXPECT_THAT(StoredKeys(spec), ElementsAre("a", "b", "c", "d", "e"));
  EXPECT_EQ(JournalHolds(queue.path()), 0u);
}

}  // namespace
}  // namespace tavrix
