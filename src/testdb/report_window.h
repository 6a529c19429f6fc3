// What the report window shows for the current UUT: the date, the
// operator(s), the test's title and version, the serial number, and one line
// per recorded check. The window itself belongs to the desktop front end.
#pragma once

#include <string>
#include <vector>

#include "common/civil_time.h"
#include "testdb/definition_files.h"
#include "testdb/uut_record.h"

namespace tavrix {

struct ReportView {
  std::string date;       // today, "dd-mm-yyyy"
  std::string engineers;  // the operator(s)
  std::string testName;
  std::string testVersion;
  std::string serialNumber;
  std::vector<std::string> lines;
};

// One line a check, in check-list order: the stage (pattern "0") and ": ",
// then parameter, channel, value, units, lower and upper, then "Pass", or
// "Fail" and the failure text; the columns after ": " are separated by a TAB.
ReportView BuildReportView(const TestDetails& details, const UutRecord& uut, Micros today);

}  // namespace tavrix
