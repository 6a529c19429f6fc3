// Results writing: one UUT's summary entry and details file, on the disk of
// this machine, with the folder lock that guards them against other runs and
// (for comparison) without it. The ratio is the lock's cost.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "bench_support.h"
#include "common/file_system.h"
#include "testdb/results_files.h"

namespace {

using tavrix::FileLock;
using tavrix::FileSystem;
using tavrix::LocalFileSystem;

// The machine's file system with a lock that guards nothing.
class NoLocks final : public FileSystem {
 public:
  explicit NoLocks(FileSystem& inner) : inner_(inner) {}
  const std::string& dataRoot() const override { return inner_.dataRoot(); }
  std::string currentFolder() const override { return inner_.currentFolder(); }
  tavrix::FileInfo info(const std::string& p) const override { return inner_.info(p); }
  bool readFile(const std::string& p, std::string& b, std::string* e) const override {
    return inner_.readFile(p, b, e);
  }
  std::unique_ptr<tavrix::InputFile> openInput(const std::string& p,
                                               std::string* e) const override {
    return inner_.openInput(p, e);
  }
  std::unique_ptr<tavrix::AtomicFile> rewrite(const std::string& p, std::string* e) override {
    return inner_.rewrite(p, e);
  }
  bool append(const std::string& p, std::string_view b, std::string* e) override {
    return inner_.append(p, b, e);
  }
  bool createPrivate(const std::string& p, std::string* e) override {
    return inner_.createPrivate(p, e);
  }
  bool truncate(const std::string& p, uint64_t s, std::string* e) override {
    return inner_.truncate(p, s, e);
  }
  std::unique_ptr<tavrix::OutputFile> create(const std::string& p, std::string* e) override {
    return inner_.create(p, e);
  }
  bool list(const std::string& f, std::vector<std::string>& n, std::string* e) const override {
    return inner_.list(f, n, e);
  }
  bool makeFolders(const std::string& f, std::string* e) override {
    return inner_.makeFolders(f, e);
  }
  bool remove(const std::string& p, std::string* e) override { return inner_.remove(p, e); }
  std::unique_ptr<FileLock> lock(const std::string&, std::string*) override {
    return std::make_unique<FileLock>();
  }

 private:
  FileSystem& inner_;
};

struct ResultsBench {
  tavrix::ScratchFolder folder;
  LocalFileSystem disk{folder.path()};
  tavrix::PathMap paths{folder.path()};
  tavrix::TestDetails details;
  tavrix::ResultsSettings settings;
  tavrix::UutRecord uut;
  tavrix::Micros when = tavrix::fromCivil({2026, 11, 15, 14, 30, 5, 0});
  int64_t serial = 0;

  ResultsBench() {
    paths.setDrive('c', folder.path());
    details.title = "Valve test";
    details.versionText = "3";
    details.resultsDirectory = "c:\\results\\";
    uut.description = "Pump A";
    uut.operators = "Ann Lee";
    uut.checks.push_back({"Pressure", "PRESS", "1.50", "bar", "1", "2", 1, true, ""});
  }

  // Writes one UUT's summary entry and details file; its wall time in us.
  double writeOne(FileSystem& files, benchmark::State& state) {
    uut.serialNumber = std::to_string(++serial);
    std::string error;
    const auto start = std::chrono::steady_clock::now();
    if (!tavrix::WriteTestResults(files, details, uut, settings, paths, when, &error)) {
      state.SkipWithError(error.c_str());
    }
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
        .count();
  }
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// The disk's speed drifts on a shared machine far more than a lock costs, so
// the two writers take turns, UUT by UUT, into one folder, and the medians of
// their times are compared.
void BM_ResultsWritingLockCost(benchmark::State& state) {
  ResultsBench bench;
  NoLocks unlocked(bench.disk);
  std::vector<double> locked_us;
  std::vector<double> unlocked_us;
  bool lockedFirst = false;
  for (auto _ : state) {
    lockedFirst = !lockedFirst;
    if (lockedFirst) locked_us.push_back(bench.writeOne(bench.disk, state));
    unlocked_us.push_back(bench.writeOne(unlocked, state));
    if (!lockedFirst) locked_us.push_back(bench.writeOne(bench.disk, state));
  }
  state.counters["locked_us"] = Median(locked_us);
  state.counters["unlocked_us"] = Median(unlocked_us);
}

// The lock alone: take the results folder's lock and let it go again.
void BM_FolderLockAlone(benchmark::State& state) {
  tavrix::ScratchFolder folder;
  LocalFileSystem disk(folder.path());
  const std::string file = folder.path() + "/Valve test_261115.txt";
  for (auto _ : state) {
    std::string error;
    auto held = disk.lock(file, &error);
    if (!held) state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(held);
  }
}

}  // namespace

BENCHMARK(BM_ResultsWritingLockCost)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(tavrix::bench::BenchSize(3.0, 0.001));
BENCHMARK(BM_FolderLockAlone)->Unit(benchmark::kMicrosecond);
