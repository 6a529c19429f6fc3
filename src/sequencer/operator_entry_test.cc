// ENTERSEND, SELECTMENU, DOWITHSHOW and MANUALADJUST with a recording
// operator and a table of channels.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class OperatorEntryTest : public CommandTest {};

TEST_F(OperatorEntryTest, EnterSendWritesWhatTheOperatorTyped) {
  channels_.values["SETPOINT"] = "0";
  op_.answers = {std::string(" 42.5 ")};
  EXPECT_EQ(Run({"ENTERSEND Enter the set point, SETPOINT"}), "");
  EXPECT_EQ(channels_.writes, (Lines{"SETPOINT=42.5"}));
  ASSERT_EQ(op_.questions.size(), 1u);
  EXPECT_EQ(op_.questions[0].kind, "ENTERSEND");
  EXPECT_TRUE(op_.questions[0].choices.empty());
  op_.answers = {std::string("1")};
  EXPECT_EQ(Run({"ENTERSEND Value, NOSUCH"}),
            "EnterSend - cannot write 1 to NOSUCH: no such channel");
  EXPECT_EQ(Run({"ENTERSEND Value"}), "EnterSend - no channel given");
  EXPECT_EQ(Run({"ENTERSEND Value, SETPOINT"}).rfind("No answer to the ENTERSEND question", 0), 0u);
}

TEST_F(OperatorEntryTest, SelectMenuJumpsToTheChosenLabel) {
  op_.answers = {std::string("COLD")};
  EXPECT_EQ(Run({"SELECTMENU Which test?, HOT, COLD, SOAK", "STOP", "HOT:", "STOP",
                 "COLD:", "WAITRANDOM 2, 2"}),
            "");
  EXPECT_EQ(op_.questions.back().choices, (Lines{"HOT", "COLD", "SOAK"}));
  EXPECT_DOUBLE_EQ(Elapsed(), 2.0);
  op_.answers = {std::string("SOAK")};
  EXPECT_EQ(Run({"SELECTMENU Which test?, HOT, SOAK"}), "Label SOAK: does not exist");
  EXPECT_EQ(Run({"SELECTMENU Which test?"}), "SelectMenu - no menu choices given");
}

TEST_F(OperatorEntryTest, DoWithShowShowsTheChannelUntilAnswered) {
  channels_.values["T1"] = "20";
  op_.answers = {std::string("Cancel")};
  EXPECT_EQ(Run({"DOWITHSHOW Open the valve, T1, CLOSED", "STOP", "CLOSED:", "WAITRANDOM 1, 1"}),
            "");
  EXPECT_EQ(op_.questions.back().choices, (Lines{"OK", "Cancel"}));
  EXPECT_EQ(op_.channelValues.front(), "T1=20");
  EXPECT_DOUBLE_EQ(Elapsed(), 1.0);
  op_.answers = {std::string("Continue")};
  EXPECT_EQ(Run({"DOWITHSHOW Look, T1"}), "");
  EXPECT_EQ(op_.questions.back().choices, (Lines{"Continue"}));
}

TEST_F(OperatorEntryTest, DoWithShowClosesAsCancelWhenTheChannelCannotBeRead) {
  // A channel that cannot be read at all: the message box, then Cancel.
  EXPECT_EQ(Run({"DOWITHSHOW Look, T9, GONE", "STOP", "GONE:", "WAITRANDOM 1, 1"}), "");
  EXPECT_EQ(op_.messages, (Lines{"Unable to read from channel: T9"}));
  EXPECT_TRUE(op_.questions.empty());
  EXPECT_DOUBLE_EQ(Elapsed(), 1.0);

  // The channel goes away while the display is open: the refresh at 3 s
  // fails, the box is shown and the display closed as if Cancel was pressed.
  channels_.values["T1"] = "20";
  op_.holdQuestions = true;
  Timer unplug(events_, 2'500'000, [&] { channels_.values.erase("T1"); });
  unplug.setEnabled(true);
  EXPECT_EQ(Run({"DOWITHSHOW Open the valve, T1, CLOSED", "STOP", "CLOSED:", "WAITRANDOM 1, 1"}),
            "");
  unplug.setEnabled(false);
  EXPECT_EQ(op_.messages.back(), "Unable to read from channel: T1");
  EXPECT_EQ(op_.closedQuestions, 1);
  EXPECT_EQ(op_.channelValues, (Lines{"T1=20", "T1=20", "T1=20"}));
  EXPECT_DOUBLE_EQ(Elapsed(), 1.0 + 3.0 + 1.0);
  EXPECT_EQ(seq_.endReason(), EndReason::kEndOfFile);

  // Without a label the run goes on with the next line.
  EXPECT_EQ(Run({"DOWITHSHOW Look, T9", "WAITRANDOM 2, 2"}), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 7.0);
}

TEST_F(OperatorEntryTest, ManualAdjustStepsTheOutputUntilDone) {
  channels_.values["VALVE"] = "10";
  op_.answers = {std::string("Up"), std::string("Up"), std::string("Down"), std::string("Done")};
  EXPECT_EQ(Run({"MANUALADJUST VALVE, 2.5, Set the flow"}), "");
  EXPECT_EQ(channels_.writes, (Lines{"VALVE= 12.5", "VALVE= 15", "VALVE= 12.5"}));
  EXPECT_EQ(op_.questions.front().text, "Set the flow (VALVE = 10)");
  EXPECT_EQ(op_.questions.front().choices, (Lines{"Up", "Down", "Done"}));
  EXPECT_EQ(Run({"MANUALADJUST VALVE, 0"}), "Invalid parameter - 0 - for a ManualAdjust statement");
  EXPECT_EQ(Run({"MANUALADJUST NONE, 1"}), "ManualAdjust - cannot read NONE: no such channel");
}

TEST_F(OperatorEntryTest, WithoutChannelsTheChannelCommandsAreNotAvailable) {
  Sequencer plain(events_, op_, trace_, files_, paths_);
  RegisterOperatorEntryCommands(plain, nullptr);
  auto run = [&](const std::string& line) {
    std::string error;
    EXPECT_TRUE(plain.prepareFile(Write("plain.wts", {line}), &error)) << error;
    plain.start();
    return plain.lastSequenceError();
  };
  EXPECT_EQ(run("ENTERSEND Value, SETPOINT"), Dispatcher::notAvailableText("ENTERSEND"));
  EXPECT_EQ(run("MANUALADJUST VALVE, 1"), Dispatcher::notAvailableText("MANUALADJUST"));
  // A keyword is bound once.
  EXPECT_THROW(RegisterOperatorEntryCommands(plain, &channels_), std::logic_error);
}

}  // namespace
}  // namespace tavrix
