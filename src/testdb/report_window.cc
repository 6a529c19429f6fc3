#include "testdb/report_window.h"

#include "common/text_conventions.h"

namespace tavrix {

ReportView BuildReportView(const TestDetails& details, const UutRecord& uut, Micros today) {
  ReportView view;
  view.date = formatDate(today, "dd-mm-yyyy");
  view.engineers = uut.operators;
  view.testName = details.title;
  view.testVersion = details.versionText;
  view.serialNumber = uut.serialNumber;
  for (const auto& c : uut.checks) {
    std::string line = formatNumber(c.stage, "0") + ": ";
    for (const std::string* column :
         {&c.parameter, &c.channel, &c.value, &c.units, &c.lower, &c.upper}) {
      line += *column;
      line += '\t';
    }
    line += c.passed ? "Pass" : "Fail\t" + c.failureText;
    view.lines.push_back(std::move(line));
  }
  return view;
}

}  // namespace tavrix
