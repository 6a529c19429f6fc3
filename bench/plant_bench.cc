// The plant view's server time with a store of 1,000,000 checks (100,000
// units of ten checks, one of them a measured flow on every unit): the unit
// list (first page, and filtered), one unit's page, a check's page with its
// Cpk, charts and all over 100,000 readings, the Cpk figures alone, and the
// live page, and the plant page of 50 stations of eight sockets each. The
// store is a database file, or (the ...Postgres measurements) a throwaway
// database server of the benchmark's own, each filled once before its first
// measurement.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <random>

#include "bench_support.h"
#include "common/file_system.h"
#include "machine_door.h"
#include "plant_server.h"
#include "resultsdb/results_analytics.h"
#include "resultsdb/results_store.h"
#include "resultsdb/station_status.h"
#include "testing/throwaway_postgres.h"

namespace {

using namespace tavrix;

// (The smoke pass fills a small store.)
const int kUnits = tavrix::bench::BenchSize(100000, 2000);
constexpr int kChecksPerUnit = 10;

struct PlantStore {
  ScratchFolder folder;
  std::unique_ptr<ThrowawayPostgres> postgres;
  std::unique_ptr<plant::Server> server;
  StoreSpec spec;

  explicit PlantStore(bool onServer) {
    std::string error;
    if (onServer) {
      postgres = std::make_unique<ThrowawayPostgres>();
      if (!postgres->start(&error) || !postgres->createDatabase("plant", &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        std::abort();
      }
      spec.kind = StoreSpec::Kind::kPostgres;
      spec.target = postgres->conninfo("plant");
    } else {
      spec.kind = StoreSpec::Kind::kSqlite;
      spec.target = folder.path() + "/results.sqlite";
    }
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
    server = plant::Server::Start(localFiles(), options, &error);
    if (!server) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::abort();
    }
  }
};

// The database file, or the server.
PlantStore& Store(bool onServer) {
  if (onServer) {
    static PlantStore server(true);
    return server;
  }
  static PlantStore file(false);
  return file;
}

void Page(benchmark::State& state, bool onServer, const std::string& path,
          const std::multimap<std::string, std::string>& query) {
  PlantStore& s = Store(onServer);
  size_t bytes = 0;
  for (auto _ : state) {
    const plant::Reply reply = s.server->page(path, query);
    if (reply.status != 200) state.SkipWithError(reply.body.c_str());
    bytes = reply.body.size();
    benchmark::DoNotOptimize(bytes);
  }
  state.counters["page_bytes"] = static_cast<double>(bytes);
}

void BM_PlantUnitList(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/units", {});
}
void BM_PlantUnitListByStation(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/units", {{"station", "rig-3"}, {"from", "2026-05-01"}});
}
void BM_PlantUnitListLastPage(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/units", {{"page", "100"}});
}
// The last page as its links reach it: from the record next to it.
void BM_PlantUnitListOldest(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/units", {{"oldest", "1"}});
}
void BM_PlantUnitListOlderThan(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/units", {{"older", "unit-1000"}});
}
void BM_PlantUnitPage(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/unit", {{"key", "unit-54321"}});
}
void BM_PlantCheckPage100k(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/check", {{"name", "Flow"}, {"step", "1"}});
}
void BM_PlantLivePage(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/live", {});
}
void BM_PlantStationsPage(benchmark::State& state, bool onServer) {
  Page(state, onServer, "/plant", {});
}

void BM_PlantCpk100k(benchmark::State& state, bool onServer) {
  PlantStore& s = Store(onServer);
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

BENCHMARK_CAPTURE(BM_PlantUnitList, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitListByStation, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitListLastPage, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitListOldest, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitListOlderThan, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitPage, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantCpk100k, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantCheckPage100k, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantLivePage, File, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantStationsPage, File, false)->Unit(benchmark::kMillisecond);
// The same on a plant's database server.
BENCHMARK_CAPTURE(BM_PlantUnitList, Postgres, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitListOldest, Postgres, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantUnitPage, Postgres, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantCpk100k, Postgres, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantCheckPage100k, Postgres, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PlantStationsPage, Postgres, true)->Unit(benchmark::kMillisecond);

}  // namespace
