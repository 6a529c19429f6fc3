// The plant view's server time with a store of 1,000,000 checks (100,000
// units of ten checks, one of them a measured flow on every unit): the unit
// list (first page, and filtered), one unit's page, a check's page with its
// Cpk, charts and all over 100,000 readings, the Cpk figures alone, and the
// live page, and the plant page of 50 stations of eight sockets each. The
// store is a database file, filled once before the first measurement.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <random>

#include "common/file_system.h"
#include "plant_server.h"
#include "resultsdb/results_analytics.h"
#include "resultsdb/results_store.h"
#include "resultsdb/station_status.h"

namespace {

using namespace tavrix;

constexpr int kUnits = 100000;
constexpr int kChecksPerUnit = 10;

struct PlantStore {
  ScratchFolder folder;
  std::unique_ptr<plant::Server> server;
  StoreSpec spec;

  PlantStore() {
    spec.kind = StoreSpec::Kind::kSqlite;
    spec.target = folder.path() + "/results.sqlite";
    std::string error;
    auto store = OpenResultsStore(spec, &error);
    if (!store) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::abort();
    }
    std::mt19937 random(7);
    std::normal_distribution<double> flow(5.0, 0.08);
    std::vector<StoredUut> batch;
    for (int i = 0; i < kUnits; ++i) {
      StoredUut u;
      u.key = "unit-" + std::to_string(i);
      u.station = "rig-" + std::to_string(i % 8);
      u.testTitle = i % 3 ? "Pump test" : "Valve test";
      u.serial = "SN" + std::to_string(100000 + i / 2);
      char ended[32];
      std::snprintf(ended, sizeof ended, "2026-%02d-%02d %02d:%02d:%02d", 1 + i / 10000,
                    1 + i / 400 % 25, i / 60 % 24, i % 60, i % 7);
      u.startedAt = u.endedAt = u.testDate = ended;
      for (int c = 0; c < kChecksPerUnit; ++c) {
        StoredCheck check;
        check.step = 1 + c / 3;
        check.kind = "MEASURE";
        check.parameter = c == 0 ? "Flow" : "Check " + std::to_string(c);
        char value[32];
        std::snprintf(value, sizeof value, "%.3f", c == 0 ? flow(random) : 1.0 + c * 0.01);
        check.value = value;
        check.lower = c == 0 ? "4.7" : "0";
        check.upper = c == 0 ? "5.3" : "2";
        check.passed = c != 0 || (std::stod(check.value) >= 4.7 && std::stod(check.value) <= 5.3);
        u.passed = u.passed && check.passed;
        u.checks.push_back(check);
      }
      batch.push_back(std::move(u));
      if (batch.size() == 1000) {
        if (!store->record(batch, &error)) {
          std::fprintf(stderr, "%s\n", error.c_str());
          std::abort();
        }
        batch.clear();
      }
    }
    // Fifty stations of the plant, each with eight sockets' runs.
    for (int st = 0; st < 50; ++st) {
      std::string runs = "[";
      for (int r = 0; r < 8; ++r) {
        runs += std::string(r ? "," : "") + "{\"id\":\"run-" + std::to_string(r) +
                "\",\"socket\":\"S" + std::to_string(r + 1) +
                "\",\"state\":\"running\",\"line\":" + std::to_string(10 + r) +
                ",\"last_serial\":\"SN" + std::to_string(st * 100 + r) +
                "\",\"last_verdict\":\"PASS\"}";
      }
      if (!PublishStationStatus(*store, {"line-" + std::to_string(st), runs + "]", 1800000000},
                                &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        std::abort();
      }
    }
    plant::ServerOptions options;
    options.listen = "127.0.0.1:0";
    options.store = spec;
    options.runsFolder = folder.path() + "/runs";
    options.auditLog = folder.path() + "/audit.log";
    options.now = [] { return 1800000010LL; };
    server = plant::Server::Start(options, &error);
    if (!server) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::abort();
    }
  }
};

PlantStore& Store() {
  static PlantStore store;
  return store;
}

void Page(benchmark::State& state, const std::string& path,
          const std::multimap<std::string, std::string>& query) {
  PlantStore& s = Store();
  size_t bytes = 0;
  for (auto _ : state) {
    const plant::Reply reply = s.server->page(path, query);
    if (reply.status != 200) state.SkipWithError(reply.body.c_str());
    bytes = reply.body.size();
    benchmark::DoNotOptimize(bytes);
  }
  state.counters["page_bytes"] = static_cast<double>(bytes);
}

void BM_PlantUnitList(benchmark::State& state) { Page(state, "/units", {}); }
void BM_PlantUnitListByStation(benchmark::State& state) {
  Page(state, "/units", {{"station", "rig-3"}, {"from", "2026-05-01"}});
}
void BM_PlantUnitListLastPage(benchmark::State& state) { Page(state, "/units", {{"page", "100"}}); }
// The last page as its links reach it: from the record next to it.
void BM_PlantUnitListOldest(benchmark::State& state) { Page(state, "/units", {{"oldest", "1"}}); }
void BM_PlantUnitListOlderThan(benchmark::State& state) {
  Page(state, "/units", {{"older", "unit-1000"}});
}
void BM_PlantUnitPage(benchmark::State& state) { Page(state, "/unit", {{"key", "unit-54321"}}); }
void BM_PlantCheckPage100k(benchmark::State& state) {
  Page(state, "/check", {{"name", "Flow"}, {"step", "1"}});
}
void BM_PlantLivePage(benchmark::State& state) { Page(state, "/live", {}); }
void BM_PlantStationsPage(benchmark::State& state) { Page(state, "/plant", {}); }

void BM_PlantCpk100k(benchmark::State& state) {
  PlantStore& s = Store();
  std::string error;
  auto store = OpenResultsStore(s.spec, &error);
  for (auto _ : state) {
    std::vector<CheckReading> readings;
    if (!CheckReadings(*store, "Flow", 1, {}, readings, &error)) state.SkipWithError(error.c_str());
    const CheckStatistics stats = ComputeCheckStatistics(readings);
    benchmark::DoNotOptimize(stats.cpk);
    state.counters["readings"] = static_cast<double>(readings.size());
  }
}

BENCHMARK(BM_PlantUnitList)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantUnitListByStation)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantUnitListLastPage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantUnitListOldest)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantUnitListOlderThan)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantUnitPage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantCpk100k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantCheckPage100k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantLivePage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlantStationsPage)->Unit(benchmark::kMillisecond);

}  // namespace
