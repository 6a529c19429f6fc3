// `tavrix-cli results`: what the results store holds, for people (tables
// that fit a terminal) and for scripts (--json everywhere):
//   list      UUT records, newest first, filtered by serial, station, test,
//             verdict and date range
//   show      one serial number's UUTs with their stage checks
//   export    records with their checks as CSV or JSON
//   yield     pass rate per test and station per day (--first-pass: the
//             first tests of each serial number alone, and the retests)
//   cpk       mean, spread and capability of one check's readings
//   top-failures  the checks that failed most
//   import    loads the details files of a results folder into the store
//   queue     the records that wait in the data root's journal, and for
//             which store; --retry delivers them
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "common/host.h"

namespace CLI {
class App;
}

namespace tavrix {

// Exit statuses of `tavrix-cli results`.
constexpr int kResultsDone = 0;
constexpr int kResultsFailed = 1;  // the store cannot be opened or read; import skipped a file;
                                   // show found no UUT; queue --retry left records waiting
constexpr int kResultsUsage = 2;

struct ResultsOptions {
  std::optional<std::string> store;  // wins over the settings file
  std::optional<std::string> settings;
  std::string serial;
  std::string station;
  std::string socket;
  std::string test;
  std::string verdict;
  std::string from;
  std::string to;
  std::optional<int> limit;  // list: 50 unless given; 0 all
  bool json = false;
  bool csv = false;
  std::string output;      // export: a file instead of standard output
  std::string folder;      // import
  bool retry = false;      // queue
  bool firstPass = false;  // yield
  std::string check;       // cpk
  int step = 0;            // cpk: the check at this stage only
};

struct StoreSpec;

class ResultsCommands {
 public:
  explicit ResultsCommands(CLI::App& app);
  // The status of the results command parsed, or nullopt when none was.
  std::optional<int> run(const Host& host, std::FILE* out, std::FILE* err);

 private:
  // `results queue`: what waits (for `only`, or for every store).
  int runQueue(const Host& host, const std::optional<StoreSpec>& only, std::FILE* out,
               std::FILE* err);

  ResultsOptions options_;
  CLI::App* results_;
  CLI::App* list_;
  CLI::App* show_;
  CLI::App* export_;
  CLI::App* yield_;
  CLI::App* cpk_;
  CLI::App* topFailures_;
  CLI::App* import_;
  CLI::App* queue_;
};

}  // namespace tavrix
