// What the results-file tests share: a results folder of the test's own
// with the details of one test, and sample UUTs.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "common/civil_time.h"
#include "common/text_items.h"
#include "testdb/results_files.h"
#include "testing/testdb_fixture.h"

namespace tavrix {
namespace {

using testing_support::TempFolder;

// 2026-11-15 14:30:05
const Micros kWhen = fromCivil({2026, 11, 15, 14, 30, 5, 0});

class ResultsFilesTest : public ::testing::Test {
 protected:
  ResultsFilesTest() : paths_(folder_.path()) {
    paths_.setDrive('c', folder_.path());
    details_.title = "Valve test";
    details_.versionText = "3";
    details_.resultsDirectory = "c:\\results\\";
  }

  UutRecord Passed(const std::string& serial) {
    UutRecord uut;
    uut.serialNumber = serial;
    uut.description = "Pump A";
    uut.operators = "Ann Lee";
    uut.checks.push_back({"Pressure", "PRESS", "1.50", "bar", "1", "2", 1, true, ""});
    return uut;
  }
  UutRecord Failed(const std::string& serial) {
    UutRecord uut = Passed(serial);
    uut.passed = false;
    uut.failures = {{2, "Flow", "Value: 3.00  Min: 1  Max: 2", "3.00"},
                    {5, "Label", "Op Fail", ""},
                    {12, "P1-P2", "Value: -0.50  Min: 0  Max: 1", "-0.50"}};
    uut.checks.push_back(
        {"Flow", "FLOW", "3.00", "l/min", "1", "2", 2, false, "Value: 3.00  Min: 1  Max: 2"});
    return uut;
  }
  void Write(const UutRecord& uut, Micros when = kWhen) {
    std::string error;
    ASSERT_TRUE(WriteTestResults(folder_.files(), details_, uut, settings_, paths_, when, &error))
        << error;
  }

  TempFolder folder_;
  PathMap paths_;
  TestDetails details_;
  ResultsSettings settings_;
};

// Counts the summary entries of serial `serial` ("<serial>\tPASS" at a line
// start, or after the bare-name prefix).
int Entries(const std::string& summary, const std::string& serial) {
  int n = 0;
  for (const auto& line : splitLines(summary)) {
    const size_t at = line.find(serial + "\tPASS\t");
    if (at != std::string::npos && (at == 0 || line.compare(0, at, "Valve test_261115.txt") == 0))
      ++n;
  }
  return n;
}

}  // namespace
}  // namespace tavrix
