// The record of one unit under test (UUT): what the operator entered before
// its test, and what its stage checks found.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/civil_time.h"

namespace tavrix {

// A failed check, as the summary file lists it.
struct StageFailure {
  int16_t stage = 0;
  std::string parameter;
  std::string message;
  std::string value;
};

// A recorded check, as the details file lists it.
struct CheckEntry {
  std::string parameter;
  std::string channel;
  std::string value;
  std::string units;
  std::string lower;
  std::string upper;
  int16_t stage = 0;
  bool passed = true;
  std::string failureText;
};

struct UutRecord {
  Micros started = 0;  // when the record was started
  std::string serialNumber;
  Micros testDate = 0;  // the date the operator entered
  std::string operators;
  std::string description;
  int16_t entryStatus = 0;
  float testVersion = -1;
  bool passed = true;
  std::vector<StageFailure> failures;
  std::vector<CheckEntry> checks;
  // For each entry of `checks`, the stage-check row that recorded it (from
  // 1) and that row's check type.
  struct CheckOrigin {
    size_t row = 0;
    std::string kind;
  };
  std::vector<CheckOrigin> checkOrigins;
  // One note for each time the test of this unit went on after the program
  // had ended abruptly (when it went on and how long the gap was).
  std::vector<std::string> resumeNotes;
};

}  // namespace tavrix
