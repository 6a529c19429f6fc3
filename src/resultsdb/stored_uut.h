// What the results store keeps of one unit under test: the record the
// station wrote as the UUT ended, and one row per recorded stage check.
#pragma once

#include <string>
#include <vector>

namespace tavrix {

inline constexpr std::string_view kVerdictPassText = "PASS";
inline constexpr std::string_view kVerdictFailText = "FAIL";

struct StoredCheck {
  int step = 0;
  int row = 0;       // the stage-check row in the test definition, from 1; 0 unknown
  std::string kind;  // MANUAL, RECORD, MEASURE, DIFFERENCE; empty when unknown
  std::string parameter;
  std::string channel;
  std::string value;  // as recorded ("#0.00", or "Op Pass")
  std::string units;
  std::string lower;
  std::string upper;
  bool passed = true;
  std::string message;  // the failure text of a failed check

  bool operator==(const StoredCheck&) const = default;
};

struct StoredUut {
  // Chosen once, when the UUT ends: writing the record again under the same
  // key changes nothing.
  std::string key;
  std::string station;
  std::string sequenceFile;
  std::string testDefinition;  // the details file
  std::string testTitle;
  std::string testVersion;
  std::string serial;
  std::string testDate;  // "YYYY-MM-DD HH:MM:SS", as the operator entered it
  std::string operators;
  std::string description;
  std::string startedAt;  // "YYYY-MM-DD HH:MM:SS"
  std::string endedAt;
  bool passed = true;
  // A test that went on after the program ended abruptly: one line per
  // resume, when it went on, after what gap, from which checkpoint. Empty
  // for a test that ran without a break.
  std::string resumed;
  std::vector<StoredCheck> checks;
  // The results files written for it, as local paths (none when results
  // files are off).
  std::vector<std::string> files;
  // Filled by the store when it lists records without their checks.
  int checkCount = 0;
  int failedCount = 0;

  bool operator==(const StoredUut&) const = default;
};

// `uut` with every text converted to UTF-8 as the trace converts text:
// valid UTF-8 stays, any other byte is taken as a Windows-1252 character.
// Both back ends and the journal keep the converted text.
StoredUut Utf8Record(const StoredUut& uut);

}  // namespace tavrix
