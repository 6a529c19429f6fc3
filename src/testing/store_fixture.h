// What the results-store tests share: a temporary folder of their own,
// sample records, and the back ends to run the same cases against.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "resultsdb/results_store.h"
#include "testing/throwaway_postgres.h"

namespace tavrix::testing {

class TempFolder {
 public:
  // Under /tmp when `reachableByAll` (another account must get in), else
  // under TMPDIR.
  explicit TempFolder(bool reachableByAll = false) {
    std::string base = reachableByAll ? "/tmp" : std::filesystem::temp_directory_path().string();
    std::string pattern = base + "/tavrix results.XXXXXX";
    path_ = ::mkdtemp(pattern.data()) ? pattern : "";
    if (reachableByAll) std::filesystem::permissions(path_, std::filesystem::perms::all);
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A UUT of `checks` checks, the last one failed when `failLast`.
inline StoredUut SampleUut(const std::string& key, const std::string& serial,
                           const std::string& ended, int checks = 3, bool failLast = false) {
  StoredUut u;
  u.key = key;
  u.station = "rig-1";
  u.sequenceFile = "pump.wts";
  u.testDefinition = "c:\\tests\\pump_details.txt";
  u.testTitle = "Pump test";
  u.testVersion = "2";
  u.serial = serial;
  u.testDate = ended.substr(0, 10) + " 00:00:00";
  u.operators = "Ann Lee";
  u.description = "Pump, \"B\" model";
  u.startedAt = ended;
  u.endedAt = ended;
  for (int i = 0; i < checks; ++i) {
    StoredCheck c;
    c.step = 1 + i / 2;
    c.row = i + 1;
    c.kind = "MEASURE";
    c.parameter = "Pressure " + std::to_string(i);
    c.channel = "PRESS";
    c.value = std::to_string(i) + ".25";
    c.units = "bar";
    c.lower = "0";
    c.upper = "5";
    if (failLast && i + 1 == checks) {
      c.passed = false;
      c.message = "Value: 9.00  Min: 0  Max: 5";
    }
    u.checks.push_back(c);
  }
  u.passed = !failLast;
  return u;
}

// One server for every test of a test program, made on first use.
inline ThrowawayPostgres* SharedServer(std::string* reason) {
  static std::string why;
  static std::unique_ptr<ThrowawayPostgres> server = [] {
    auto s = std::make_unique<ThrowawayPostgres>();
    if (!s->start(&why)) s.reset();
    return s;
  }();
  if (reason) *reason = why;
  return server.get();
}

// A fresh database on the shared server: its connection string, or empty
// (and the test skipped) when there is no server.
inline std::string FreshPostgresDatabase() {
  static int count = 0;
  std::string reason;
  ThrowawayPostgres* server = SharedServer(&reason);
  if (server == nullptr) return "";
  const std::string name = "t" + std::to_string(::getpid()) + "_" + std::to_string(++count);
  std::string error;
  if (!server->createDatabase(name, &error)) {
    ADD_FAILURE() << error;
    return "";
  }
  return server->conninfo(name);
}

}  // namespace tavrix::testing
