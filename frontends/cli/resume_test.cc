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

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "answers_file.h"
#include "cli_test_support.h"
#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/sanitizers.h"
#include "common/text_file.h"
#include "common/text_items.h"
#include "console_operators.h"
#include "engine/engine.h"
#include "engine/run_checkpoints.h"
#include "instrument/simrig/sim_link.h"
#include "testing/memory_file_system.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using Files = std::map<std::string, std::string>;

std::string Example(const std::string& name) {
  std::string text;
  std::string error;
  EXPECT_TRUE(
      readTextFile(testFiles(), std::string(TAVRIX_SOURCE_DIR) + "/examples/" + name, text, &error))
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
  if (wanted != nullptr && std::atoi(wanted) > 0) return std::atoi(wanted);
#ifdef TAVRIX_ASAN
  // Under the sanitizers every kill runs the same code about ten times
  // slower, looking for faults of memory: a tenth of the kills find them.
  return std::max(1, inCi / 10);
#else
  return inCi;
#endif
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
  Station(const Scenario& scenario, const Files& disk, Micros start,
          const std::string& root = "/data")
      : messages_(std::tmpfile()), op_(AnswersFile::parse(scenario.answers), messages_) {
    auto files = std::make_unique<MemoryFileSystem>(root);
    files_ = files.get();
    for (const auto& [path, bytes] : disk) files_->put(path, bytes);
    EngineConfig config;
    config.clock = std::make_unique<VirtualClock>(start);
    config.files = std::move(files);
    config.op = &op_;
    config.settings.driveMap = scenario.drives;
    config.link = "sim";
    engine_ = BuildEngine(std::move(config));
    // A disk in memory takes every checkpoint the run clock asks for.
    engine_->keepCheckpoints().setLeastRealGap({});
    engine_->keepCheckpoints().onWritten = [this](const std::string&) {
      rigAtCheckpoint_ = rig().model();
      outputsAtCheckpoint_ = outputs_.size();
      if (afterCheckpoint) afterCheckpoint();
    };
  }

  // From now on, every value the run writes to an output, with its time.
  void recordOutputs() {
    outputWatch_ = engine_->sequencer().runEvents().subscribe([this](const RunEvent& event) {
      if (event.kind != RunEventKind::kOutput) return;
      outputs_.push_back(std::to_string(engine_->clock().now()) + " " + event.title + " " +
                         event.text);
    });
  }
  const std::vector<std::string>& outputs() const { return outputs_; }
  size_t outputsAtCheckpoint() const { return outputsAtCheckpoint_; }
  // Called after each checkpoint is written.
  std::function<void()> afterCheckpoint;
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
  RunEventBus::Subscription outputWatch_;
  std::vector<std::string> outputs_;
  size_t outputsAtCheckpoint_ = 0;
};

// What a process killed at some moment leaves: the disk, and the devices as
// they were at the last checkpoint.
struct Crash {
  std::string when;
  Files disk;
  RigModel rig;
  // How many values the run had written to outputs at the last checkpoint:
  // those after it the resumed run writes again, on the same schedule.
  size_t outputsBefore = 0;
};

// The outcome of a run that ended, to compare.
struct Outcome {
  Files files;  // without the runs folder; resume notes taken out
  int32_t loopCount = 0;
  int uutsFinished = 0;
  bool anyUutFailed = false;
  std::string endReason;
  std::string error;
  std::vector<std::string> outputs;  // what the run wrote to outputs, with times
};

Outcome OutcomeOf(Station& station) {
  Outcome outcome;
  Sequencer& seq = station.engine().sequencer();
  outcome.loopCount = seq.loopCount();
  outcome.uutsFinished = station.engine().testDatabase().uutsFinished();
  outcome.anyUutFailed = station.engine().testDatabase().anyUutFailed();
  outcome.endReason = EndReasonName(seq.endReason());
  outcome.error = seq.lastSequenceError();
  outcome.outputs = station.outputs();
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
Outcome RunUnbroken(const Scenario& scenario, int kills, std::vector<Crash>& crashes, Micros length,
                    int checkpointKills = 0) {
  Station station(scenario, scenario.files, scenario.start);
  station.recordOutputs();
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
    crashes.push_back({std::move(when), station.files().files(), station.rigAtCheckpoint(),
                       station.outputsAtCheckpoint()});
  };
  // Some kills come just after a checkpoint was written: inside a command
  // that runs without letting events run (a pulse) too.
  std::set<int64_t> checkpointKillsAt;
  int64_t written = 0;
  station.afterCheckpoint = [&] {
    if (checkpointKillsAt.count(++written)) {
      crash("after checkpoint #" + std::to_string(written) + " in line " +
            std::to_string(engine.sequencer().lineNumber()));
    }
  };
  engine.sequencer().addLineHook([&](int16_t line) {
    ++lines;
    if (lineKills.count(lines)) {
      crash("after line " + std::to_string(line) + " (#" + std::to_string(lines) + ")");
    }
  });
  // The line count of the run decides the random line kills; it repeats
  // exactly, so a count taken in a first run holds for this one.
  int64_t totalCheckpoints = 0;
  Micros runLength = length;
  const bool counted = kills > 0 || checkpointKills > 0;
  const int64_t totalLines = !counted ? 0 : [&] {
    Station counter(scenario, scenario.files, scenario.start);
    std::string why;
    counter.engine().instrument()->ensureOpen();
    if (!scenario.setup.empty()) counter.engine().instrument()->selectSetupFile(scenario.setup);
    counter.engine().sequencer().prepareFile(scenario.sequence, &why);
    int64_t n = 0;
    counter.engine().sequencer().addLineHook([&n](int16_t) { ++n; });
    counter.afterCheckpoint = [&] { ++totalCheckpoints; };
    counter.engine().run();
    runLength = counter.engine().clock().now() - scenario.start;
    return n;
  }();
  EXPECT_TRUE(!counted || totalLines > 2);
  while (static_cast<int>(checkpointKillsAt.size()) < checkpointKills &&
         static_cast<int64_t>(checkpointKillsAt.size()) < totalCheckpoints - 1) {
    checkpointKillsAt.insert(
        2 + static_cast<int64_t>(random() % static_cast<uint64_t>(totalCheckpoints - 1)));
  }
  while (static_cast<int>(lineKills.size()) < kills - kills / 2 &&
         static_cast<int64_t>(lineKills.size()) < totalLines - 1) {
    lineKills.insert(1 + static_cast<int64_t>(random() % static_cast<uint64_t>(totalLines - 1)));
  }
  // The kills a short run has no lines for come at instants instead, all
  // within the run.
  const int timeKills = kills - static_cast<int>(lineKills.size());
  const Micros timeLength = std::max<Micros>(1, std::min(length, runLength));
  for (int i = 0; i < timeKills; ++i) {
    const Micros at =
        scenario.start + 1 + static_cast<Micros>(random() % static_cast<uint64_t>(timeLength));
    auto timer = std::make_unique<Timer>(engine.events(), kMicrosPerSecond, [&, at, i] {
      timers[static_cast<size_t>(i)]->setEnabled(false);
      crash("at " + isoDateTime(at) + " in line " +
            std::to_string(engine.sequencer().lineNumber()));
    });
    timer->setDue(at);
    timers.push_back(std::move(timer));
  }
  engine.run();
  for (auto& timer : timers) timer->setEnabled(false);
  if (counted) {
    EXPECT_EQ(lines, totalLines);
  }
  EXPECT_TRUE(ListInterruptedRuns(station.files()).empty()) << "a checkpoint outlived its run";
  return OutcomeOf(station);
}

// What the unbroken run wrote to outputs after a crash's checkpoint.
std::vector<std::string> OutputsAfter(const Outcome& unbroken, const Crash& crash) {
  return {unbroken.outputs.begin() + static_cast<ptrdiff_t>(crash.outputsBefore),
          unbroken.outputs.end()};
}

// Goes on from a crash and runs to the end; the run clock starts `gap`
// after the checkpoint. With `root`, the data root /data was copied there
// (and is no longer at /data).
Outcome Resume(const Scenario& scenario, const Crash& crash, Micros gap = 0,
               const std::string& root = "/data") {
  MemoryFileSystem disk(root);
  for (const auto& [path, bytes] : crash.disk) disk.put(path, bytes);
  InterruptedRun run;
  std::string error;
  EXPECT_TRUE(FindInterruptedRun(disk, "", run, &error)) << crash.when << ": " << error;
  Station station(scenario, crash.disk, run.taken + gap, root);
  ResumeReport report;
  const bool prepared = station.engine().prepareResume(run.path, false, &report, &error);
  EXPECT_TRUE(prepared) << crash.when << ": " << error;
  if (!prepared) return {};
  EXPECT_EQ(report.gap, gap) << crash.when;
  if (gap == 0) station.rig().model() = crash.rig;
  station.recordOutputs();
  station.engine().runResumed();
  return OutcomeOf(station);
}

// The command of the line a checkpoint goes on in, when it kept its
// progress there (a ramp, a sine, a pulse, a load maintenance).
std::string ProgressOf(const Crash& crash) {
  MemoryFileSystem disk("/data");
  for (const auto& [path, bytes] : crash.disk) disk.put(path, bytes);
  InterruptedRun run;
  nlohmann::json checkpoint;
  if (!FindInterruptedRun(disk, "", run, nullptr) ||
      !ReadCheckpoint(disk, run.path, checkpoint, nullptr))
    return "";
  const auto& progress = checkpoint.at("state").at("progress");
  return progress.is_object() ? progress.value("command", std::string()) : std::string();
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

// A soak loop of `hours` hours counted by LOOPCHECK with the day example's
// calculated channels; a day and an hour by default, across midnight.
Scenario Soak(int hours = 25) {
  Scenario s;
  s.files["/rigs/q/calc_rig.ims"] = Example("calc_rig.ims");
  s.files["/rigs/q/calc_day.ccs"] = Example("calc_day.ccs");
  s.files["/rigs/q/soak.wts"] = joinLines(
      {"IMSFILESPEC q:\\calc_rig.ims", "STARTCALCULATEDCHANNELS q:\\calc_day.ccs, 10", "CC_START",
       "RESETLOOPCOUNT 0", "AGAIN:", "SEND LOGSW, 1", "WAITSECONDS 3000", "SEND LOGSW, 0",
       "WAITSECONDS 600", "LOOPCHECK " + std::to_string(hours - 1) + ", DONE", "GOTO AGAIN",
       "DONE:", "CC_CHANGELOGGERS", "STOP"});
  s.sequence = "/rigs/q/soak.wts";
  s.drives['q'] = "/rigs/q";
  s.start = *parseDateTime("2026-11-30 18:00:00");
  return s;
}

// A loop through a chained file with a sequence time-out that fires inside
// a wait of the chained file, a time count and LOGONCE lines.
Scenario Flow() {
  Scenario s;
  s.files["/seq/main.wts"] =
      joinLines({"ONTIMEOUT 3000, LATE", "STARTTIMECOUNT", "TOP:", "CHAIN /seq/sub.wts",
                 "LOGONCE /data/log.txt, back", "LOOPCHECK 11, DONE", "GOTO TOP",
                 "DONE:", "AFTERTIMECOUNT 1, HOURS, LONG", "STOP",
                 "LONG:", "LOGONCE /data/log.txt, long", "STOP"});
  s.files["/seq/sub.wts"] = joinLines({"WAITSECONDS 200", "WAITRANDOM 200, 200", "RETURN",
                                       "LATE:", "LOGONCE /data/log.txt, late", "RETURN"});
  s.sequence = "/seq/main.wts";
  s.start = *parseDateTime("2026-03-01 08:00:00");
  return s;
}

// A loop of the outputs that run for a while: a ramp, a group of ramps, a
// long pulse, a sine with a monitor and its peak, a held load and a ramp of
// the held load.
Scenario Outputs() {
  Scenario s;
  s.files["/rigs/outputs.ims"] = Example("outputs.ims");
  s.files["/seq/outputs.wts"] = joinLines(
      {"IMSFILESPEC /rigs/outputs.ims", "RESETLOOPCOUNT 0",
       "AGAIN:", "RAMP ACTUATOR, 0 TO 10 OVER 60 IN 30", "[GROUPRAMPS]",
       "RAMP ACTUATOR, 10 TO 0 OVER 40 IN 16", "RAMP HEATER, 0 TO 100 OVER 25 IN 50", "[END]",
       "PULSEOUTPUT TRIGGER, HI, 5000",
       "SINEOUT DRIVE, AMPLITUDE 2 OFFSET 0 FREQUENCY 0.05 CYCLES 2 MONITOR DRIVEMON PEAK TO "
       "DRIVEPEAK",
       "MT_MAINTAIN HOLD LOADCELL AT 12 USING ACTUATOR WITH RATE 0.5 GAIN 2",
       "MT_RAMP 12 TO 4 OVER 60 IN 6 AT LOADCELL USING ACTUATOR", "SEND HEATER, 0",
       "LOOPCHECK 2, DONE", "GOTO AGAIN", "DONE:", "STOP"});
  s.sequence = "/seq/outputs.wts";
  s.start = *parseDateTime("2026-05-04 10:00:00");
  return s;
}

TEST(ResumeKill, OutputsInProgressGoOnWhereTheyWereOnTheSameSchedule) {
  const Scenario scenario = Outputs();
  std::vector<Crash> crashes;
  const int kills = Kills(60);
  const Outcome unbroken = RunUnbroken(scenario, kills, crashes, 3 * 220 * kMicrosPerSecond, kills);
  EXPECT_EQ(unbroken.error, "");
  EXPECT_EQ(unbroken.loopCount, 3);
  std::set<std::string> inside;
  for (const auto& crash : crashes) {
    const std::string progress = ProgressOf(crash);
    if (!progress.empty()) inside.insert(progress);
    const Outcome resumed = Resume(scenario, crash);
    ExpectSame(resumed, unbroken, crash.when + " (" + progress + ")");
    // From the checkpoint on, the resumed run writes what the unbroken one
    // wrote, at the same instants: no ramp starts again, no step is left out.
    EXPECT_EQ(resumed.outputs, OutputsAfter(unbroken, crash))
        << crash.when << " (" << progress << ")";
  }
  // The kills fell inside each kind of output; the few kills of a sanitizer
  // build are too few to be sure of that.
  if (kills >= 60) {
    EXPECT_EQ(inside,
              (std::set<std::string>{"maintain", "maintain ramp", "pulse", "ramps", "sine"}));
  }
}

TEST(ResumeKill, AnOutputResumedAfterAGapGoesOnWithTheTimeItHadLeft) {
  Scenario scenario = Outputs();
  scenario.files["/seq/outputs.wts"] =
      joinLines({"IMSFILESPEC /rigs/outputs.ims", "[GROUPRAMPS]",
                 "RAMP ACTUATOR, 10 TO 0 OVER 40 IN 16", "RAMP HEATER, 0 TO 100 OVER 25 IN 50",
                 "[END]", "SINEOUT DRIVE, AMPLITUDE 2 OFFSET 0 FREQUENCY 0.05 CYCLES 1", "STOP"});
  std::vector<Crash> crashes;
  const Outcome unbroken = RunUnbroken(scenario, 0, crashes, 0, 40);
  ASSERT_FALSE(crashes.empty());
  const Micros gap = 3 * 3600 * kMicrosPerSecond + 17 * kMicrosPerSecond / 10;
  int inside = 0;
  for (const auto& crash : crashes) {
    if (ProgressOf(crash).empty()) continue;
    ++inside;
    const Outcome resumed = Resume(scenario, crash, gap);
    // The same values, each written the gap later.
    std::vector<std::string> shifted;
    for (const auto& output : OutputsAfter(unbroken, crash)) {
      const size_t blank = output.find(' ');
      shifted.push_back(std::to_string(std::stoll(output.substr(0, blank)) + gap) +
                        output.substr(blank));
    }
    EXPECT_EQ(resumed.outputs, shifted) << crash.when;
    EXPECT_EQ(resumed.error, "") << crash.when;
  }
  EXPECT_GT(inside, 10);
}

// A loop that takes a folder name from an index file and saves recorder
// files in it, and cools the oven when its alarm is seen - not before a
// timed pause of the alarm checks has passed.
Scenario Bookkeeping() {
  Scenario s;
  s.files["/rigs/outputs.ims"] = Example("outputs.ims");
  s.files["/data/rec/chn0.chn"] = "recorded\r\n";
  s.files["/seq/keep.wts"] = joinLines({"IMSFILESPEC /rigs/outputs.ims",
                                        "INDEXINIT /data/idx/runs.idx, /data/saved/run??\?/, 999",
                                        "RESETLOOPCOUNT 0",
                                        "START:",
                                        "ALARMDEFINE OVENHOT, GOTO COOL",
                                        "PAUSEALARM 400",
                                        "TOP:",
                                        "SEND HEATER, 100",
                                        "WAITSECONDS 120",
                                        "INDEXSAVE580 /data/rec, chn, 1",
                                        "WAITSECONDS 300",
                                        "LOOPCHECK 8, DONE",
                                        "GOTO TOP",
                                        "COOL:",
                                        "ALARMDEFINE",
                                        "LOGONCE /data/log.txt, cooled",
                                        "SEND HEATER, 0",
                                        "WAITSECONDS 200",
                                        "LOOPCHECK 8, DONE",
                                        "GOTO START",
                                        "DONE:",
                                        "STOP"});
  s.sequence = "/seq/keep.wts";
  s.start = *parseDateTime("2026-02-10 07:30:00");
  return s;
}

TEST(ResumeKill, AlarmDefinitionsAPauseAndIndexFilesGoOnAfterAKill) {
  const Scenario scenario = Bookkeeping();
  std::vector<Crash> crashes;
  const Outcome unbroken =
      RunUnbroken(scenario, Kills(40), crashes, 9 * 620 * kMicrosPerSecond, Kills(20));
  EXPECT_EQ(unbroken.error, "");
  EXPECT_EQ(unbroken.loopCount, 9);
  // Every loop cooled once the pause was over, and took one folder name.
  const auto log = unbroken.files.find("/data/log.txt");
  ASSERT_NE(log, unbroken.files.end());
  EXPECT_NE(log->second.find("cooled"), std::string::npos);
  const auto index = unbroken.files.find("/data/idx/runs.idx");
  ASSERT_NE(index, unbroken.files.end());
  EXPECT_NE(index->second.find("\r\n9\r\n"), std::string::npos) << index->second;
  EXPECT_TRUE(unbroken.files.count("/data/saved/run009/chn0.chn"));
  EXPECT_FALSE(unbroken.files.count("/data/saved/run010/chn0.chn"));
  for (const auto& crash : crashes) ExpectSame(Resume(scenario, crash), unbroken, crash.when);
}

// Runs the scenario from its start and kills it at each of `kills` (run
// clock instants, ascending), resuming each time from what the kill left
// (a kill flagged true waits for the end of the line in progress); returns
// how the run that was killed them all ended.
Outcome RunKilledAgainAndAgain(const Scenario& scenario, const std::vector<Micros>& kills,
                               const std::vector<bool>& atLineEnd, int& resumes) {
  std::optional<Crash> crash;
  resumes = 0;
  for (size_t next = 0;; ++next) {
    std::unique_ptr<Station> station;
    if (!crash) {
      station = std::make_unique<Station>(scenario, scenario.files, scenario.start);
      Engine& engine = station->engine();
      std::string error;
      EXPECT_TRUE(engine.instrument()->ensureOpen());
      EXPECT_TRUE(engine.sequencer().prepareFile(scenario.sequence, &error)) << error;
    } else {
      MemoryFileSystem disk("/data");
      for (const auto& [path, bytes] : crash->disk) disk.put(path, bytes);
      InterruptedRun run;
      std::string error;
      if (!FindInterruptedRun(disk, "", run, &error)) {
        ADD_FAILURE() << crash->when << ": " << error;
        return {};
      }
      station = std::make_unique<Station>(scenario, crash->disk, run.taken);
      ResumeReport report;
      if (!station->engine().prepareResume(run.path, false, &report, &error)) {
        ADD_FAILURE() << crash->when << ": " << error;
        return {};
      }
      station->rig().model() = crash->rig;
      ++resumes;
    }
    Engine& engine = station->engine();
    crash.reset();
    bool killAtLineEnd = false;
    const auto kill = [&](std::string when) {
      crash = Crash{std::move(when), station->files().files(), station->rigAtCheckpoint(), 0};
      killAtLineEnd = false;
      engine.sequencer().stop();
    };
    Timer timer(engine.events(), kMicrosPerSecond, [&] {
      if (next < atLineEnd.size() && atLineEnd[next]) {
        killAtLineEnd = true;
      } else {
        kill("kill #" + std::to_string(next + 1) + " at " + isoDateTime(engine.clock().now()));
      }
    });
    engine.sequencer().addLineHook([&](int16_t line) {
      if (killAtLineEnd && !crash)
        kill("kill #" + std::to_string(next + 1) + " after line " + std::to_string(line));
    });
    if (next < kills.size()) timer.setDue(kills[next]);
    if (next == 0) {
      engine.run();
    } else {
      engine.runResumed();
    }
    timer.setEnabled(false);
    if (!crash) return OutcomeOf(*station);
  }
}

TEST(ResumeKill, ASevenDaySoakKilledFiftyTimesEndsWithTheLoopCountAndSummariesOfAnUnbrokenOne) {
  // TAVRIX_RESUME_SOAK_DAYS asks for another length. Under the sanitizers,
  // which run the same code about ten times slower, two days cross the
  // midnights and the change of month files a week does.
  const char* days = std::getenv("TAVRIX_RESUME_SOAK_DAYS");
#ifdef TAVRIX_ASAN
  constexpr int kDays = 2;
#else
  constexpr int kDays = 7;
#endif
  const int hours = 24 * (days != nullptr && std::atoi(days) > 0 ? std::atoi(days) : kDays);
  const Scenario scenario = Soak(hours);
  std::vector<Crash> none;
  const Outcome unbroken = RunUnbroken(scenario, 0, none, 0);
  EXPECT_EQ(unbroken.loopCount, hours);
  EXPECT_EQ(unbroken.error, "");
  // Fifty moments across the week, one in five at the end of the line in
  // progress rather than at once.
  std::mt19937 random(7);
  const int count = Kills(50);
  std::vector<Micros> kills;
  std::vector<bool> atLineEnd;
  for (int i = 0; i < count; ++i) {
    kills.push_back(
        scenario.start + 1 +
        static_cast<Micros>(random() % static_cast<uint64_t>(hours * 3600LL * kMicrosPerSecond)));
  }
  std::sort(kills.begin(), kills.end());
  for (int i = 0; i < count; ++i) atLineEnd.push_back(i % 5 == 4);
  int resumes = 0;
  const Outcome killed = RunKilledAgainAndAgain(scenario, kills, atLineEnd, resumes);
  EXPECT_EQ(resumes, count);
  ExpectSame(killed, unbroken, "the soak killed " + std::to_string(count) + " times");
  // The daily summaries are all there: a row for each whole day of
  // December (the soak starts on 30 November at 18:00).
  auto month = unbroken.files.begin();
  while (month != unbroken.files.end() && !EndsWith(month->first, "/MONTH_AB_2612.wl")) ++month;
  ASSERT_NE(month, unbroken.files.end());
  for (int day = 1; day < hours / 24; ++day) {
    char row[16];
    std::snprintf(row, sizeof row, "\r\n%02d\t", day);
    EXPECT_NE(month->second.find(row), std::string::npos) << day << ": " << month->second;
  }
}

TEST(ResumeKill, ACopyOfTheDataRootInAnotherFolderGoesOnThere) {
  // The chained loop, its log in the data root (an unmapped drive is a
  // folder of the data root).
  Scenario scenario = Flow();
  for (auto& [path, text] : scenario.files) {
    for (size_t at; (at = text.find("/data/log.txt")) != std::string::npos;)
      text.replace(at, 13, "c:\\log.txt");
  }
  scenario.files["/data/c/readme.txt"] = "the data root's drive c\r\n";
  std::vector<Crash> crashes;
  const Outcome unbroken = RunUnbroken(scenario, Kills(30), crashes, 4800 * kMicrosPerSecond);
  EXPECT_EQ(unbroken.error, "");
  ASSERT_TRUE(unbroken.files.count("/data/c/log.txt"));
  const std::string root = "/other machine/copied data";
  const auto moved = [](const Files& files, const std::string& from, const std::string& to) {
    Files out;
    for (const auto& [path, bytes] : files) {
      out[path.rfind(from + "/", 0) == 0 ? to + path.substr(from.size()) : path] = bytes;
    }
    return out;
  };
  for (Crash crash : crashes) {
    crash.disk = moved(crash.disk, "/data", root);
    Outcome resumed = Resume(scenario, crash, 0, root);
    // Nothing was looked for, or written, at the old place.
    for (const auto& [path, bytes] : resumed.files)
      EXPECT_NE(path.rfind("/data/", 0), 0u) << crash.when << ": " << path;
    resumed.files = moved(resumed.files, root, "/data");
    ExpectSame(resumed, unbroken, crash.when);
  }
}

TEST(ResumeKill, AChainedLoopWithATimeOutKilledAtRandomMomentsEndsAsTheUnbrokenRun) {
  const Scenario scenario = Flow();
  std::vector<Crash> crashes;
  const Outcome unbroken = RunUnbroken(scenario, Kills(40), crashes, 4800 * kMicrosPerSecond);
  EXPECT_EQ(unbroken.error, "");
  EXPECT_EQ(unbroken.loopCount, 12);
  const auto log = unbroken.files.find("/data/log.txt");
  ASSERT_NE(log, unbroken.files.end());
  // The time-out fired once, inside a wait of the chained file.
  EXPECT_NE(log->second.find("\tback\r\n"), std::string::npos) << log->second;
  EXPECT_NE(log->second.find("\tlate\r\n"), std::string::npos) << log->second;
  EXPECT_NE(log->second.find("\tlong\r\n"), std::string::npos) << log->second;
  for (const auto& crash : crashes) ExpectSame(Resume(scenario, crash), unbroken, crash.when);
}

TEST(ResumeKill, ThePumpTestKilledAtRandomMomentsEndsAsTheUnbrokenRun) {
  const Scenario scenario = PumpTest();
  std::vector<Crash> crashes;
  const int kills = Kills(200);
  const Outcome unbroken = RunUnbroken(scenario, kills, crashes, 40 * 60 * kMicrosPerSecond);
  // The run is the one the example promises: two pumps, the second failed.
  EXPECT_EQ(unbroken.uutsFinished, 2);
  EXPECT_TRUE(unbroken.anyUutFailed);
  EXPECT_EQ(unbroken.error, "");
  ASSERT_GE(crashes.size(), static_cast<size_t>(kills) * 19 / 20);
  for (const auto& crash : crashes) ExpectSame(Resume(scenario, crash), unbroken, crash.when);
}

TEST(ResumeKill, ASoakWithCalculatedChannelsKilledAtRandomMomentsEndsAsTheUnbrokenRun) {
  // Seven hours from 18:00: the calculated channels' day ends at midnight
  // inside the run.
  const Scenario scenario = Soak(7);
  std::vector<Crash> crashes;
  const int kills = Kills(200);
  const Outcome unbroken = RunUnbroken(scenario, kills, crashes, 7 * 3600 * kMicrosPerSecond);
  EXPECT_EQ(unbroken.loopCount, 7);
  EXPECT_EQ(unbroken.error, "");
  ASSERT_GE(crashes.size(), static_cast<size_t>(kills) * 19 / 20);
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

// --- tavrix-cli run --resume ---------------------------------------------------

namespace tavrix {
namespace {

class ResumeCli : public CliTestBase {
 protected:
  ResumeCli() {
    const std::string t = "\t";
    File("details.txt", "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test" + t + t +
                            "1" + t + t + Path("fields.txt") + t + Path("stages.txt") + t +
                            Path("results") + "\r\n");
    File("fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
    File("stages.txt",
         "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
         "1\tMEASURE\tPRESS\t\t-0.5\t0.5\tPressure\tbar\r\n"
         "2\tMANUAL\t\t\t\t\tSeal\t\tIs the seal fitted?\r\n");
    sequence_ = File("test.wts", "NEXT:\r\nDB_DATAENTRY " + Path("details.txt") +
                                     "\r\nDB_STAGECHECK 1\r\nWAITSECONDS 600\r\n"
                                     "DB_STAGECHECK 2\r\nINCREMENTLOOPCOUNT\r\nGOTO NEXT\r\n");
    answers_ = File("test.answers",
                    "DATAENTRY: Accept|serial=1|operator=Ann Lee|description=Pump A\n"
                    "UUTCHECK: Pass\n"
                    "DATAENTRY: Accept|serial=2|operator=Ann Lee|description=Pump B\n"
                    "UUTCHECK: Fail and Continue\n"
                    "DATAENTRY: Cancel\n");
  }

  std::vector<std::string> RunArgs() const {
    return {"run",    "--virtual-time",      "--no-hardware",   "--answers",
            answers_, "--no-control-socket", "--results-store", "off"};
  }

  // The results folder's files, and the folder emptied.
  Files TakeResults() {
    Files found;
    std::vector<std::string> names;
    testFiles().list(Path("results"), names, nullptr);
    for (const auto& name : names) {
      std::string bytes;
      testFiles().readFile(Path("results/" + name), bytes, nullptr);
      std::string kept;
      for (const auto& line : splitLines(bytes)) {
        if (line.rfind("Resumed: ", 0) != 0) kept += line + "\r\n";
      }
      found[name] = kept;
      testFiles().remove(Path("results/" + name), nullptr);
    }
    return found;
  }

  std::string Home() const { return Path("home"); }
  std::string RunsDir() const { return Path("home/runs"); }

  // Starts the run in a child process, as tavrix-cli run does, which kills
  // itself with SIGKILL after dispatched line `line` (counted from 1) or at
  // run time `at` after the start.
  void RunAndKill(int64_t line, Micros at) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      std::FILE* messages = std::tmpfile();
      std::string error;
      auto answers = AnswersFile::load(testFiles(), answers_, &error);
      if (!answers) _exit(10);
      ScriptedOperator op(std::move(*answers), messages);
      EngineConfig config;
      config.clock = std::make_unique<VirtualClock>(kStart);
      config.files = std::make_unique<LocalFileSystem>(Home());
      config.op = &op;
      config.settings.noHardware = true;
      config.link = "sim";
      auto engine = BuildEngine(std::move(config));
      if (!engine || !engine->instrument()->ensureOpen()) _exit(11);
      // Every checkpoint the run clock asks for, as a real-time run would take.
      engine->keepCheckpoints().setLeastRealGap({});
      int64_t lines = 0;
      engine->sequencer().addLineHook([&](int16_t) {
        if (++lines == line) ::raise(SIGKILL);
      });
      Timer kill(engine->events(), kMicrosPerSecond, [] { ::raise(SIGKILL); });
      if (at > 0) kill.setDue(kStart + at);
      if (!engine->sequencer().prepareFile(sequence_, &error)) _exit(12);
      engine->run();
      _exit(13);  // the run ended before the kill
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended with " << status;
  }

  static constexpr Micros kStart = 1'763'197'200LL * kMicrosPerSecond;  // 2025-11-15 09:00:00
  std::string sequence_;
  std::string answers_;
};

TEST_F(ResumeCli, AKilledRunGoesOnFromItsCheckpointAndEndsAsAnUnbrokenRun) {
  std::vector<std::string> args = RunArgs();
  args.insert(args.end(), {"--start", isoDateTime(kStart), sequence_});
  ASSERT_EQ(Cli(args), kExitUutFailed) << err_;
  const Files unbroken = TakeResults();
  ASSERT_EQ(unbroken.size(), 3u);
  EXPECT_EQ(Cli({"ctl", "list", "--interrupted"}), kExitOk);
  EXPECT_EQ(out_, "no interrupted run\n");

  // Killed after a data entry, in a stage check's line, in a wait and just
  // before the end.
  const std::vector<std::pair<int64_t, Micros>> kills = {
      {3, 0}, {5, 0}, {0, 300 * kMicrosPerSecond}, {0, 900 * kMicrosPerSecond}, {13, 0}};
  for (const auto& [line, at] : kills) {
    const std::string when = "line " + std::to_string(line) + " at " + std::to_string(at);
    RunAndKill(line, at);
    EXPECT_EQ(Cli({"ctl", "list", "--interrupted"}), kExitOk);
    EXPECT_NE(out_.find("\t" + sequence_ + "\t"), std::string::npos) << when << out_;
    std::vector<std::string> resume = RunArgs();
    resume.push_back("--resume");
    EXPECT_EQ(Cli(resume), kExitUutFailed) << when << err_;
    EXPECT_NE(err_.find("gap 0 h 00 min 00 s"), std::string::npos) << when << err_;
    EXPECT_EQ(TakeResults(), unbroken) << when;
    // The run ended: its checkpoint is gone.
    EXPECT_EQ(Cli({"ctl", "list", "--interrupted"}), kExitOk);
    EXPECT_EQ(out_, "no interrupted run\n") << when;
  }
}

TEST_F(ResumeCli, TheGapIsToldInTheTraceAndTheResultsOfTheUnitInProgress) {
  // Killed inside the first unit's wait; the run goes on two days and an
  // hour after its last checkpoint.
  RunAndKill(0, 305 * kMicrosPerSecond);
  const LocalFileSystem home(Home());
  InterruptedRun run;
  std::string error;
  ASSERT_TRUE(FindInterruptedRun(home, "", run, &error)) << error;
  const Micros taken = run.taken;
  EXPECT_GT(taken, kStart + 290 * kMicrosPerSecond);
  EXPECT_LE(taken, kStart + 305 * kMicrosPerSecond);
  // --start takes whole seconds: the next one after two days and an hour.
  const Micros later = (taken / kMicrosPerSecond + 2 * 86400 + 3600 + 1) * kMicrosPerSecond;
  std::vector<std::string> args = RunArgs();
  const std::string store = "sqlite:" + Path("results.sqlite");
  *std::find(args.begin(), args.end(), "off") = store;
  args.insert(args.end(),
              {"--resume", "--start", isoDateTime(later), "--trace", Path("trace.jsonl")});
  EXPECT_EQ(Cli(args), kExitUutFailed) << err_;
  EXPECT_NE(err_.find("gap 2 d 01 h 00 min 00 s"), std::string::npos) << err_;
  std::string trace;
  ASSERT_TRUE(testFiles().readFile(Path("trace.jsonl"), trace, nullptr));
  const size_t resume = trace.find("\"ev\":\"resume\"");
  ASSERT_NE(resume, std::string::npos) << trace.substr(0, 2000);
  EXPECT_NE(trace.find("\"gap\":176400", resume), std::string::npos) << trace.substr(resume, 300);
  // The wait went on with the time it had left: the first unit ended then,
  // and only its results say that it was resumed.
  std::vector<std::string> names;
  testFiles().list(Path("results"), names, nullptr);
  const std::string first =
      "SN_1_" + formatDate(kStart + (600 + 2 * 86400 + 3600) * kMicrosPerSecond, "yymmdd_hhmmss") +
      ".txt";
  ASSERT_NE(std::find(names.begin(), names.end(), first), names.end()) << first;
  int notes = 0;
  for (const auto& name : names) {
    std::string bytes;
    testFiles().readFile(Path("results/" + name), bytes, nullptr);
    if (bytes.find("Resumed: ") == std::string::npos) continue;
    ++notes;
    EXPECT_EQ(name, first);
    EXPECT_NE(bytes.find("Resumed: the test went on at " + isoDateTime(later) +
                         " after a gap of 2 d 01 h 00 min 00 s (checkpoint taken at " +
                         isoDateTime(taken) + ")"),
              std::string::npos)
        << bytes;
  }
  EXPECT_EQ(notes, 1);
  // The unit's record in the results store says so too; the next unit's
  // does not.
  EXPECT_EQ(Cli({"results", "show", "--store", store, "1", "--json"}), kExitOk) << err_;
  EXPECT_NE(out_.find("\"resumed\": \"the test went on at " + isoDateTime(later) +
                      " after a gap of 2 d 01 h 00 min 00 s (checkpoint taken at " +
                      isoDateTime(taken) + ")\""),
            std::string::npos)
      << out_;
  EXPECT_EQ(Cli({"results", "show", "--store", store, "2"}), kExitOk) << err_;
  EXPECT_NE(out_.find("Serial_Number: 2"), std::string::npos) << out_;
  EXPECT_EQ(out_.find("Resumed"), std::string::npos) << out_;
}

TEST_F(ResumeCli, ACheckpointThatCannotBeUsedOrAChangedSequenceIsRefusedAndKept) {
  RunAndKill(0, 305 * kMicrosPerSecond);
  std::vector<std::string> names;
  ASSERT_TRUE(testFiles().list(RunsDir(), names, nullptr));
  std::string checkpoint;
  for (const auto& name : names) {
    if (name.find(".checkpoint") != std::string::npos) checkpoint = Path("home/runs/" + name);
  }
  ASSERT_FALSE(checkpoint.empty());
  std::string good;
  ASSERT_TRUE(testFiles().readFile(checkpoint, good, nullptr));
  std::vector<std::string> resume = RunArgs();
  resume.push_back("--resume");

  const size_t body = good.find('\n') + 1;
  std::string damaged = good;
  damaged[body + damaged.size() / 2 - body / 2] ^= 0x01;
  std::string otherVersion = good;
  otherVersion.replace(otherVersion.find(" 1 "), 3, " 7 ");
  for (const auto& [bytes, message] : std::vector<std::pair<std::string, std::string>>{
           {good.substr(0, good.size() - 40), "is cut short"},
           {good.substr(0, body / 2), "is cut short"},
           {damaged, "is damaged"},
           {otherVersion, "checkpoint format version 7; this program reads version 1"},
           {"{}", "is not a run checkpoint"}}) {
    ASSERT_TRUE(testFiles().writeAtomically(checkpoint, bytes, nullptr));
    EXPECT_EQ(Cli(resume), kExitUsage) << message;
    EXPECT_NE(err_.find(message), std::string::npos) << err_;
    std::string after;
    ASSERT_TRUE(testFiles().readFile(checkpoint, after, nullptr));
    EXPECT_EQ(after, bytes) << "the checkpoint was touched: " << message;
    // The listing tells why it cannot be used.
    EXPECT_EQ(Cli({"ctl", "list", "--interrupted"}), kExitOk);
    EXPECT_NE(out_.find("unusable: the checkpoint " + checkpoint), std::string::npos) << out_;
  }

  // A sequence file changed since the checkpoint: refused, naming the file,
  // unless forced.
  ASSERT_TRUE(testFiles().writeAtomically(checkpoint, good, nullptr));
  File("test.wts", "NEXT:\r\nDB_DATAENTRY " + Path("details.txt") +
                       "\r\nDB_STAGECHECK 1\r\nWAITSECONDS 601\r\n"
                       "DB_STAGECHECK 2\r\nINCREMENTLOOPCOUNT\r\nGOTO NEXT\r\n");
  EXPECT_EQ(Cli(resume), kExitUsage);
  EXPECT_NE(err_.find("the sequence file " + sequence_ + " has changed"), std::string::npos)
      << err_;
  std::string after;
  ASSERT_TRUE(testFiles().readFile(checkpoint, after, nullptr));
  EXPECT_EQ(after, good);
  resume.push_back("--force");
  EXPECT_EQ(Cli(resume), kExitUutFailed) << err_;
  EXPECT_NE(err_.find("warning: the sequence file changed"), std::string::npos) << err_;
  EXPECT_FALSE(testFiles().isFile(checkpoint));

  // A run that is not to go on is discarded: kept aside, no longer listed.
  RunAndKill(0, 305 * kMicrosPerSecond);
  EXPECT_EQ(Cli({"ctl", "list", "--interrupted"}), kExitOk);
  const std::string name =
      out_.substr(out_.find('\n') + 1, out_.find('\t', out_.find('\n')) - out_.find('\n') - 1);
  EXPECT_EQ(Cli({"ctl", "discard", name}), kExitOk) << err_;
  EXPECT_TRUE(testFiles().isFile(Path("home/runs/discarded/" + name + ".checkpoint")));
  EXPECT_EQ(Cli({"ctl", "list", "--interrupted"}), kExitOk);
  EXPECT_EQ(out_, "no interrupted run\n");
  EXPECT_EQ(Cli(resume), kExitUsage);
  EXPECT_NE(err_.find("no interrupted run to resume"), std::string::npos) << err_;
}

TEST_F(ResumeCli, TheSafeStateSequenceRunsBeforeAResumeAndAfterAnAbnormalEnd) {
  const std::string safe = File("safe.wts", "SEND HEATER, 0\r\n");
  const std::string settings = File("rig.cfg", "safe_state = " + safe + "\r\n");
  const std::string rig = std::string(TAVRIX_SOURCE_DIR) + "/examples/rig.ims";
  // A run that ends in a sequence error leaves the heater off.
  const std::string broken = File("broken.wts", "SEND HEATER, 77\r\nGOTO NOWHERE\r\n");
  EXPECT_EQ(
      Cli({"run", "--virtual-time", "--no-control-socket", "--results-store", "off", "--setup", rig,
           "--instrument-settings", settings, "--trace", Path("t1.jsonl"), broken}),
      kExitSequenceError);
  EXPECT_NE(err_.find("the safe-state sequence " + safe + " ran"), std::string::npos) << err_;
  std::string trace;
  ASSERT_TRUE(testFiles().readFile(Path("t1.jsonl"), trace, nullptr));
  const size_t sent = trace.find("WRI HEATER 77");
  const size_t safed = trace.find("WRI HEATER 0");
  EXPECT_NE(sent, std::string::npos);
  EXPECT_NE(safed, std::string::npos);
  EXPECT_GT(safed, sent);
  // A run that ends normally does not run it.
  const std::string fine = File("fine.wts", "SEND HEATER, 5\r\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--no-control-socket", "--results-store", "off",
                 "--setup", rig, "--instrument-settings", settings, fine}),
            kExitOk);
  EXPECT_EQ(err_.find("safe-state"), std::string::npos) << err_;

  // Before a resume it runs first; one that fails (the heater is not there
  // without the rig) refuses the resume, and the run can go on later.
  RunAndKill(0, 305 * kMicrosPerSecond);
  std::vector<std::string> resume = RunArgs();
  resume.insert(resume.end(), {"--instrument-settings", settings, "--resume"});
  EXPECT_EQ(Cli(resume), kExitUsage) << err_;
  EXPECT_NE(err_.find("the safe-state sequence " + safe + " did not end normally"),
            std::string::npos)
      << err_;
  const std::string calm = File("calm.wts", "RESETLOOPCOUNT 0\r\n");
  resume[resume.size() - 2] = File("calm.cfg", "safe_state = " + calm + "\r\n");
  EXPECT_EQ(Cli(resume), kExitUutFailed) << err_;
  const size_t ran = err_.find("the safe-state sequence " + calm + " ran");
  EXPECT_NE(ran, std::string::npos) << err_;
  EXPECT_LT(ran, err_.find("resuming run")) << err_;
}

}  // namespace
}  // namespace tavrix
