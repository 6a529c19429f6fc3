// The start-up offer to go on with a run that did not end, and what each
// answer does, on engines over a disk in memory and a virtual clock.
#include "panel/resume_offer.h"

#include <gtest/gtest.h>

#include <map>

#include "common/civil_time.h"
#include "engine/engine.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"

namespace tavrix {
namespace {

using Files = std::map<std::string, std::string>;

constexpr Micros kStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

// One start of the program: an engine over a copy of the disk.
struct Session {
  Session(const Files& disk, Micros now) {
    auto memory = std::make_unique<MemoryFileSystem>("/data");
    files = memory.get();
    for (const auto& [path, bytes] : disk) files->put(path, bytes);
    EngineConfig config;
    config.clock = std::make_unique<VirtualClock>(now);
    config.files = std::move(memory);
    config.op = &op;
    engine = BuildEngine(std::move(config));
    engine->keepCheckpoints().setLeastRealGap({});
  }
  RecordingOperator op;
  MemoryFileSystem* files = nullptr;
  std::unique_ptr<Engine> engine;
};

// The disk a session leaves when the program is killed 1000 s into a soak
// of three 3000-second waits.
Files KilledSoak() {
  Files disk;
  disk["/seq/soak.wts"] =
      "RESETLOOPCOUNT 0\r\nTOP:\r\nWAITSECONDS 3000\r\nLOGONCE /data/log.txt, done\r\n"
      "LOOPCHECK 2, END\r\nGOTO TOP\r\nEND:\r\nSTOP\r\n";
  Session first(disk, kStart);
  Engine& engine = *first.engine;
  std::string error;
  EXPECT_TRUE(engine.sequencer().prepareFile("/seq/soak.wts", &error)) << error;
  Files left;
  Timer kill(engine.events(), kMicrosPerSecond, [&] {
    left = first.files->files();
    engine.sequencer().stop();
  });
  kill.setDue(kStart + 1000 * kMicrosPerSecond);
  engine.run();
  return left;
}

TEST(ResumeOffer, AnInterruptedRunIsOfferedWithItsSequenceLineAndGapAndGoesOnWhenResumed) {
  const Files disk = KilledSoak();
  // Nothing to offer on a disk without interrupted runs.
  EXPECT_FALSE(ResumeOfferAtStartUp(Session({}, kStart).engine->files(), kStart));

  const Micros later = kStart + (26 * 3600 + 990) * kMicrosPerSecond;
  Session next(disk, later);
  const auto offer = ResumeOfferAtStartUp(next.engine->files(), later);
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->run.sequence, "/seq/soak.wts");
  EXPECT_EQ(offer->text,
            "The run of /seq/soak.wts did not end: it was at line 2, with no unit under test, "
            "when its last checkpoint was taken at 2026-01-01 00:16:30, 1 d 01 h 59 min 59 s "
            "ago.\n\nResume it where it was, or discard it (it is kept in runs/discarded/ for a "
            "week)?");
  EXPECT_EQ(offer->choices, (std::vector<std::string>{"Resume", "Later", "Discard"}));

  // Later: it stays, and is offered at the next start.
  std::string message;
  EXPECT_TRUE(CarryOutResumeChoice(*next.engine, *offer, "Later", &message)) << message;
  EXPECT_TRUE(ResumeOfferAtStartUp(next.engine->files(), later));

  // Resume: the wait goes on with what it had left at the checkpoint
  // (taken 990.25 s into it), the loops are counted on, and the run's
  // checkpoint is gone when it ends.
  EXPECT_TRUE(CarryOutResumeChoice(*next.engine, *offer, "Resume", &message)) << message;
  Sequencer& seq = next.engine->sequencer();
  EXPECT_EQ(EndReasonName(seq.endReason()), EndReasonName(EndReason::kStop));
  EXPECT_EQ(seq.loopCount(), 3);
  EXPECT_EQ(next.engine->clock().now(), later + (2009750 + 2 * 3000000) * Micros{1000});
  std::string log;
  ASSERT_TRUE(next.files->readFile("/data/log.txt", log, nullptr));
  EXPECT_EQ(log, "02-01-2026 02:49:59\tdone\r\n");
  EXPECT_FALSE(ResumeOfferAtStartUp(next.engine->files(), later));
}

TEST(ResumeOffer, ADiscardedRunIsKeptAsideAndARunThatCannotGoOnIsNotOfferedOrLost) {
  Files disk = KilledSoak();
  {
    Session next(disk, kStart + 3600 * kMicrosPerSecond);
    const auto offer = ResumeOfferAtStartUp(next.engine->files(), kStart);
    ASSERT_TRUE(offer);
    std::string message;
    EXPECT_TRUE(CarryOutResumeChoice(*next.engine, *offer, "Discard", &message)) << message;
    EXPECT_FALSE(ResumeOfferAtStartUp(next.engine->files(), kStart));
    EXPECT_TRUE(next.files->isFile("/data/runs/discarded/" + offer->run.name + ".checkpoint"));
    EXPECT_FALSE(next.files->isFile(offer->run.path));
  }
  // A changed sequence file: the resume is refused with the reason and the
  // checkpoint stays for inspection.
  disk["/seq/soak.wts"] += "REM changed\r\n";
  Session next(disk, kStart + 3600 * kMicrosPerSecond);
  const auto offer = ResumeOfferAtStartUp(next.engine->files(), kStart);
  ASSERT_TRUE(offer);
  std::string message;
  EXPECT_FALSE(CarryOutResumeChoice(*next.engine, *offer, "Resume", &message));
  EXPECT_NE(message.find("the sequence file /seq/soak.wts has changed"), std::string::npos)
      << message;
  EXPECT_TRUE(next.files->isFile(offer->run.path));
  // A damaged checkpoint is not offered.
  std::string bytes;
  ASSERT_TRUE(next.files->readFile(offer->run.path, bytes, nullptr));
  next.files->put(offer->run.path, bytes.substr(0, bytes.size() / 2));
  EXPECT_FALSE(ResumeOfferAtStartUp(next.engine->files(), kStart));
}

}  // namespace
}  // namespace tavrix
