#include "testdb/report_window.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavrix {
namespace {

TEST(ReportView, HeaderAndOneLineACheck) {
  TestDetails details;
  details.title = "Pump test";
  details.versionText = "2";
  UutRecord uut;
  uut.serialNumber = "1234";
  uut.operators = "Ann Lee";
  const Micros today = fromCivil({2026, 11, 15, 9, 0, 0, 0});
  // No checks: an empty list.
  ReportView view = BuildReportView(details, uut, today);
  EXPECT_EQ(view.date, "15-11-2026");
  EXPECT_EQ(view.engineers, "Ann Lee");
  EXPECT_EQ(view.testName, "Pump test");
  EXPECT_EQ(view.testVersion, "2");
  EXPECT_EQ(view.serialNumber, "1234");
  EXPECT_TRUE(view.lines.empty());

  uut.checks.push_back({"Fan speed", "FAN", "1200.00", "rpm", "1150", "1250", 3, true, ""});
  uut.checks.push_back({"Seal", "", "Op Fail", "", "", "", 12, false, "Op Fail"});
  view = BuildReportView(details, uut, today);
  EXPECT_THAT(view.lines,
              ::testing::ElementsAre("3: Fan speed\tFAN\t1200.00\trpm\t1150\t1250\tPass",
                                     "12: Seal\t\tOp Fail\t\t\t\tFail\tOp Fail"));
}

}  // namespace
}  // namespace tavrix
