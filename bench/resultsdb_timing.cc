// The results store on the system clock: UUT records written per second
// into the database file and into a server on loopback (10,000 UUTs of 20
// checks, straight into the store and through the queue and its thread),
// how late a WAITSECONDS 0.5 ends while the store thread writes, and how
// long `results list` takes over 1,000,000 checks.

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "bench_support.h"
#include "common/file_system.h"
#include "engine/engine.h"
#include "machine_door.h"
#include "resultsdb/results_recorder.h"
#include "testing/store_fixture.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

StoredUut BenchUut(int n, int checks = 20) {
  // Spread over 30 days and 4 stations, one in ten failed.
  char ended[32];
  std::snprintf(ended, sizeof ended, "2026-11-%02d %02d:%02d:%02d", 1 + n % 30, n / 3600 % 24,
                n / 60 % 60, n % 60);
  StoredUut u = testing::SampleUut("bench/" + std::to_string(n), "SN" + std::to_string(n), ended,
                                   checks, n % 10 == 0);
  u.station = "rig-" + std::to_string(n % 4);
  return u;
}

// UUTs a second written straight into `spec`, in batches of 64; `setup`
// (when given) is run on the connection first.
double StoreRate(const StoreSpec& spec, int count, const char* setup = nullptr) {
  std::string error;
  auto store = OpenResultsStore(spec, &error);
  if (!store) return 0;
  if (setup && !store->connection().script(setup, &error)) return 0;
  std::vector<StoredUut> batch;
  const double start = WallSeconds();
  const double cpu = CpuSeconds();
  for (int n = 0; n < count; ++n) {
    batch.push_back(BenchUut(n));
    if (batch.size() == 64 || n + 1 == count) {
      if (!store->record(batch, &error)) return 0;
      batch.clear();
    }
  }
  const double took = WallSeconds() - start;
  std::fprintf(stderr, "%s: %d UUTs in %.2f s wall, %.2f s CPU\n",
               spec.kind == StoreSpec::Kind::kSqlite ? "file" : "server", count, took,
               CpuSeconds() - cpu);
  return count / took;
}

// UUTs a second from the first submit until the queue is empty: the
// journal write on the submitting thread, the store thread's batches.
// `runs` runs at once share the journal (threads here, each with a queue and
// a recorder of its own, as processes would have), `count` UUTs in all.
double RecorderRate(const StoreSpec& spec, const std::string& journal, int count, int offset,
                    int runs = 1) {
  const double start = WallSeconds();
  std::vector<std::thread> threads;
  std::atomic<bool> allDone{true};
  for (int r = 0; r < runs; ++r) {
    threads.emplace_back([&, r] {
      ResultsQueue queue(localFiles(), journal, StoreKey(spec));
      queue.open(nullptr);
      ResultsRecorder recorder(queue, [spec](std::string* e) -> std::unique_ptr<ResultsStore> {
        return OpenResultsStore(spec, e);
      });
      recorder.start();
      for (int n = r; n < count; n += runs) {
        StoredUut u = BenchUut(offset + n);
        recorder.submit(u, nullptr);
      }
      if (!recorder.flush(std::chrono::minutes(10))) allDone = false;
      recorder.stop();
    });
  }
  for (auto& t : threads) t.join();
  const double took = WallSeconds() - start;
  return allDone ? count / took : 0;
}

std::string Rate(double perSecond) {
  return perSecond > 0 ? Fixed(perSecond, "UUT/s", 0) : "failed";
}

const RegisterTiming kSqliteRate("resultsdb_sqlite", [] {
  testing::TempFolder folder;
  const StoreSpec spec{StoreSpec::Kind::kSqlite, folder.file("results.sqlite")};
  const StoreSpec normal{StoreSpec::Kind::kSqlite, folder.file("normal.sqlite")};
  return Rows{{"Results store, file: 10,000 UUTs x 20 checks", Rate(StoreRate(spec, 10000))},
              {"  the same with synchronous = NORMAL (no flush at each commit)",
               Rate(StoreRate(normal, 10000, "PRAGMA synchronous = NORMAL"))},
              {"  1,000 through the queue (a disk flush each) and its thread",
               Rate(RecorderRate(spec, folder.file("q.journal"), 1000, 10000))},
              {"  1,000 through one journal shared by 4 runs at once",
               Rate(RecorderRate(spec, folder.file("q.journal"), 1000, 20000, 4))}};
});

const RegisterTiming kPostgresRate("resultsdb_postgres", [] {
  ThrowawayPostgres server;
  std::string reason;
  if (!server.start(&reason, true, true)) return Rows{{"Results store, server", "not measured"}};
  testing::TempFolder folder;
  const StoreSpec spec{StoreSpec::Kind::kPostgres, server.conninfo()};
  return Rows{
      {"Results store, server on 127.0.0.1: 10,000 UUTs x 20 checks", Rate(StoreRate(spec, 10000))},
      {"  1,000 through the queue (a disk flush each) and its thread",
       Rate(RecorderRate(spec, folder.file("q.journal"), 1000, 10000))}};
});

const RegisterTiming kWaitWhileWriting("resultsdb_wait", [] {
  testing::TempFolder folder;
  const StoreSpec spec{StoreSpec::Kind::kSqlite, folder.file("results.sqlite")};
  {
    // A long queue, written at once rather than flushed record by record.
    std::ofstream journal(folder.file("q.journal"), std::ios::binary);
    for (int n = 0; n < 60000; ++n) {
      journal << ResultsQueue::EntryLine("{\"uut\":" + StoredUutToJson(BenchUut(n)) + "}");
    }
  }
  ResultsQueue queue(localFiles(), folder.file("q.journal"));
  queue.open(nullptr);
  ResultsRecorder recorder(queue, [spec](std::string* e) -> std::unique_ptr<ResultsStore> {
    return OpenResultsStore(spec, e);
  });
  const std::string path = WriteSequence({"WAITSECONDS 0.5"});
  std::vector<double> errors;
  recorder.start();
  for (int i = 0; i < 10 && recorder.waiting() > 0; ++i) {
    QuietOperator op;
    const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
    Engine& engine = *built;
    std::string error;
    engine.sequencer().prepareFile(path, &error);
    const double start = WallSeconds();
    engine.sequencer().start();
    errors.push_back(WallSeconds() - start - 0.5);
  }
  const bool stillWriting = recorder.waiting() > 0;
  recorder.stop();
  std::remove(path.c_str());
  const auto [median, worst] = MedianAndWorst(errors);
  return Rows{
      {"WAITSECONDS 0.5 while the store writes: error, median", Fixed(median * 1000, "ms")},
      {"  worst (store thread busy throughout: " + std::string(stillWriting ? "yes" : "no") + ")",
       Fixed(worst * 1000, "ms")}};
});

// The slowest of the list queries a person runs, over 50,000 UUTs of 20
// checks each.
double SlowestList(const StoreSpec& spec) {
  std::string error;
  auto store = OpenResultsStore(spec, &error);
  if (!store) return -1;
  std::vector<StoredUut> batch;
  for (int n = 0; n < 50000; ++n) {
    batch.push_back(BenchUut(n));
    if (batch.size() == 500) {
      if (!store->record(batch, &error)) return -1;
      batch.clear();
    }
  }
  std::vector<UutFilter> filters(6);
  filters[1].serial = "SN31337";
  filters[2].station = "rig-2";
  filters[3].verdict = "FAIL";
  filters[4].from = "2026-11-10 00:00:00";
  filters[4].to = "2026-11-12 23:59:59";
  filters[5].test = "Pump test";
  filters[5].station = "rig-1";
  filters[5].from = "2026-11-20 00:00:00";
  double slowest = 0;
  for (auto& f : filters) {
    f.limit = 50;
    std::vector<StoredUut> out;
    const double start = WallSeconds();
    if (!store->list(f, out, &error) || out.empty()) return -1;
    slowest = std::max(slowest, WallSeconds() - start);
  }
  return slowest;
}

std::string Millis(double seconds) { return seconds < 0 ? "failed" : Fixed(seconds * 1000, "ms"); }

const RegisterTiming kList("resultsdb_list", [] {
  testing::TempFolder folder;
  Rows rows{{"results list over 1,000,000 checks, file: slowest filter",
             Millis(SlowestList({StoreSpec::Kind::kSqlite, folder.file("results.sqlite")}))}};
  ThrowawayPostgres server;
  std::string reason;
  if (server.start(&reason, true)) {
    rows.push_back({"  the same on the server",
                    Millis(SlowestList({StoreSpec::Kind::kPostgres, server.conninfo()}))});
  }
  return rows;
});

}  // namespace
}  // namespace tavrix::bench
