// The flow control and loop count commands in virtual time.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class FlowControlTest : public CommandTest {};

TEST_F(FlowControlTest, AbortTestAndEndTavrixEndTheRun) {
  EXPECT_EQ(Run({"ABORTTEST Unit failed", "WAITRANDOM 5, 5"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kAbort);
  EXPECT_EQ(op_.messages.back(), "Unit failed");
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);

  EXPECT_EQ(Run({"NONSTOP", "ENDTAVRIX", "WAITRANDOM 5, 5"}), "");
  EXPECT_EQ(seq_.endReason(), EndReason::kStop);
  EXPECT_TRUE(seq_.flags().quitRequested);
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
  EXPECT_EQ(Run({"STOP"}), "");
  EXPECT_FALSE(seq_.flags().quitRequested);
}

// Where INCREMENTLOOPCOUNT writes: a list of the writes, or nothing.
class RecordingLoopCount : public LoopCountOutput {
 public:
  bool available() const override { return attached; }
  void write(Sequencer&, std::string_view channel, int32_t count) override {
    writes.push_back(std::string(channel) + "=" + std::to_string(count));
  }
  bool attached = false;
  Lines writes;
};

TEST_F(FlowControlTest, IncrementLoopCountWritesToAChannelOnlyWhereThereAreChannels) {
  RecordingLoopCount output;
  Sequencer plain(events_, op_, trace_, files_, paths_);
  RegisterFlowControlCommands(plain, &output);
  auto run = [&](const Lines& lines) {
    std::string error;
    EXPECT_TRUE(plain.prepareFile(Write("plain.wts", lines), &error)) << error;
    plain.start();
    return plain.lastSequenceError();
  };
  // Without channels the count still counts; a channel ends the run before
  // the count moves.
  EXPECT_EQ(run({"RESETLOOPCOUNT 5", "INCREMENTLOOPCOUNT", "INCREMENTLOOPCOUNT COUNTER"}),
            "INCREMENTLOOPCOUNT COUNTER - command is not available in this version of the program");
  EXPECT_EQ(plain.loopCount(), 6);
  output.attached = true;
  EXPECT_EQ(run({"INCREMENTLOOPCOUNT COUNTER ", "INCREMENTLOOPCOUNT"}), "");
  EXPECT_EQ(plain.loopCount(), 8);
  EXPECT_EQ(output.writes, (Lines{"COUNTER=7"}));
  // At the largest count the overrun message is shown and nothing written.
  EXPECT_EQ(run({"RESETLOOPCOUNT 2147483647", "INCREMENTLOOPCOUNT COUNTER"}), "");
  EXPECT_EQ(op_.messages.back(), "Loop Count overrun - exiting loop");
  EXPECT_EQ(output.writes.size(), 1u);
}

TEST_F(FlowControlTest, CountedLoopsRunTheirBodyTheGivenNumberOfTimes) {
  auto loop = [](std::string limit) {
    return std::vector<std::string>{"RESETLOOPCOUNT", "TOP:",     "LOOPCHECK " + limit + ", OUT",
                                    "WAITSECONDS 1",  "GOTO TOP", "OUT:"};
  };
  EXPECT_EQ(Run(loop("3")), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 3.0);
  EXPECT_EQ(seq_.loopCount(), 4);
  EXPECT_EQ(Run(loop("0")), "");
  EXPECT_DOUBLE_EQ(Elapsed(), 3.0);
  EXPECT_EQ(Run({"RESETLOOPCOUNT 2.6", "INCREMENTLOOPCOUNT"}), "");
  EXPECT_EQ(seq_.loopCount(), 4);
  EXPECT_EQ(Run({"RESETLOOPCOUNT 2.5"}), "");
  EXPECT_EQ(seq_.loopCount(), 2);  // halves round to even
  EXPECT_EQ(Run({"RESETLOOPCOUNT 1e12"}),
            "Invalid parameter - 1e12 - for a ResetLoopCount statement");
}

TEST_F(FlowControlTest, LoopCountOverrunLeavesTheLoop) {
  EXPECT_EQ(
      Run({"RESETLOOPCOUNT 2147483647", "LOOPCHECK 2147483647, OUT", "WAITSECONDS 5", "OUT:"}), "");
  EXPECT_EQ(op_.messages, (std::vector<std::string>{"Loop Count overrun - exiting loop"}));
  EXPECT_DOUBLE_EQ(Elapsed(), 0.0);
}

}  // namespace
}  // namespace tavrix
