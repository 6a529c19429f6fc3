#include "instrument/dll/dll_link.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "common/file_system.h"
#include "common/paths.h"
#include "instrument/backends/link_backends.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/recording_operator.h"
#include "testing/sequence_run.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

// A rig whose answers do not depend on time: the stand-in libraries run on
// the machine's clock, the simulated rig on the test's.
constexpr std::string_view kRig =
    "D 1 MONITORS=1\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10023 E=1 M=A N=TEMP1 U=degC V=20\n"
    "D 2 NOTREADY=5\n"
    "  20001 E=1 N=SLOW V=3\n";

using RunResult = testing::LinkRun;

RunResult RunOver(const std::string& link, const InstrumentSettings& settings,
                  const std::string& folder, const std::vector<std::string>& lines) {
  VirtualClock clock(kStart);
  return testing::RunSequenceOver(clock, folder, link, settings, lines);
}

struct DllLinkTest : ::testing::Test {
  std::string folder;
  DllLinkTest() {
    std::string pattern = ::testing::TempDir() + "dll-link-XXXXXX";
    folder = mkdtemp(pattern.data()) != nullptr ? pattern : "";
  }
  ~DllLinkTest() override {
    for (const char* name : {"/rig.ims", "/rig.sum"}) std::remove((folder + name).c_str());
    std::filesystem::remove(folder);
  }
  InstrumentSettings standIns() const {
    InstrumentSettings settings;
    settings.replyTimeoutSecs = 5;
    settings.libraryFolder = TAVRIX_STAND_IN_FOLDER;
    return settings;
  }
};

TEST_F(DllLinkTest, ASequenceThroughTheLibrariesGivesTheSimulatedRigsTrace) {
  ASSERT_FALSE(folder.empty());
  const std::string rig = folder + "/rig.ims";
  ASSERT_TRUE(testFiles().writeAtomically(rig, kRig, nullptr));
  const std::vector<std::string> lines = {"IMSFILESPEC " + rig, "SEND HEATER, 100", "WAIT SLOW = 3",
                                          "MONITOR 1, TMON", "IMLDEF HEATER, Q=1"};
  const RunResult sim = RunOver("sim", standIns(), folder, lines);
  const RunResult dll = RunOver("dll", standIns(), folder, lines);
  EXPECT_EQ(sim.error, "IML error - 13 bad setting");
  EXPECT_EQ(dll.error, sim.error);
  EXPECT_NE(sim.trace.find("\"cmd\":\"REA SLOW\",\"reply\":\"3\""), std::string::npos) << sim.trace;
  EXPECT_EQ(dll.trace, sim.trace);
  // The setup library left the setup's summary where the link reads it.
  std::string summary;
  testFiles().readFile(SetupSummaryPath(rig), summary, nullptr);
  EXPECT_NE(summary.find("10023 E=1"), std::string::npos);
}

TEST_F(DllLinkTest, AMissingLibraryOrFunctionIsAStartUpErrorNamingIt) {
  InstrumentSettings settings = standIns();
  settings.libraryFolder = folder;
  std::string error;
  EXPECT_EQ(MakeDllLink(settings, testFiles(), &error), nullptr);
  EXPECT_EQ(error.rfind("cannot load the link library " + folder + "\\commslib.dll: ", 0), 0u)
      << error;

  // The setup library loaded as the link library lacks every link function.
  settings = standIns();
  settings.linkLibraryName = "imslib.dll";
  EXPECT_EQ(MakeDllLink(settings, testFiles(), &error), nullptr);
  EXPECT_EQ(error, std::string(TAVRIX_STAND_IN_FOLDER) +
                       "\\imslib.dll has no function _OpenIMLInterface@4");

  settings = standIns();
  settings.setupLibraryName = "commslib.dll";
  EXPECT_EQ(MakeDllLink(settings, testFiles(), &error), nullptr);
  EXPECT_EQ(error, std::string(TAVRIX_STAND_IN_FOLDER) +
                       "\\commslib.dll has no function _IMSLibVersion@8");

  settings = standIns();
  EXPECT_NE(MakeDllLink(settings, testFiles(), &error), nullptr) << error;
}

}  // namespace
}  // namespace tavrix
