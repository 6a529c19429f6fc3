// CHAIN and RETURN in virtual time.

#include "testing/test_run_engine.h"

namespace tavrix {
namespace {

using Lines = std::vector<std::string>;

class ChainTest : public CommandTest {};

TEST_F(ChainTest, ChainContinuesInAnotherFileAndReturnComesBack) {
  Write("sub.wts", {"WAITRANDOM 2, 2", "RETURN", "PART2:", "WAITRANDOM 5, 5", "RETURN"});
  Write("c/seq/deep.wts", {"CHAIN ../../sub.wts, PART2", "RETURN"});
  EXPECT_EQ(Run({"CHAIN sub.wts", "WAITRANDOM 1, 1", "CHAIN c:\\seq\\deep.wts", "STOP"}), "");
  EXPECT_EQ(Shown(), (Lines{"CHAIN sub.wts", "WAITRANDOM 2, 2", "RETURN", "WAITRANDOM 1, 1",
                            "CHAIN c:\\seq\\deep.wts", "CHAIN ../../sub.wts, PART2",
                            "WAITRANDOM 5, 5", "RETURN", "RETURN", "STOP"}));
  EXPECT_DOUBLE_EQ(Elapsed(), 8.0);
  // The next run starts again in the prepared file.
  op_.commands.clear();
  seq_.start();
  EXPECT_EQ(Shown().front(), "CHAIN sub.wts");
}

TEST_F(ChainTest, ChainFailuresAreReportedWithTheFileThatHoldsThem) {
  Write("self.wts", {"CHAIN self.wts"});
  EXPECT_EQ(Run({"CHAIN self.wts"}), "Chain - more than 16 nested Chain commands: self.wts");
  EXPECT_EQ(seq_.sequenceFileName(), dir_ + "/self.wts");
  EXPECT_EQ(Run({"RETURN"}), "Return - there is no Chain command to return to");
  EXPECT_EQ(Run({"CHAIN"}), "Chain - no sequence file given");
  const std::string missing = Run({"CHAIN missing.wts"});
  EXPECT_EQ(missing.rfind("Chain - ", 0), 0u) << missing;
  EXPECT_NE(missing.find("missing.wts"), std::string::npos) << missing;
  Write("nolabel.wts", {"STOP"});
  EXPECT_EQ(Run({"CHAIN nolabel.wts, THERE"}), "Label THERE: does not exist");
  EXPECT_NE(op_.messages.back().find("nolabel.wts"), std::string::npos);
}

}  // namespace
}  // namespace tavrix
