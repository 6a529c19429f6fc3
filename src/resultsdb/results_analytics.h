// Figures over what the results store holds, for the people around a test
// line: how the readings of one check spread against its limits (mean,
// standard deviation, Cp/Cpk and Pp/Ppk), which checks fail most, and which
// serial numbers were tested more than once. The command line and the plant
// view show the same figures from these functions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "resultsdb/results_store.h"

namespace tavrix {

// One numeric reading of a check, with the record it belongs to.
struct CheckReading {
  std::string endedAt;
  std::string key;  // the unit's record
  double value = 0;
  std::string lower;  // the limits as the check recorded them
  std::string upper;
  bool passed = true;
};

// The readings of the checks named `parameter` (of every kind that recorded
// a number; of stage `step` only unless it is 0: one test may check a name
// at several stages against other limits) in the records the filter takes,
// oldest first; the filter's limit, when set, keeps the newest that many.
bool CheckReadings(SqlResultsStore& store, const std::string& parameter, int step,
                   const UutFilter& filter, std::vector<CheckReading>& out, std::string* error);

// How readings spread against their limits.
//  - mean and the standard deviation of all the readings (n - 1);
//  - the spread within: the mean moving range of consecutive readings over
//    1.128, the short-term variation of individual values;
//  - Cp = (upper - lower) / 6 sigma within, Cpk = the nearer limit's distance
//    from the mean over 3 sigma within; Pp and Ppk the same with the overall
//    standard deviation. With one limit only Cpk and Ppk (one-sided); without
//    limits, or without spread, none.
// The limits are those of the newest reading that has any; `limitsVaried`
// says older readings were recorded against other limits.
struct CheckStatistics {
  size_t count = 0;
  double mean = 0;
  double stdDev = 0;
  double sigmaWithin = 0;
  double minimum = 0;
  double maximum = 0;
  size_t failed = 0;
  std::optional<double> lower;
  std::optional<double> upper;
  bool limitsVaried = false;
  std::optional<double> cp;
  std::optional<double> cpk;
  std::optional<double> pp;
  std::optional<double> ppk;
};
CheckStatistics ComputeCheckStatistics(const std::vector<CheckReading>& readings);

// A limit as written ("5", "-0.25", "1e3"); nullopt when it is not a number
// (empty, "Op Pass").
std::optional<double> LimitValue(const std::string& text);

// A check (a test's parameter at one stage) that failed, with how often it
// failed and ran.
struct FailureRow {
  std::string test;
  int step = 0;
  std::string parameter;
  int failed = 0;
  int checked = 0;
};
// The checks that failed most in the records the filter takes, most first
// (the filter's limit: how many checks; 0 all that failed).
bool TopFailures(SqlResultsStore& store, const UutFilter& filter, std::vector<FailureRow>& out,
                 std::string* error);

// A serial number tested more than once under one test title.
struct RetestRow {
  std::string serial;
  std::string test;
  int tests = 0;
  int passed = 0;
};
// The serial numbers tested more than once in the records the filter takes,
// most tests first (the filter's limit: how many; 0 all).
bool Retests(SqlResultsStore& store, const UutFilter& filter, std::vector<RetestRow>& out,
             std::string* error);

// The checks (parameter and stage) that recorded numbers in the records the filter
// takes, with how many readings each has, most first.
struct NumericCheck {
  std::string test;
  int step = 0;
  std::string parameter;
  std::string units;
  long readings = 0;
};
bool NumericChecks(SqlResultsStore& store, const UutFilter& filter, std::vector<NumericCheck>& out,
                   std::string* error);

}  // namespace tavrix
