// Results writing: one UUT's summary entry and details file, on the disk of
// this machine, with the folder lock that guards them against other runs and
// (for comparison) without it. The ratio is the lock's cost.
#include <benchmark/benchmark.h>

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
  std::unique_ptr<tavrix::InputFile> openInput(const std::string& p, std::string* e) const override {
    return inner_.openInput(p, e);
  }
  std::unique_ptr<tavrix::AtomicFile> rewrite(const std::string& p, std::string* e) override {
    return inner_.rewrite(p, e);
  }
  bool append(const std::string& p, std::string_view b, std::string* e) override { return inner_.append(p, b, e); }
  bool truncate(const std::string& p, uint64_t s, std::string* e) override { return inner_.truncate(p, s, e); }
  std::unique_ptr<tavrix::OutputFile> create(const std::string& p, std::string* e) override {
    return inner_.create(p, e);
  }
  bool list(const std::string& f, std::vector<std::string>& n, std::string* e) const override {
    return inner_.list(f, n, e);
  }
  bool makeFolders(const std::string& f, std::string* e) override { return inner_.makeFolders(f, e); }
  bool remove(const std::string& p, std::string* e) override { return inner_.remove(p, e); }
  std::unique_ptr<FileLock> lock(const std::string&, std::string*) override {
    return std::make_unique<FileLock>();
  }

 private:
  FileSystem& inner_;
};

void WriteResults(benchmark::State& state, bool locked) {
  tavrix::ScratchFolder folder;
  LocalFileSystem disk(folder.path());
  NoLocks unlocked(disk);
  FileSystem& files = locked ? static_cast<FileSystem&>(disk) : unlocked;
  tavrix::PathMap paths(folder.path());
  paths.setDrive('c', folder.path());
  tavrix::TestDetails details;
  details.title = "Valve test";
  details.versionText = "3";
  details.resultsDirectory = "c:\\results\\";
  tavrix::ResultsSettings settings;
  tavrix::UutRecord uut;
  uut.description = "Pump A";
  uut.operators = "Ann Lee";
  uut.checks.push_back({"Pressure", "PRESS", "1.50", "bar", "1", "2", 1, true, ""});
  const tavrix::Micros when = tavrix::fromCivil({2026, 11, 15, 14, 30, 5, 0});
  int64_t n = 0;
  for (auto _ : state) {
    uut.serialNumber = std::to_string(++n);
    std::string error;
    if (!tavrix::WriteTestResults(files, details, uut, settings, paths, when, &error)) {
      state.SkipWithError(error.c_str());
    }
  }
  state.SetItemsProcessed(n);
}

void BM_ResultsWriting_Locked(benchmark::State& state) { WriteResults(state, true); }
void BM_ResultsWriting_Unlocked(benchmark::State& state) { WriteResults(state, false); }

}  // namespace

// Real time: the cost of writing results is the wait for the disk.
BENCHMARK(BM_ResultsWriting_Unlocked)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ResultsWriting_Locked)->Unit(benchmark::kMicrosecond)->UseRealTime();
