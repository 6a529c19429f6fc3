// The operator message panel, the error display switch and the help text.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class OperatorPanelTest : public CommandTest {};

TEST_F(OperatorPanelTest, OperatorPanelQuestions) {
  op_.answers = {std::string("Continue"), std::string("OK"), std::string("Cancel"),
                 std::string("Cancel"), std::string("OK")};
  EXPECT_EQ(Run({"CONTINUEOK", "ENTEROKCANCEL Go on?, NOSUCHLABEL", "ENTEROKCANCEL Again?, LATER",
                 "WAITSECONDS 100", "LATER:", "WAITSECONDS 1", "ENTEROKCANCEL Last?,"}),
            "");
  ASSERT_EQ(op_.questions.size(), 5u);
  EXPECT_EQ(op_.questions[0].text, "");
  EXPECT_EQ(op_.questions[0].choices, (std::vector<std::string>{"Continue"}));
  // After a CONTINUEOK the panel again offers OK and Cancel.
  EXPECT_EQ(op_.questions[1].choices, (std::vector<std::string>{"OK", "Cancel"}));
  // OK never looked at the missing label; Cancel with an empty label
  // searched for ":" and went back behind "LATER:".
  EXPECT_DOUBLE_EQ(Elapsed(), 2.0);
}

TEST_F(OperatorPanelTest, ErrorDisplaySwitchKeepsTheBoxButNotTheEnd) {
  EXPECT_EQ(Run({"SHOWERROROFF", "WAITSECONDS 0", "WAITSECONDS 9"}),
            "Invalid parameter - 0 - for a WaitSeconds statement");
  EXPECT_TRUE(op_.messages.empty());
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
  EXPECT_EQ(Run({"SHOWERRORON", "WAITSECONDS 0"}),
            "Invalid parameter - 0 - for a WaitSeconds statement");
  EXPECT_EQ(op_.messages.size(), 1u);
}

TEST_F(OperatorPanelTest, HelpTextSectionIsReadUpToItsEnd) {
  EXPECT_EQ(
      Run({"[HELPTEXT]", "First line", "  second, with a comma", "[end] of help", "WAITSECONDS 2"}),
      "");
  EXPECT_EQ(op_.helpText, "First line\r\nsecond, with a comma");
  EXPECT_DOUBLE_EQ(Elapsed(), 2.0);
}

}  // namespace
}  // namespace tavrix
