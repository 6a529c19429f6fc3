#include "resultsdb/results_analytics.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace tavrix {

namespace {

// d2 for subgroups of two: the mean moving range of individual values over
// this estimates their standard deviation within.
constexpr double kD2 = 1.128;

int Int(const std::string& text) { return std::atoi(text.c_str()); }

// The records the filter takes, as a subquery with the columns the
// analytics join on.
std::string Records(const UutFilter& filter, SqlParams& params) {
  return "(SELECT uut_key, ended_at, serial, station, test_title FROM uut" +
         UutFilterSql(filter, params) + ")";
}

}  // namespace

std::optional<double> LimitValue(const std::string& text) {
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  while (end && (*end == ' ' || *end == '\t')) ++end;
  if (end == text.c_str() || *end != '\0' || !std::isfinite(number)) return std::nullopt;
  return number;
}

bool CheckReadings(SqlResultsStore& store, const std::string& parameter, int step,
                   const UutFilter& filter, std::vector<CheckReading>& out, std::string* error) {
  // Each check keeps the time its unit ended, so the readings of a stage come
  // newest first from the readings index as they are; the units are asked
  // only when the filter names something other than a time.
  SqlParams params{parameter};
  std::string sql =
      "SELECT c.ended_at, c.uut_key, c.reading, c.lower_limit, c.upper_limit, c.result FROM "
      "stage_check c WHERE c.parameter = $1";
  if (step != 0) {
    params.push_back(std::to_string(step));
    sql += " AND c.step = $" + std::to_string(params.size());
  }
  sql += " AND c.reading IS NOT NULL";
  auto bound = [&](const std::string& value, const char* condition) {
    if (value.empty()) return;
    params.push_back(value);
    sql += std::string(" AND c.ended_at ") + condition + " $" + std::to_string(params.size());
  };
  bound(filter.from, ">=");
  bound(filter.to, "<=");
  UutFilter units = filter;
  units.from.clear();
  units.to.clear();
  units.limit = 0;
  units.offset = 0;
  const std::string where = UutFilterSql(units, params);
  if (!where.empty()) sql += " AND c.uut_key IN (SELECT uut_key FROM uut" + where + ")";
  sql += " ORDER BY c.ended_at DESC, c.uut_key DESC, c.position DESC";
  if (filter.limit > 0) sql += " LIMIT " + std::to_string(filter.limit);
  // Taken newest first as the index gives them, and turned oldest first.
  out.clear();
  if (!store.connection().each(
          sql, params,
          [&out](const SqlRowView& row) {
            CheckReading& r = out.emplace_back();
            r.endedAt = row.text(0);
            r.key = row.text(1);
            r.value = row.number(2);
            r.lower = row.text(3);
            r.upper = row.text(4);
            r.passed = row.text(5) == "Pass";
          },
          error)) {
    return false;
  }
  std::reverse(out.begin(), out.end());
  return true;
}

CheckStatistics ComputeCheckStatistics(const std::vector<CheckReading>& readings) {
  CheckStatistics s;
  s.count = readings.size();
  if (readings.empty()) return s;
  // The limits of the newest reading that has any.
  const CheckReading* limits = nullptr;
  for (auto it = readings.rbegin(); it != readings.rend() && !limits; ++it) {
    s.lower = LimitValue(it->lower);
    s.upper = LimitValue(it->upper);
    if (s.lower || s.upper) limits = &*it;
  }
  // Welford's running mean and sum of squares: no loss of precision when
  // the readings sit far from zero.
  double mean = 0;
  double m2 = 0;
  double movingRanges = 0;
  s.minimum = s.maximum = readings.front().value;
  for (size_t i = 0; i < readings.size(); ++i) {
    const CheckReading& r = readings[i];
    const double delta = r.value - mean;
    mean += delta / static_cast<double>(i + 1);
    m2 += delta * (r.value - mean);
    s.minimum = std::min(s.minimum, r.value);
    s.maximum = std::max(s.maximum, r.value);
    if (!r.passed) ++s.failed;
    if (i > 0) movingRanges += std::fabs(r.value - readings[i - 1].value);
    // Limits written as the newest's are the same; others are compared by
    // value ("5" and "5.0" are one limit).
    if (limits && !s.limitsVaried && (r.lower != limits->lower || r.upper != limits->upper) &&
        (LimitValue(r.lower) != s.lower || LimitValue(r.upper) != s.upper))
      s.limitsVaried = true;
  }
  s.mean = mean;
  if (s.count < 2) return s;
  s.stdDev = std::sqrt(m2 / static_cast<double>(s.count - 1));
  s.sigmaWithin = movingRanges / static_cast<double>(s.count - 1) / kD2;
  auto indices = [&](double sigma, std::optional<double>& capability,
                     std::optional<double>& centred) {
    if (!(sigma > 0)) return;
    if (s.lower && s.upper) capability = (*s.upper - *s.lower) / (6 * sigma);
    std::optional<double> nearest;
    if (s.upper) nearest = (*s.upper - s.mean) / (3 * sigma);
    if (s.lower) {
      const double below = (s.mean - *s.lower) / (3 * sigma);
      nearest = nearest ? std::min(*nearest, below) : below;
    }
    centred = nearest;
  };
  indices(s.sigmaWithin, s.cp, s.cpk);
  indices(s.stdDev, s.pp, s.ppk);
  return s;
}

bool TopFailures(SqlResultsStore& store, const UutFilter& filter, std::vector<FailureRow>& out,
                 std::string* error) {
  SqlParams params;
  std::string sql =
      "SELECT u.test_title, c.step, c.parameter, SUM(CASE WHEN c.result = 'Fail' THEN 1 ELSE 0 "
      "END) AS failed, COUNT(*) FROM stage_check c JOIN " +
      Records(filter, params) +
      " u ON u.uut_key = c.uut_key GROUP BY u.test_title, c.step, c.parameter HAVING SUM(CASE "
      "WHEN c.result = 'Fail' THEN 1 ELSE 0 END) > 0 ORDER BY failed DESC, COUNT(*) DESC, "
      "u.test_title, c.step, c.parameter";
  if (filter.limit > 0) sql += " LIMIT " + std::to_string(filter.limit);
  SqlRows rows;
  if (!store.connection().exec(sql, params, &rows, nullptr, error)) return false;
  out.clear();
  for (const auto& row : rows)
    out.push_back({row[0], Int(row[1]), row[2], Int(row[3]), Int(row[4])});
  return true;
}

bool Retests(SqlResultsStore& store, const UutFilter& filter, std::vector<RetestRow>& out,
             std::string* error) {
  SqlParams params;
  std::string sql =
      "SELECT serial, test_title, COUNT(*), SUM(CASE WHEN verdict = 'PASS' THEN 1 ELSE 0 END) "
      "FROM uut" +
      UutFilterSql(filter, params) +
      " GROUP BY serial, test_title HAVING COUNT(*) > 1 ORDER BY COUNT(*) DESC, serial, "
      "test_title";
  if (filter.limit > 0) sql += " LIMIT " + std::to_string(filter.limit);
  SqlRows rows;
  if (!store.connection().exec(sql, params, &rows, nullptr, error)) return false;
  out.clear();
  for (const auto& row : rows) out.push_back({row[0], row[1], Int(row[2]), Int(row[3])});
  return true;
}

bool NumericChecks(SqlResultsStore& store, const UutFilter& filter, std::vector<NumericCheck>& out,
                   std::string* error) {
  SqlParams params;
  std::string sql =
      "SELECT u.test_title, c.step, c.parameter, MAX(c.units), COUNT(*) FROM stage_check c JOIN " +
      Records(filter, params) +
      " u ON u.uut_key = c.uut_key WHERE c.reading IS NOT NULL GROUP BY u.test_title, c.step, "
      "c.parameter ORDER BY COUNT(*) DESC, u.test_title, c.step, c.parameter";
  if (filter.limit > 0) sql += " LIMIT " + std::to_string(filter.limit);
  SqlRows rows;
  if (!store.connection().exec(sql, params, &rows, nullptr, error)) return false;
  out.clear();
  for (const auto& row : rows)
    out.push_back({row[0], Int(row[1]), row[2], row[3], std::atol(row[4].c_str())});
  return true;
}

}  // namespace tavrix
