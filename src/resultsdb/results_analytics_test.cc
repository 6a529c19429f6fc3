// The figures of the analytics against data sets whose answers the test
// works out itself, on the database file and on a server of the test's own.
#include "resultsdb/results_analytics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "resultsdb/postgres_connection.h"
#include "resultsdb/sqlite_connection.h"
#include "testing/store_fixture.h"

namespace tavrix {
namespace {

using testing::SampleUut;

class AnalyticsTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    StoreSpec spec;
    if (GetParam() == "sqlite") {
      spec.kind = StoreSpec::Kind::kSqlite;
      spec.target = folder_.file("results.sqlite");
    } else {
      std::string reason;
      if (testing::SharedServer(&reason) == nullptr) GTEST_SKIP() << reason;
      spec.kind = StoreSpec::Kind::kPostgres;
      spec.target = testing::FreshPostgresDatabase();
      ASSERT_FALSE(spec.target.empty());
    }
    std::string error;
    store_ = OpenResultsStore(spec, &error);
    ASSERT_TRUE(store_) << error;
  }

  // A connection to a new, empty database of the back end under test.
  std::unique_ptr<SqlConnection> EmptyDatabase() {
    std::string error;
    std::unique_ptr<SqlConnection> connection;
    if (GetParam() == "sqlite") {
      connection = OpenSqlite(folder_.file("old.sqlite"), {}, &error);
    } else {
      connection = OpenPostgres(testing::FreshPostgresDatabase(), &error);
    }
    EXPECT_TRUE(connection) << error;
    return connection;
  }

  // A record of one MEASURE check "Flow" with `value`, failed when outside
  // [lower, upper].
  static StoredUut Measured(int n, const std::string& serial, double value,
                            const std::string& lower = "9.0", const std::string& upper = "11.0") {
    char ended[32];
    std::snprintf(ended, sizeof ended, "2026-11-%02d %02d:%02d:00", 10 + n / 600, n / 60 % 10,
                  n % 60);
    StoredUut u = SampleUut("k" + std::to_string(n), serial, ended, 1);
    char text[32];
    std::snprintf(text, sizeof text, "%.4f", value);
    u.checks[0].parameter = "Flow";
    u.checks[0].value = text;
    u.checks[0].lower = lower;
    u.checks[0].upper = upper;
    const bool inside = value >= std::stod(lower) && value <= std::stod(upper);
    u.checks[0].passed = inside;
    u.passed = inside;
    return u;
  }

  testing::TempFolder folder_;
  std::unique_ptr<SqlResultsStore> store_;
};

TEST_P(AnalyticsTest, CpkAndPpkOfAKnownDataSetMatchTheTextbookFormulas) {
  // 500 readings of a drifting normal process; the test computes the
  // figures with a two-pass mean and variance of its own.
  std::mt19937 random(29);
  std::normal_distribution<double> noise(10.2, 0.25);
  std::vector<StoredUut> batch;
  std::vector<double> values;
  for (int i = 0; i < 500; ++i) {
    // Rounded as the record holds it.
    const double v = std::round((noise(random) + i * 0.0004) * 1e4) / 1e4;
    values.push_back(v);
    batch.push_back(Measured(i, "S" + std::to_string(i), v));
  }
  // A check of another name, and one of the same name at another stage.
  StoredUut other = Measured(900, "X", 3.0, "0", "5");
  other.checks[0].parameter = "Pressure";
  batch.push_back(other);
  StoredUut later = Measured(901, "Y", 30.0, "20", "40");
  later.checks[0].step = 7;
  batch.push_back(later);
  std::string error;
  ASSERT_TRUE(store_->record(batch, &error)) << error;

  std::vector<CheckReading> readings;
  ASSERT_TRUE(CheckReadings(*store_, "Flow", 0, {}, readings, &error)) << error;
  ASSERT_EQ(readings.size(), values.size() + 1);
  EXPECT_EQ(readings.back().key, "k901");
  ASSERT_TRUE(CheckReadings(*store_, "Flow", 1, {}, readings, &error)) << error;
  ASSERT_EQ(readings.size(), values.size());
  EXPECT_EQ(readings.front().key, "k0");  // oldest first
  EXPECT_EQ(readings.back().key, "k499");

  double sum = 0;
  for (double v : values) sum += v;
  const double mean = sum / values.size();
  double squares = 0;
  double ranges = 0;
  for (size_t i = 0; i < values.size(); ++i) {
    squares += (values[i] - mean) * (values[i] - mean);
    if (i) ranges += std::fabs(values[i] - values[i - 1]);
  }
  const double sd = std::sqrt(squares / (values.size() - 1));
  const double within = ranges / (values.size() - 1) / 1.128;
  const double expectedCpk = std::min(11.0 - mean, mean - 9.0) / (3 * within);
  const double expectedPpk = std::min(11.0 - mean, mean - 9.0) / (3 * sd);

  const CheckStatistics s = ComputeCheckStatistics(readings);
  EXPECT_EQ(s.count, 500u);
  EXPECT_NEAR(s.mean, mean, 1e-9);
  EXPECT_NEAR(s.stdDev, sd, 1e-9);
  ASSERT_TRUE(s.cpk && s.ppk && s.cp && s.pp);
  EXPECT_NEAR(*s.cpk, expectedCpk, 1e-9);
  EXPECT_NEAR(*s.ppk, expectedPpk, 1e-9);
  EXPECT_NEAR(*s.cp, 2.0 / (6 * within), 1e-9);
  EXPECT_NEAR(*s.pp, 2.0 / (6 * sd), 1e-9);
  // The mean sits above the centre: the upper limit is the nearer one.
  EXPECT_LT(*s.cpk, *s.cp);
  EXPECT_FALSE(s.limitsVaried);

  // The filter's limit keeps the newest readings.
  UutFilter newest;
  newest.limit = 10;
  ASSERT_TRUE(CheckReadings(*store_, "Flow", 1, newest, readings, &error)) << error;
  ASSERT_EQ(readings.size(), 10u);
  EXPECT_EQ(readings.front().key, "k490");
  EXPECT_EQ(readings.back().key, "k499");
}

TEST_P(AnalyticsTest, OneSidedLimitsChangedLimitsAndTooFewReadings) {
  std::vector<CheckReading> readings(3);
  readings[0].value = 1;
  readings[0].lower = "0";
  readings[0].upper = "10";
  readings[1].value = 2;
  readings[1].lower = "";
  readings[1].upper = "4";
  readings[2].value = 3;
  readings[2].lower = "Op Pass";
  readings[2].upper = "4";
  CheckStatistics s = ComputeCheckStatistics(readings);
  ASSERT_TRUE(s.upper);
  EXPECT_FALSE(s.lower);
  EXPECT_EQ(*s.upper, 4);
  EXPECT_TRUE(s.limitsVaried);
  EXPECT_FALSE(s.cp);  // needs both limits
  ASSERT_TRUE(s.cpk);
  EXPECT_NEAR(*s.cpk, (4 - 2.0) / (3 * 1.0 / 1.128), 1e-12);
  ASSERT_TRUE(s.ppk);
  EXPECT_NEAR(*s.ppk, (4 - 2.0) / 3, 1e-12);  // the standard deviation of 1, 2, 3 is 1

  readings.resize(1);
  s = ComputeCheckStatistics(readings);
  EXPECT_EQ(s.count, 1u);
  EXPECT_FALSE(s.cpk || s.ppk);
  // No spread: no index rather than an infinite one.
  readings.assign(4, readings[0]);
  s = ComputeCheckStatistics(readings);
  EXPECT_FALSE(s.cpk || s.ppk);
  EXPECT_EQ(ComputeCheckStatistics({}).count, 0u);
  EXPECT_FALSE(LimitValue("inf"));
  EXPECT_FALSE(LimitValue("1.5x"));
  EXPECT_EQ(LimitValue("-2.5"), -2.5);
}

TEST_P(AnalyticsTest, FirstPassYieldRetestsAndTopFailures) {
  // Serial A fails then passes; B passes first time; C fails twice then
  // passes; D fails once. Flow fails four times, Pressure once.
  std::vector<StoredUut> batch = {
      Measured(1, "A", 12.0), Measured(2, "B", 10.0), Measured(3, "A", 10.0), Measured(4, "C", 8.0),
      Measured(5, "C", 8.5),  Measured(6, "C", 10.1), Measured(7, "D", 11.5),
  };
  StoredUut p = SampleUut("p1", "E", "2026-11-10 00:09:00", 3, true);
  batch.push_back(p);
  std::string error;
  ASSERT_TRUE(store_->record(batch, &error)) << error;

  std::vector<YieldRow> yield;
  ASSERT_TRUE(store_->yield({}, yield, &error)) << error;
  ASSERT_EQ(yield.size(), 1u);
  EXPECT_EQ(yield[0].tested, 8);
  EXPECT_EQ(yield[0].passed, 3);       // B, A's second, C's third
  EXPECT_EQ(yield[0].firstTested, 5);  // A B C D E
  EXPECT_EQ(yield[0].firstPassed, 1);  // B only
  // Within a window the first test is still the serial's first ever.
  UutFilter late;
  late.from = "2026-11-10 00:03:00";
  ASSERT_TRUE(store_->yield(late, yield, &error)) << error;
  ASSERT_EQ(yield.size(), 1u);
  EXPECT_EQ(yield[0].tested, 6);
  EXPECT_EQ(yield[0].firstTested, 3);  // C D E

  std::vector<RetestRow> retests;
  ASSERT_TRUE(Retests(*store_, {}, retests, &error)) << error;
  ASSERT_EQ(retests.size(), 2u);
  EXPECT_EQ(retests[0].serial, "C");
  EXPECT_EQ(retests[0].tests, 3);
  EXPECT_EQ(retests[0].passed, 1);
  EXPECT_EQ(retests[1].serial, "A");

  std::vector<FailureRow> failures;
  ASSERT_TRUE(TopFailures(*store_, {}, failures, &error)) << error;
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0].parameter, "Flow");
  EXPECT_EQ(failures[0].failed, 4);
  EXPECT_EQ(failures[0].checked, 7);
  EXPECT_EQ(failures[1].parameter, "Pressure 2");
  EXPECT_EQ(failures[1].step, 2);
  EXPECT_EQ(failures[1].failed, 1);
  UutFilter one;
  one.limit = 1;
  one.serial = "C";
  ASSERT_TRUE(TopFailures(*store_, one, failures, &error)) << error;
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].failed, 2);

  std::vector<NumericCheck> numeric;
  ASSERT_TRUE(NumericChecks(*store_, {}, numeric, &error)) << error;
  ASSERT_EQ(numeric.size(), 4u);
  EXPECT_EQ(numeric[0].parameter, "Flow");
  EXPECT_EQ(numeric[0].readings, 7);

  long count = 0;
  UutFilter failed;
  failed.verdict = "FAIL";
  ASSERT_TRUE(store_->count(failed, count, &error)) << error;
  EXPECT_EQ(count, 5);
  UutFilter page;
  page.limit = 3;
  page.offset = 6;
  std::vector<StoredUut> listed;
  ASSERT_TRUE(store_->list(page, listed, &error)) << error;
  ASSERT_EQ(listed.size(), 2u);  // the two oldest
  EXPECT_EQ(listed[1].key, "k1");
  // The sockets of a station of several are in its records' station name.
  StoredUut s1 = SampleUut("s1", "Q1", "2026-11-12 00:00:00", 1);
  s1.station = "LINE3/S1";
  StoredUut s2 = SampleUut("s2", "Q2", "2026-11-12 00:01:00", 1);
  s2.station = "LINE3/S_";
  StoredUut s3 = SampleUut("s3", "Q3", "2026-11-12 00:02:00", 1);
  s3.station = "LINE3/S2";
  ASSERT_TRUE(store_->record({s1, s2, s3}, &error)) << error;
  UutFilter socket;
  socket.socket = "S_";
  ASSERT_TRUE(store_->list(socket, listed, &error)) << error;
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].key, "s2");
  socket.socket = "S1";
  ASSERT_TRUE(store_->count(socket, count, &error)) << error;
  EXPECT_EQ(count, 1);
  UutFilter byKey;
  byKey.key = "k4";
  ASSERT_TRUE(store_->fetch(byKey, listed, &error)) << error;
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].checks.size(), 1u);
}

// Four readings whose moving ranges depend on the order their units ended
// (stored in another order, with keys in the reverse order): mean 10,
// moving ranges 0.8, 0.6, 0.4, so sigma within 0.6 / 1.128 and Cpk = Cp =
// 1.128 / 1.8; standard deviation sqrt(0.4 / 3), Ppk = 1 / (3 sqrt(0.4 / 3)).
// The same from a store written under the schema before checks kept their
// unit's end, migrated.
TEST_P(AnalyticsTest, AKnownCpkThroughFiltersAndFromAStoreOfTheOlderSchema) {
  const std::vector<std::pair<std::string, double>> ordered = {
      {"2026-11-10 08:00:00", 9.6},
      {"2026-11-10 09:00:00", 10.4},
      {"2026-11-11 08:00:00", 9.8},
      {"2026-11-12 08:00:00", 10.2},
  };
  const double cpk = 1.128 / 1.8;
  const double ppk = 1.0 / (3 * std::sqrt(0.4 / 3));
  auto check = [&](SqlResultsStore& store, const UutFilter& filter, const char* what) {
    SCOPED_TRACE(what);
    std::vector<CheckReading> readings;
    std::string error;
    ASSERT_TRUE(CheckReadings(store, "Flow", 1, filter, readings, &error)) << error;
    ASSERT_EQ(readings.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(readings[i].endedAt, ordered[i].first);
      EXPECT_EQ(readings[i].value, ordered[i].second);
      EXPECT_EQ(readings[i].key, "z" + std::to_string(4 - i));
    }
    const CheckStatistics s = ComputeCheckStatistics(readings);
    ASSERT_TRUE(s.cpk && s.ppk && s.cp);
    EXPECT_NEAR(*s.cpk, cpk, 1e-12);
    EXPECT_NEAR(*s.cp, cpk, 1e-12);
    EXPECT_NEAR(*s.ppk, ppk, 1e-12);
    EXPECT_DOUBLE_EQ(s.mean, 10.0);
  };

  std::vector<StoredUut> batch;
  for (int i : {3, 0, 2, 1}) {
    StoredUut u = Measured(i, "S" + std::to_string(i), ordered[i].second);
    u.key = "z" + std::to_string(4 - i);
    u.startedAt = u.endedAt = ordered[i].first;
    batch.push_back(u);
  }
  // Another station and test's wild reading between them, and an early one.
  StoredUut other = Measured(20, "T", 50.0, "0", "100");
  other.station = "rig-2";
  other.testTitle = "Valve test";
  other.endedAt = "2026-11-10 08:30:00";
  StoredUut early = Measured(21, "U", 0.0, "0", "100");
  early.endedAt = "2026-11-09 23:59:59";
  std::string error;
  ASSERT_TRUE(store_->record(batch, &error)) << error;
  ASSERT_TRUE(store_->record({other, early}, &error)) << error;

  UutFilter filter;
  filter.station = "rig-1";
  filter.from = "2026-11-10 00:00:00";
  check(*store_, filter, "station and from");
  filter.station.clear();
  filter.test = "Pump test";
  filter.from.clear();
  filter.limit = 4;  // the newest four: the early and the other are older
  check(*store_, filter, "test and the newest four");
  filter = {};
  filter.serial = "S2";
  std::vector<CheckReading> one;
  ASSERT_TRUE(CheckReadings(*store_, "Flow", 1, filter, one, &error)) << error;
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].value, 9.8);
  filter = {};
  filter.from = "2026-11-10 08:30:00";
  filter.to = "2026-11-11 23:59:59";
  ASSERT_TRUE(CheckReadings(*store_, "Flow", 1, filter, one, &error)) << error;
  ASSERT_EQ(one.size(), 3u);  // the other, 10.4 and 9.8
  EXPECT_EQ(one[0].value, 50.0);
  EXPECT_EQ(one[2].value, 9.8);

  // A database of the schema before: its checks have no end of their own.
  auto connection = EmptyDatabase();
  ASSERT_TRUE(connection);
  ASSERT_TRUE(
      connection->script("CREATE TABLE schema_migrations (version INTEGER PRIMARY KEY, "
                         "name TEXT NOT NULL, applied_at TEXT NOT NULL)",
                         &error))
      << error;
  for (const Migration& m : SchemaMigrations()) {
    if (m.number > 3) break;
    ASSERT_TRUE(connection->script(m.sql, &error)) << error;
    ASSERT_TRUE(connection->exec("INSERT INTO schema_migrations VALUES ($1, $2, 'then')",
                                 {std::to_string(m.number), std::string(m.name)}, nullptr, nullptr,
                                 &error))
        << error;
  }
  for (int i : {3, 0, 2, 1}) {
    const std::string key = "z" + std::to_string(4 - i);
    ASSERT_TRUE(connection->exec(
        "INSERT INTO uut VALUES ($1, 'rig-1', 's', 'd', 'Pump test', '1', $2, $3, '', '', $3, $3, "
        "'PASS', 1, 0)",
        {key, "S" + std::to_string(i), ordered[i].first}, nullptr, nullptr, &error))
        << error;
    ASSERT_TRUE(connection->exec(
        "INSERT INTO stage_check VALUES ($1, 1, 1, 1, 'MEASURE', 'Flow', 'F', $2, $3, 'l', "
        "'9.0', '11.0', 'Pass', '')",
        {key, std::to_string(ordered[i].second), std::to_string(ordered[i].second)}, nullptr,
        nullptr, &error))
        << error;
  }
  SqlResultsStore old(std::move(connection));
  ASSERT_TRUE(old.migrate(&error)) << error;
  check(old, {}, "migrated");
}

INSTANTIATE_TEST_SUITE_P(BackEnds, AnalyticsTest, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace tavrix
