// Runs that end abruptly and go on from their checkpoint. A run of the
// pump example and a day-long soak with calculated channels are each run
// once without a break, in virtual time on the simulated rig; at many random
// moments of that run (after a random line, or at a random instant inside a
// wait) the disk as it stands is copied - what a process killed then would
// leave. Each copy is then resumed by a new engine and run to its end, and
// must end exactly as the unbroken run did: the same files byte for byte
// (apart from the resume notes), the same loop count, the same verdicts,
// and no checkpoint left behind.
//
// The rig's devices keep their own state through a crash, and the program
// cannot restore it; here each device is taken to stand still while the
// program is down and the program to come back at once (the run clock of
// the resumed run starts at the checkpoint's time), which is what makes
// "exactly as the unbroken run" the right expectation.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "answers_file.h"
#include "cli_test_support.h"
#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/text_file.h"
#include "console_operators.h"
#include "engine/engine.h"
#include "engine/run_checkpoints.h"
#include "instrument/simrig/sim_rig.h"

namespace tavrix {
namespace {

using Files = std::map<std::string, std::string>;

std::string Example(const std::string& name) {
  std::string text;
  std::string error;
  EXPECT_TRUE(readTextFile(localFiles(), std::string(TAVRIX_SOURCE_DIR) + "/examples/" + name, text,
                           &error))
      << error;
  return text;
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// How many moments each kill test tries; TAVRIX_RESUME_KILLS asks for more.
int Kills(int inCi) {
  const char* wanted = std::getenv("TAVRIX_RESUME_KILLS");
  return wanted != nullptr && std::atoi(wanted) > 0 ? std::atoi(wanted) : inCi;
}

struct Scenario {
  Files files;
  std::string sequence;
  std::string setup;  // selected before the run, as --setup does; may be empty
  std::string answers;
  Micros start = 0;
  std::map<char, std::string> drives;
};

// One engine over an in-memory disk, with the operator of an answers file.
class Station {
 public:
  Station(const Scenario& scenario, const Files& disk, Micros start)
      : messages_(std::tmpfile()), op_(AnswersFile::parse(scenario.answers), messages_) {
    auto files = std::make_unique<MemoryFileSystem>("/data");
    files_ = files.get();
    for (const auto& [path, bytes] : disk) files_->put(path, bytes);
    EngineConfig config;
    config.clock = std::make_unique<VirtualClock>(start);
    config.files = std::move(files);
    config.op = &op_;
    config.settings.driveMap = scenario.drives;
    config.link = "sim";
    engine_ = BuildEngine(std::move(config));
    engine_->keepCheckpoints().onWritten = [this](const std::string&) {
      rigAtCheckpoint_ = rig().model();
    };
  }
  ~Station() { std::fclose(messages_); }

  Engine& engine() { return *engine_; }
  MemoryFileSystem& files() { return *files_; }
  SimLink& rig() { return dynamic_cast<SimLink&>(engine_->instrument()->backend()); }
  const RigModel& rigAtCheckpoint() const { return rigAtCheckpoint_; }
  std::string messages() {
    std::string text = Slurp(messages_);
    messages_ = std::tmpfile();
    return text;
  }

 private:
  std::FILE* messages_;
  ScriptedOperator op_;
  MemoryFileSystem* files_ = nullptr;
  std::unique_ptr<Engine> engine_;
  RigModel rigAtCheckpoint_;
};

// What a process killed at some moment leaves: the disk, and the devices as
// they were at the last checkpoint.
struct Crash {
  std::string when;
  Files disk;
  RigModel rig;
};

// The outcome of a run that ended, to compare.
struct Outcome {
  Files files;  // without the runs folder; resume notes taken out
  int32_t loopCount = 0;
  int uutsFinished = 0;
  bool anyUutFailed = false;
  std::string endReason;
  std::string error;
};

Outcome OutcomeOf(Station& station) {
  Outcome outcome;
  Sequencer& seq = station.engine().sequencer();
  outcome.loopCount = seq.loopCount();
  outcome.uutsFinished = station.engine().testDatabase().uutsFinished();
  outcome.anyUutFailed = station.engine().testDatabase().anyUutFailed();
  outcome.endReason = EndReasonName(seq.endReason());
  outcome.error = seq.lastSequenceError();
  for (const auto& [path, bytes] : station.files().files()) {
    if (path.rfind("/data/runs/", 0) == 0) continue;
    std::string kept;
    size_t at = 0;
    while (at < bytes.size()) {
      size_t end = bytes.find('\n', at);
      end = end == std::string::npos ? bytes.size() : end + 1;
      const std::string_view line(bytes.data() + at, end - at);
      if (line.rfind("Resumed: ", 0) != 0) kept.append(line);
      at = end;
    }
    outcome.files[path] = kept;
  }
  return outcome;
}

void ExpectSame(const Outcome& resumed, const Outcome& unbroken, const std::string& when) {
  EXPECT_EQ(resumed.endReason, unbroken.endReason) << when;
  EXPECT_EQ(resumed.error, unbroken.error) << when;
  EXPECT_EQ(resumed.loopCount, unbroken.loopCount) << when;
  EXPECT_EQ(resumed.uutsFinished, unbroken.uutsFinished) << when;
  EXPECT_EQ(resumed.anyUutFailed, unbroken.anyUutFailed) << when;
  for (const auto& [path, bytes] : unbroken.files) {
    const auto found = resumed.files.find(path);
    if (found == resumed.files.end()) {
      ADD_FAILURE() << when << ": " << path << " is missing";
    } else {
      EXPECT_EQ(found->second, bytes) << when << ": " << path << " differs";
    }
  }
  for (const auto& [path, bytes] : resumed.files) {
    EXPECT_TRUE(unbroken.files.count(path)) << when << ": " << path << " is one file too many";
  }
}

// Runs the scenario once without a break, copying the disk at `kills`
// random moments within its first `length` of run time.
Outcome RunUnbroken(const Scenario& scenario, int kills, std::vector<Crash>& crashes,
                    Micros length) {
  Station station(scenario, scenario.files, scenario.start);
  Engine& engine = station.engine();
  std::string error;
  EXPECT_TRUE(engine.instrument()->ensureOpen());
  if (!scenario.setup.empty()) {
    EXPECT_TRUE(engine.instrument()->selectSetupFile(scenario.setup));
  }
  EXPECT_TRUE(engine.sequencer().prepareFile(scenario.sequence, &error)) << error;
  std::mt19937 random(20261126);
  // Half the kills after a random line (out of the lines the run has; a
  // first count tells how many), half at a random instant.
  std::set<int64_t> lineKills;
  std::vector<std::unique_ptr<Timer>> timers;
  int64_t lines = 0;
  const auto crash = [&](std::string when) {
    crashes.push_back({std::move(when), station.files().files(), station.rigAtCheckpoint()});
  };
  engine.sequencer().addLineHook([&](int16_t line) {
    ++lines;
    if (lineKills.count(lines)) {
      crash("after line " + std::to_string(line) + " (#" + std::to_string(lines) + ")");
    }
  });
  for (int i = 0; i < kills / 2; ++i) {
    const Micros at =
        scenario.start + 1 + static_cast<Micros>(random() % static_cast<uint64_t>(length));
    auto timer = std::make_unique<Timer>(engine.events(), kMicrosPerSecond, [&, at, i] {
      timers[static_cast<size_t>(i)]->setEnabled(false);
      crash("at " + isoDateTime(at) + " in line " +
            std::to_string(engine.sequencer().lineNumber()));
    });
    timer->setDue(at);
    timers.push_back(std::move(timer));
  }
  // The line count of the run decides the random line kills; it repeats
  // exactly, so a count taken in a first run holds for this one.
  const int64_t totalLines = [&] {
    Station counter(scenario, scenario.files, scenario.start);
    std::string why;
    counter.engine().instrument()->ensureOpen();
    if (!scenario.setup.empty()) counter.engine().instrument()->selectSetupFile(scenario.setup);
    counter.engine().sequencer().prepareFile(scenario.sequence, &why);
    int64_t n = 0;
    counter.engine().sequencer().addLineHook([&n](int16_t) { ++n; });
    counter.engine().run();
    return n;
  }();
  EXPECT_GT(totalLines, 2);
  while (static_cast<int>(lineKills.size()) < kills - kills / 2 &&
         static_cast<int64_t>(lineKills.size()) < totalLines - 1) {
    lineKills.insert(1 + static_cast<int64_t>(random() % static_cast<uint64_t>(totalLines - 1)));
  }
  engine.run();
  for (auto& timer : timers) timer->setEnabled(false);
  EXPECT_EQ(lines, totalLines);
  EXPECT_TRUE(ListInterruptedRuns(station.files()).empty()) << "a checkpoint outlived its run";
  return OutcomeOf(station);
}

// Goes on from a crash and runs to the end.
Outcome Resume(const Scenario& scenario, const Crash& crash) {
  MemoryFileSystem disk("/data");
  for (const auto& [path, bytes] : crash.disk) disk.put(path, bytes);
  InterruptedRun run;
  std::string error;
  EXPECT_TRUE(FindInterruptedRun(disk, "", run, &error)) << crash.when << ": " << error;
  Station station(scenario, crash.disk, run.taken);
  ResumeReport report;
  const bool prepared = station.engine().prepareResume(run.path, false, &report, &error);
  EXPECT_TRUE(prepared) << crash.when << ": " << error;
  if (!prepared) return {};
  EXPECT_EQ(report.gap, 0) << crash.when;
  station.rig().model() = crash.rig;
  station.engine().runResumed();
  return OutcomeOf(station);
}

Scenario PumpTest() {
  Scenario s;
  s.files["/examples/rig.ims"] = Example("rig.ims");
  s.files["/examples/uut_test.wts"] = Example("uut_test.wts");
  for (const char* name : {"pump_details.txt", "pump_fields.txt", "pump_stages.txt"})
    s.files[std::string("examples/testdb/") + name] = Example(std::string("testdb/") + name);
  s.sequence = "/examples/uut_test.wts";
  s.setup = "/examples/rig.ims";
  s.answers = Example("uut_test.answers");
  s.start = *parseDateTime("2026-11-15 09:00:00");
  return s;
}

// A day and an hour of a soak loop counted by LOOPCHECK with the day
// example's calculated channels, across midnight.
Scenario Soak() {
  Scenario s;
  s.files["/rigs/q/calc_rig.ims"] = Example("calc_rig.ims");
  s.files["/rigs/q/calc_day.ccs"] = Example("calc_day.ccs");
  s.files["/rigs/q/soak.wts"] = joinLines(
      {"IMSFILESPEC q:\\calc_rig.ims", "STARTCALCULATEDCHANNELS q:\\calc_day.ccs, 10", "CC_START",
       "RESETLOOPCOUNT 0", "AGAIN:", "SEND LOGSW, 1", "WAITSECONDS 3000", "SEND LOGSW, 0",
       "WAITSECONDS 600", "LOOPCHECK 24, DONE", "GOTO AGAIN", "DONE:", "CC_CHANGELOGGERS", "STOP"});
  s.sequence = "/rigs/q/soak.wts";
  s.drives['q'] = "/rigs/q";
  s.start = *parseDateTime("2026-11-30 18:00:00");
  return s;
}

TEST(ResumeKill, ThePumpTestKilledAtRandomMomentsEndsAsTheUnbrokenRun) {
  const Scenario scenario = PumpTest();
  std::vector<Crash> crashes;
  const Outcome unbroken = RunUnbroken(scenario, Kills(100), crashes, 40 * 60 * kMicrosPerSecond);
  // The run is the one the example promises: two pumps, the second failed.
  EXPECT_EQ(unbroken.uutsFinished, 2);
  EXPECT_TRUE(unbroken.anyUutFailed);
  EXPECT_EQ(unbroken.error, "");
  ASSERT_GE(crashes.size(), 50u);
  for (const auto& crash : crashes) ExpectSame(Resume(scenario, crash), unbroken, crash.when);
}

TEST(ResumeKill, ASoakWithCalculatedChannelsKilledAtRandomMomentsEndsAsTheUnbrokenRun) {
  const Scenario scenario = Soak();
  std::vector<Crash> crashes;
  const Outcome unbroken = RunUnbroken(scenario, Kills(10), crashes, 25 * 3600 * kMicrosPerSecond);
  EXPECT_EQ(unbroken.loopCount, 25);
  EXPECT_EQ(unbroken.error, "");
  // The day that ended at midnight and the day so far at the change of
  // loggers.
  auto month = unbroken.files.begin();
  while (month != unbroken.files.end() && !EndsWith(month->first, "/MONTH_AB_2612.wl")) ++month;
  ASSERT_NE(month, unbroken.files.end());
  EXPECT_NE(month->second.find("\r\n01\t"), std::string::npos) << month->second;
  for (const auto& crash : crashes) ExpectSame(Resume(scenario, crash), unbroken, crash.when);
}

}  // namespace
}  // namespace tavrix
