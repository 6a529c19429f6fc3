// Shared pieces of the benchmarks: an operator that shows nothing, an
// engine over this computer's files, and sequence files written to a
// temporary folder.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "common/paths.h"
#include "engine/engine.h"
#include "machine_door.h"
#include "platform/files.h"
#include "sequencer/operator.h"

namespace tavrix::bench {

// TAVRIX_BENCH_SMOKE=1 is the test command's pass over the benchmarks, which
// only shows that each still runs and reports no error: the ones that fill a
// large store, measure for a set time, simulate days or turn a loop a
// million times do it at a small size.
inline bool BenchSmoke() {
  const char* smoke = std::getenv("TAVRIX_BENCH_SMOKE");
  return smoke != nullptr && *smoke != '\0' && std::string(smoke) != "0";
}
// `full`, or `smoke` in the smoke pass.
template <typename T>
T BenchSize(T full, T smoke) {
  return BenchSmoke() ? smoke : full;
}

class QuietOperator : public Operator {
 public:
  void ask(const Question& q, std::function<void(Answer)> answered) override {
    answered(q.choices.empty() ? std::string() : q.choices.front());
  }
  void showMessage(std::string_view, std::string_view) override {}
};

// An engine on `clock` over this computer's files below the data root, on
// the simulated rig when `rig`.
inline std::unique_ptr<Engine> MakeBenchEngine(std::unique_ptr<Clock> clock, Operator& op,
                                               bool rig = false) {
  EngineConfig config;
  config.clock = std::move(clock);
  config.files = std::make_unique<LocalFileSystem>(defaultDataRoot());
  config.op = &op;
  if (rig) config.link = "sim";
  return BuildEngine(std::move(config));
}

// The temporary files of the benchmarks, removed when the program ends.
class BenchFiles {
 public:
  ~BenchFiles() {
    for (const std::string& name : names_) std::remove(name.c_str());
  }
  void add(const std::string& name) { names_.push_back(name); }

 private:
  std::vector<std::string> names_;
};

// A new temporary file's path ending in `suffix`; the file goes at the end.
inline std::string TempBenchPath(const std::string& suffix = "") {
  static BenchFiles files;
  static int made = 0;
  const std::string name = platform::tempFolder() + "/tavrixbench-" +
                           std::to_string(platform::processId()) + "-" + std::to_string(++made) +
                           suffix;
  files.add(name);
  return name;
}

// Writes `lines` with CR LF ends to a new temporary file and returns its path.
inline std::string WriteSequence(const std::vector<std::string>& lines) {
  const std::string name = TempBenchPath();
  std::ofstream out(name, std::ios::binary);
  for (const auto& line : lines) out << line << "\r\n";
  return name;
}

// 30,000 lines of labels and unknown words, the last one a label.
inline std::vector<std::string> LabelsAndWords(int count = 30000) {
  std::vector<std::string> lines;
  lines.reserve(count);
  for (int i = 0; i < count - 1; ++i) {
    lines.push_back(i % 2 ? "LABEL" + std::to_string(i) + ":" : "REMARK line " + std::to_string(i));
  }
  lines.push_back("LAST:");
  return lines;
}

}  // namespace tavrix::bench
