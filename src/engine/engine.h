// One engine: the clock, the event loop, the trace, the companion programs
// and the run engine with every subsystem's commands registered. A front end
// builds one from an EngineConfig (engine/engine_config.h), subscribes to its
// run events, and drives it with its commands; several engines live side by
// side in one process, each with its own clock, files and rig.
//
// Threads: the engine's state belongs to the engine thread, the one that
// runs its event loop (EngineHost's thread in the window, the calling thread
// in tavrix-cli run). The commands below and subscribe() are safe from any
// thread; everything else is for the engine thread only (post() gets there).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "calcchan/evaluation.h"
#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "common/watched_file_system.h"
#include "engine/engine_config.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "sequencer/channel_access.h"
#include "sequencer/companion.h"
#include "sequencer/run_events.h"
#include "sequencer/sequencer.h"
#include "testdb/test_database.h"

namespace tavrix {

class ResultsFeed;
class RunCheckpoints;
class RunRecorder;
struct RunRecordLimits;

// What a resume found and did, for the front end to tell.
struct ResumeReport {
  std::string run;       // the run's name
  std::string sequence;  // the sequence file it was started with
  int line = 0;          // the line it goes on after
  std::string serial;    // the UUT in progress, empty when none
  Micros taken = 0;      // the run clock when the checkpoint was taken
  Micros resumedAt = 0;  // ... and when the run went on
  Micros gap = 0;
  bool safeStateRan = false;
  bool sequenceChanged = false;       // went on with --force over a changed file
  std::vector<std::string> warnings;  // outputs that could not be written again
};

// "2 h 05 min 03 s" for a gap.
std::string GapText(Micros gap);
class Engine {
 public:
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // --- Commands: safe from any thread; each is posted to the event loop ---
  // start() runs a free run of the prepared file (a held run goes on
  // freely); startStepping() a run held before its first line. stop() ends
  // the run at once. pause() holds the run before its next line as stepping
  // does (outputs, alarms and calculated channels go on); step() runs the
  // held line and holds again; skip() passes over the hold as step() does;
  // resume() goes on freely. close() ends the run for good when it may be
  // ended (after NONSTOP the operator is asked) and tells `closed` whether
  // it did.
  void start();
  void startStepping();
  void stop();
  void pause();
  void resume();
  void step();
  void skip();
  void close(std::function<void(bool closed)> closed = {});
  // Prepares `path` for running unless a run is going; `done` gets false
  // and a message when the file cannot be read (or a run is going).
  void prepare(std::string path,
               std::function<void(bool prepared, const std::string& error)> done = {});
  // Runs `task` on the engine thread. Safe from any thread.
  void post(std::function<void(Engine&)> task);

  // --- Run events: safe from any thread ------------------------------------
  // The handler is called on the engine thread for every run event until the
  // subscription is let go; see sequencer/run_events.h.
  [[nodiscard]] RunEventBus::Subscription subscribe(RunEventBus::Handler handler) {
    return sequencer_.runEvents().subscribe(std::move(handler));
  }

  // Runs the prepared file to its end on the calling thread, which becomes
  // the engine thread (tavrix-cli run); returns how it ended.
  EndReason run();

  // --- The parts, for the engine thread ------------------------------------

  Clock& clock() { return *clock_; }
  EventLoop& events() { return events_; }
  Trace& trace() { return trace_; }
  Sequencer& sequencer() { return sequencer_; }
  // The run's files. Every write that fails is counted here (see
  // WatchedFileSystem::losses) so that lost output is never silent.
  WatchedFileSystem& files() { return files_; }
  // How Windows paths in sequence and definition files map to local ones:
  // built once from the data root and, when the instrument is attached, the
  // drive map of its settings. Every command that names a file uses it.
  const PathMap& paths() const { return paths_; }
  TestDatabase& testDatabase() { return testDatabase_; }
  // The companion programs: a recording adapter that writes what was asked
  // to the trace and answers only configured requests, until it is
  // connected to the programs of this computer.
  RecordingCompanion& companion() { return companion_; }

  // Null when the config named no link.
  Instrument* instrument() { return instrument_.get(); }
  CalcChannels* calcChannels() { return calc_.get(); }

  // Feeds the results store the config names with every UUT that ends,
  // besides the results files. The journal lies in the data root and is
  // written straight to the file system: a journal that cannot be written
  // loses nothing (the record waits in memory, the results file holds it)
  // and is told to the config's `report`. False with a message for a bad
  // setting; "off", or no store in the config, feeds nothing. Call at most
  // once.
  bool feedResultsStore(std::string* error);
  // Null unless a store is fed.
  ResultsFeed* resultsFeed() { return resultsFeed_.get(); }

  // --- Checkpoints and resume (engine thread) ---------------------------------
  // Keeps a checkpoint of every run from now on (data root, runs/).
  RunCheckpoints& keepCheckpoints();
  RunCheckpoints* checkpoints() { return checkpoints_.get(); }
  // Keeps a record of every run from now on (data root, runs/<run id>/),
  // for a front end that starts many runs with one engine (the window, and
  // each test socket of the window's station: `testSocket`).
  void recordEveryRun(const RunRecordLimits& limits, const std::string& frontEnd,
                      const std::string& testSocket = {});
  // The id of the record of the run in progress; empty without one. Engine
  // thread (a subscriber to the run's start, subscribed after the records
  // began, finds the new run's id here).
  std::string recordId() const;
  // Gets ready to go on with the run of the checkpoint at `path`: checks
  // that the sequence file is unchanged (unless `force`), runs the
  // safe-state sequence, selects the run's setup again, writes the outputs
  // the run had written, and restores the run state. False with a message
  // when it cannot; the checkpoint is then left as it is. runResumed() goes
  // on with the run.
  bool prepareResume(const std::string& path, bool force, ResumeReport* report, std::string* error);
  EndReason runResumed();
  // Runs the safe-state sequence of the settings, if they name one; `ran`
  // tells whether it did. False with a message when it cannot be run.
  bool runSafeState(bool* ran, std::string* error);
  const std::string& safeStateSequence() const { return safeState_; }
  // After a run started by start() or startStepping() that ended abnormally
  // (Stop, a sequence error): runs the safe-state sequence, says so to the
  // operator, and prepares the run's file again. (tavrix-cli, which runs
  // with run(), does the same itself.)
  void makeSafeAfterAbnormalEnd();

  // A file specification as written in sequence files, as a local path: the
  // instrument settings' drive map, and for other drives "<data root>/<x>"
  // (see common/paths.h).
  std::string resolvePath(std::string_view spec) const;

 private:
  friend std::unique_ptr<Engine> BuildEngine(EngineConfig config, EngineBuildError* error);
  explicit Engine(EngineConfig& config);
  // From now on the companion commands reach the programs of this computer
  // (DDE, key strokes, program starts); the trace still records them. False,
  // with a message, where the system has none (all but Windows).
  bool connectCompanionPrograms(std::string* error);
  bool attachInstrument(InstrumentSettings settings, std::string_view linkSpec, std::string* error);
  // Publishes what the instrument and the test database tell as run events.
  void publishSubsystemEvents();

  // Channel reads and writes for the sequencer's operator commands, through
  // the instrument once it is attached.
  class InstrumentChannels : public ChannelAccess {
   public:
    explicit InstrumentChannels(Engine& engine) : engine_(engine) {}
    bool read(std::string_view channel, std::string& value, std::string* error) override;
    bool write(std::string_view channel, std::string_view value, std::string* error) override;

   private:
    Engine& engine_;
  };

  std::unique_ptr<Clock> clock_;
  std::unique_ptr<FileSystem> ownFiles_;
  std::optional<EngineConfig::ResultsStore> resultsStore_;
  WatchedFileSystem files_;
  PathMap paths_;
  LinkFactory linkFactory_;
  EventLoop events_;
  Trace trace_;
  std::unique_ptr<Companion> programs_;
  RecordingCompanion companion_;
  Sequencer sequencer_;
  TestDatabase testDatabase_;
  InstrumentChannels channelAccess_{*this};
  std::unique_ptr<Instrument> instrument_;
  // INCREMENTLOOPCOUNT writes to the instrument's channels once one is attached.
  InstrumentLoopCountOutput loopCountOutput_;
  std::unique_ptr<InstrumentChannelPort> calcChannelPort_;
  std::unique_ptr<CalcChannels> calc_;
  std::string safeState_;
  std::unique_ptr<RunCheckpoints> checkpoints_;
  // Last: it is unplugged from the test database before that goes.
  std::unique_ptr<ResultsFeed> resultsFeed_;
  // Goes first: it writes into the trace.
  std::unique_ptr<RunRecorder> recorder_;
};

}  // namespace tavrix
