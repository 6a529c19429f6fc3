// The safe-state sequence of the settings after a run of the window's kind
// (started with start()) that ends abnormally: it runs, the operator is told,
// and the run's own file is prepared again; after a normal end it does not
// run.
#include <gtest/gtest.h>

#include "common/file_system.h"
#include "common/text_conventions.h"
#include "common/text_file.h"
#include "engine/engine.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

TEST(SafeState, AnAbnormalEndOfAStartedRunRunsTheSafeStateSequenceAndSaysSo) {
  RecordingOperator op;
  auto owned = std::make_unique<MemoryFileSystem>("/data");
  MemoryFileSystem& files = *owned;
  std::string rig;
  ASSERT_TRUE(
      readTextFile(testFiles(), std::string(TAVRIX_EXAMPLES_DIR) + "/rig.ims", rig, nullptr));
  files.put("/rig.ims", rig);
  files.put("/safe.wts", "SEND HEATER, 0\r\n");
  files.put("/broken.wts", "SEND HEATER, 77\r\nGOTO NOWHERE\r\n");
  files.put("/fine.wts", "SEND HEATER, 5\r\nSTOP\r\n");
  EngineConfig config;
  config.clock = std::make_unique<VirtualClock>(0);
  config.files = std::move(owned);
  config.op = &op;
  config.settings.safeStateSequence = "/safe.wts";
  config.link = "sim";
  const auto engine = BuildEngine(std::move(config));
  ASSERT_NE(engine, nullptr);
  ASSERT_TRUE(engine->instrument()->selectSetupFile("/rig.ims"));
  const auto heater = [&] {
    std::string value;
    EXPECT_TRUE(engine->instrument()->channels().ReadChannel("HEATER", value));
    return leadingNumber(value);
  };
  std::string error;

  ASSERT_TRUE(engine->sequencer().prepareFile("/broken.wts", &error)) << error;
  engine->start();
  engine->events().processPendingEvents();
  EXPECT_EQ(heater(), 0);
  ASSERT_EQ(op.messages.size(), 2u);  // the error, then what was done about it
  EXPECT_EQ(op.messages[1], "The run ended (error): the safe-state sequence /safe.wts ran");
  EXPECT_EQ(engine->sequencer().sequenceFileName(), "/broken.wts");

  ASSERT_TRUE(engine->sequencer().prepareFile("/fine.wts", &error)) << error;
  engine->start();
  engine->events().processPendingEvents();
  EXPECT_EQ(heater(), 5);
  EXPECT_EQ(op.messages.size(), 2u);
}

}  // namespace
}  // namespace tavrix
