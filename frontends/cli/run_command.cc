#include "run_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "answer_relay.h"
#include "build_version.h"
#include "common/checked_numbers.h"
#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "console_operators.h"
#include "crypt_commands.h"
#include "ctl_command.h"
#include "engine/engine.h"
#include "engine/run_checkpoints.h"
#include "instrument/backends/link_backends.h"
#include "instrument/iomap/map_link.h"
#include "instrument/link/instrument.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_server.h"
#include "lint_command.h"
#include "platform/companion_programs.h"
#include "platform/console.h"
#include "platform/timer_resolution.h"
#include "results_commands.h"
#include "resultsdb/results_feed.h"
#include "run_control.h"
#include "sequencer/sequence_file.h"
#include "serve_command.h"
#include "shell_session.h"
#include "simulated_devices.h"
#include "station_run.h"
#ifndef _WIN32
#include "station_publisher.h"
#endif
#include "terminal_keys.h"
#include "terminal_view.h"

namespace tavrix {

int ExitStatusFor(EndReason reason) {
  switch (reason) {
    case EndReason::kEndOfFile:
    case EndReason::kStop:
      return kExitOk;
    case EndReason::kError:
    case EndReason::kUnload:
      return kExitSequenceError;
    case EndReason::kLimit:
      return kExitLimit;
    case EndReason::kAbort:
    case EndReason::kNone:
      break;
  }
  return kExitStopped;
}

namespace {

// "3-5, 9" from the line numbers {3, 4, 5, 9}.
std::string LineRanges(const std::set<int>& lines) {
  std::string text;
  for (auto it = lines.begin(); it != lines.end();) {
    const int first = *it;
    int last = first;
    while (++it != lines.end() && *it == last + 1) last = *it;
    if (!text.empty()) text += ", ";
    text += std::to_string(first);
    if (last != first) text += "-" + std::to_string(last);
  }
  return text;
}

// The limits `--stop-after` and `--max-lines` put on a run, and the warning
// for a virtual-time run that loops without a wait.
class RunLimits {
 public:
  RunLimits(Engine& engine, std::optional<Micros> stopAfter, const std::string& stopAfterText,
            std::optional<int64_t> maxLines, int64_t loopWarningLines, std::FILE* err)
      : engine_(engine),
        maxLines_(maxLines),
        loopWarningLines_(loopWarningLines),
        err_(err),
        lastNow_(engine.clock().now()) {
    Sequencer& seq = engine.sequencer();
    if (stopAfter) {
      stopTimer_ = std::make_unique<Timer>(engine.events(), *stopAfter, [this, stopAfterText] {
        stopTimer_->setEnabled(false);
        reach("--stop-after " + stopAfterText);
      });
      stopTimer_->setEnabled(true);
    }
    // The hook stays with the sequencer after this goes (a safe-state run
    // follows): it then does nothing.
    seq.addLineHook([this, alive = alive_](int16_t line) {
      if (*alive) lineDispatched(line);
    });
  }
  ~RunLimits() {
    *alive_ = false;
    if (stopTimer_) stopTimer_->setEnabled(false);
  }

  // The limit that ended the run, empty when none did.
  const std::string& reached() const { return reached_; }

 private:
  void reach(const std::string& limit) {
    Sequencer& seq = engine_.sequencer();
    if (!reached_.empty() || !seq.flags().running || seq.flags().stopRequested) return;
    reached_ = limit;
    seq.requestLimitStop();
  }

  void lineDispatched(int16_t line) {
    ++dispatched_;
    if (maxLines_ && dispatched_ >= *maxLines_) reach("--max-lines " + std::to_string(*maxLines_));
    if (!engine_.clock().isVirtual() || warned_) return;
    const Micros now = engine_.clock().now();
    if (now != lastNow_) {
      lastNow_ = now;
      still_ = 0;
      loopLines_.clear();
      return;
    }
    ++still_;
    // The lines of the last stretch name the loop.
    if (still_ > loopWarningLines_ - std::min<int64_t>(100'000, loopWarningLines_ / 2))
      loopLines_.insert(line);
    if (still_ < loopWarningLines_) return;
    warned_ = true;
    std::fprintf(
        err_,
        "tavrix-cli: warning: %lld lines have run without the virtual clock moving: lines %s "
        "of %s loop without a wait; --max-lines N ends such a run\n",
        static_cast<long long>(loopWarningLines_), LineRanges(loopLines_).c_str(),
        engine_.sequencer().sequenceFileName().c_str());
    std::fflush(err_);
  }

  Engine& engine_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::optional<int64_t> maxLines_;
  int64_t loopWarningLines_;
  std::FILE* err_;
  std::unique_ptr<Timer> stopTimer_;
  std::string reached_;
  int64_t dispatched_ = 0;
  Micros lastNow_;
  int64_t still_ = 0;
  std::set<int> loopLines_;
  bool warned_ = false;
};

// Hands the console's stop requests (Ctrl+C, SIGTERM, a closed terminal)
// to the engine as the window's close request once the run has an engine; a
// request that comes before that is kept and handed over then.
class StopRelay {
 public:
  void request() {
    std::lock_guard guard(mutex_);
    if (engine_ != nullptr) {
      post(*engine_);
    } else {
      pending_ = true;
    }
  }
  void attach(Engine* engine) {
    std::lock_guard guard(mutex_);
    engine_ = engine;
    if (engine_ != nullptr && pending_) {
      pending_ = false;
      post(*engine_);
    }
  }

 private:
  static void post(Engine& engine) {
    engine.events().post([&engine] {
      Sequencer& seq = engine.sequencer();
      if (seq.flags().running && seq.mayClose()) seq.requestAbort();
    });
  }

  std::mutex mutex_;
  Engine* engine_ = nullptr;
  bool pending_ = false;
};

// For as long as it lives, stop requests reach `engine`, and timed waits and
// ramp steps keep their accuracy.
class StopBridge {
 public:
  StopBridge(StopRelay& relay, Engine& engine) : relay_(relay) { relay_.attach(&engine); }
  ~StopBridge() { relay_.attach(nullptr); }
  StopBridge(const StopBridge&) = delete;
  StopBridge& operator=(const StopBridge&) = delete;

 private:
  StopRelay& relay_;
  platform::FineTimerResolution timers_;
};

// What the options and the settings file ask of a run, read and checked
// before anything of the run starts.
struct RunSetup {
  InterruptedRun interrupted;  // with --resume: the run to go on with
  std::unique_ptr<Clock> clock;
  std::unique_ptr<LocalFileSystem> files;
  std::optional<Micros> stopAfter;
  std::optional<int64_t> maxLines;
  std::unique_ptr<Operator> op;
  InstrumentSettings settings;
  RunRecordLimits recordLimits;
  std::string link;
  std::string storeSetting;
  std::string stationName;
};

// The run to go on with: found, and its checkpoint read, before anything
// else, so that a checkpoint that cannot be used is told at once and left
// as it is.
bool FindRunToResume(const Host& host, const RunOptions& options, InterruptedRun& interrupted,
                     std::FILE* err) {
  const LocalFileSystem probe(host.dataRoot);
  std::string problem;
  nlohmann::json checkpoint;
  if (!FindInterruptedRun(probe, options.resumeRun, interrupted, &problem) ||
      !ReadCheckpoint(probe, interrupted.path, checkpoint, &problem)) {
    std::fprintf(err, "tavrix-cli: %s\n", problem.c_str());
    return false;
  }
  interrupted.taken = checkpoint.value("taken", Micros{0});
  return true;
}

// The run's clock: the system's, or a virtual one from --start (a resumed
// run's from its checkpoint, else now).
std::unique_ptr<Clock> MakeRunClock(const RunOptions& options, const InterruptedRun& interrupted,
                                    std::FILE* err) {
  if (!options.virtualTime) {
    if (options.start) {
      std::fprintf(err, "tavrix-cli: --start needs --virtual-time\n");
      return nullptr;
    }
    return std::make_unique<SystemClock>();
  }
  // A resumed run's virtual clock goes on from its checkpoint.
  Micros start = options.resume ? interrupted.taken : SystemClock().now();
  if (options.start) {
    const auto parsed = parseDateTime(*options.start);
    if (!parsed) {
      std::fprintf(err, "tavrix-cli: --start wants \"YYYY-MM-DD HH:MM:SS\", not \"%s\"\n",
                   options.start->c_str());
      return nullptr;
    }
    start = *parsed;
  }
  return std::make_unique<VirtualClock>(start);
}

// --stop-after and --max-lines.
bool ParseRunLimits(const RunOptions& options, RunSetup& setup, std::FILE* err) {
  if (options.stopAfter) {
    setup.stopAfter = parseDuration(*options.stopAfter);
    if (!setup.stopAfter) {
      std::fprintf(
          err, "tavrix-cli: --stop-after wants a span such as 90s, 30m, 48h or 7d, not \"%s\"\n",
          options.stopAfter->c_str());
      return false;
    }
  }
  if (options.maxLines) {
    setup.maxLines = parseWholeNumber(*options.maxLines);
    if (!setup.maxLines || *setup.maxLines < 1) {
      std::fprintf(err, "tavrix-cli: --max-lines wants a whole number from 1 to %lld, not \"%s\"\n",
                   static_cast<long long>(INT64_MAX), options.maxLines->c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

bool LoadRunSettings(const FileSystem& files, const RunOptions& options,
                     InstrumentSettings& settings, std::FILE* err) {
  std::string error;
  if (options.instrumentSettings &&
      !LoadInstrumentSettings(files, *options.instrumentSettings, settings, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return false;
  }
  if (options.noHardware) settings.noHardware = true;
  if (options.replyTimeout) {
    if (*options.replyTimeout < 0 || *options.replyTimeout > 32767) {
      std::fprintf(err, "tavrix-cli: --reply-timeout takes whole seconds 0-32767\n");
      return false;
    }
    settings.useReplyTimeout = true;
    settings.replyTimeoutSecs = *options.replyTimeout;
  }
  if (options.linkKey) settings.linkKeyFile = *options.linkKey;
  return true;
}

namespace {

// Reads and checks the options, the answers file and the settings file;
// false once it has told what is wrong.
bool ParseRun(const Host& host, const RunOptions& options, std::FILE* in, std::FILE* err,
              RunSetup& setup) {
  if (options.resume && !FindRunToResume(host, options, setup.interrupted, err)) return false;
  setup.clock = MakeRunClock(options, setup.interrupted, err);
  if (!setup.clock) return false;
  // The data root is decided here, once, for the whole run.
  setup.files = std::make_unique<LocalFileSystem>(host.dataRoot);
  if (!ParseRunLimits(options, setup, err)) return false;
  std::string operatorError;
  setup.op = MakeConsoleOperator(*setup.files, options.answers, in, err, &operatorError);
  if (!setup.op) {
    std::fprintf(err, "tavrix-cli: %s\n", operatorError.c_str());
    return false;
  }
  if (!LoadRunSettings(*setup.files, options, setup.settings, err)) return false;
  setup.recordLimits = {setup.settings.recordsMaxAge, setup.settings.recordsMaxBytes};
  setup.link = !options.link.empty()          ? options.link
               : !setup.settings.link.empty() ? setup.settings.link
                                              : std::string(kLinkSim);
  setup.storeSetting = options.resultsStore.value_or(setup.settings.resultsStore);
  setup.stationName = options.station.value_or(setup.settings.station);
  return true;
}

// The terminal side of a run: the view (unless the trace takes standard
// output), the keys that drive a run on a terminal, and the relay through
// which questions may also be answered from the control socket.
struct RunConsole {
  RunConsole(Operator& op, const RunOptions& options, std::FILE* in, std::FILE* out, std::FILE* err)
      : traceToOut(options.trace && *options.trace == "-"),
        view(op, out, traceToOut ? err : out,
             !traceToOut && !options.quiet && !options.shell && TerminalView::IsTerminal(out)),
        keys(view),
        takeKeys(!options.shell && TerminalKeys::Available(in)),
        answers(takeKeys ? static_cast<Operator&>(keys) : view) {}

  const bool traceToOut;
  TerminalView view;
  // On a terminal, keys drive the run; they stand before the view so that
  // no key is read once a question is on its way to the screen.
  TerminalKeys keys;
  const bool takeKeys;
  AnswerRelay answers;
};

// The engine the run goes on, its questions put through `answers`.
std::unique_ptr<Engine> BuildRunEngine(const RunOptions& options, RunSetup& setup,
                                       AnswerRelay& answers, std::FILE* err) {
  EngineConfig config;
  config.clock = std::move(setup.clock);
  config.files = std::move(setup.files);
  config.op = &answers;
  config.resultsStore = EngineConfig::ResultsStore{
      setup.storeSetting, setup.stationName,
      [err](const std::string& text) { std::fprintf(err, "tavrix-cli: %s\n", text.c_str()); }};
  config.settings = std::move(setup.settings);
  config.link = setup.link;
  config.linkFactory = MakeLinkLibrary;
  config.xmlResultsFiles = options.results == "xml";
  config.writeResultsFiles = options.results != "off";
  config.companionPrograms = options.companions == "programs";
  config.companionAnswers = options.companionAnswers;
  EngineBuildError problem;
  std::unique_ptr<Engine> built = BuildEngine(std::move(config), &problem);
  if (built == nullptr) {
    const char* option = problem.part == EnginePart::kCompanionPrograms ? "--companions programs: "
                         : problem.part == EnginePart::kCompanionAnswer ? "--companion-answer: "
                                                                        : "";
    std::fprintf(err, "tavrix-cli: %s%s\n", option, problem.text.c_str());
  }
  return built;
}

// The trace goes to --trace (a file, or standard output for "-"); its times
// count from now.
bool StartTrace(Engine& engine, TerminalView& view, const RunOptions& options, bool traceToOut,
                std::FILE* out, std::FILE* err) {
  if (options.trace && !traceToOut) view.addFileWritten(*options.trace);
  if (options.trace) {
    if (*options.trace == "-") {
      engine.trace().setOutput(streamOutput(out));
    } else {
      auto file = engine.files().create(*options.trace, nullptr);
      if (file == nullptr) {
        std::fprintf(err, "tavrix-cli: cannot write the trace file %s\n", options.trace->c_str());
        return false;
      }
      engine.trace().setOutput(std::move(file));
    }
  }
  engine.trace().setOrigin(engine.clock().now());
  return true;
}

// The instrument link opened, and the --setup file loaded into it.
bool OpenInstrument(Engine& engine, const std::string& link, const RunOptions& options,
                    std::FILE* err) {
  Instrument* instrument = engine.instrument();
  if (!instrument->ensureOpen()) {
    const std::string problem = instrument->link().library().connectionProblem();
    std::fprintf(err, "tavrix-cli: cannot open the instrument link %s: %s%s\n", link.c_str(),
                 instrument->link().lastErrorText().c_str(),
                 problem.empty() ? "" : (" (" + problem + ")").c_str());
    return false;
  }
  if (options.setup && !instrument->selectSetupFile(*options.setup)) {
    std::fprintf(err, "tavrix-cli: cannot load the setup %s: %s\n", options.setup->c_str(),
                 instrument->link().lastErrorText().c_str());
    return false;
  }
  return true;
}

// An interrupted run made ready to go on after its checkpoint, and told.
bool PrepareResume(Engine& engine, const InterruptedRun& interrupted, bool force, std::FILE* err) {
  ResumeReport report;
  std::string error;
  if (!engine.prepareResume(interrupted.path, force, &report, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return false;
  }
  if (report.safeStateRan) {
    std::fprintf(err, "tavrix-cli: the safe-state sequence %s ran\n",
                 engine.safeStateSequence().c_str());
  }
  if (report.sequenceChanged) {
    std::fprintf(err, "tavrix-cli: warning: the sequence file changed since the checkpoint\n");
  }
  for (const auto& warning : report.warnings)
    std::fprintf(err, "tavrix-cli: warning: %s\n", warning.c_str());
  std::fprintf(err,
               "tavrix-cli: resuming run %s of %s after line %d%s%s: checkpoint of %s, gap %s\n",
               report.run.c_str(), report.sequence.c_str(), report.line,
               report.serial.empty() ? "" : ", UUT ", report.serial.c_str(),
               isoDateTime(report.taken).c_str(), GapText(report.gap).c_str());
  return true;
}

// The sequence file loaded. The shell's run goes round a sequence of its
// own, kept in a folder of its own for as long as the shell runs.
bool PrepareSequence(const Host& host, Engine& engine, const RunOptions& options, std::FILE* in,
                     std::FILE* out, std::optional<ScratchFolder>& shellFolder,
                     std::optional<ShellSession>& shell, std::FILE* err) {
  std::string error;
  std::string sequence = options.sequence;
  if (options.shell) {
    shellFolder.emplace();
    sequence = shellFolder->file("shell.wts");
    if (!host.files.writeAtomically(sequence, ShellSession::kLoopSequence, &error)) {
      std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
      return false;
    }
  }
  Sequencer& seq = engine.sequencer();
  if (!seq.prepareFile(sequence, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return false;
  }
  if (options.shell) {
    shell.emplace(engine, in, out, TerminalView::IsTerminal(in),
                  join(engine.files().dataRoot(), "shell-history"));
    shell->attach();
  }
  if (seq.sequenceHasBareLineFeeds()) {
    std::fprintf(err, "tavrix-cli: warning: %s: %s\n", options.sequence.c_str(),
                 std::string(kBareLineFeedWarning).c_str());
  }
  return true;
}

// Runs to the end, within the limits of the options and open to stop
// requests; `limit` is the limit that ended it, if one did.
EndReason RunToEnd(Engine& engine, const RunOptions& options, const RunSetup& setup,
                   StopRelay& stopRelay, ShellSession* shell, std::string& limit, std::FILE* err) {
  RunLimits limits(engine, setup.stopAfter, options.stopAfter.value_or(""), setup.maxLines,
                   options.loopWarningLines, err);
  StopBridge stops(stopRelay, engine);
  EndReason reason = options.resume ? engine.runResumed() : engine.run();
  // In the shell a line that is a sequence error ends that run only: the
  // shell goes on with the next line, and ends with the status of the
  // first that failed.
  const EndReason first = reason;
  while (shell && reason == EndReason::kError && shell->wantsAnotherRun()) reason = engine.run();
  if (shell && first == EndReason::kError) reason = first;
  limit = limits.reached();
  return reason;
}

// After an abnormal end the rig is put in its safe state.
void PutInSafeState(Engine& engine, EndReason reason, std::FILE* err) {
  if (reason != EndReason::kAbort && reason != EndReason::kError && reason != EndReason::kUnload &&
      reason != EndReason::kLimit) {
    return;
  }
  bool ran = false;
  std::string error;
  if (!engine.runSafeState(&ran, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
  } else if (ran) {
    std::fprintf(err, "tavrix-cli: the safe-state sequence %s ran\n",
                 engine.safeStateSequence().c_str());
  }
}

// The exit status of a run that ended for `reason`, once the results store
// has had its records: a lost output turns a finished run into a failed one.
int EndStatus(Engine& engine, EndReason reason, const std::string& limit, std::FILE* err) {
  size_t recordsLost = 0;
  if (ResultsFeed* feed = engine.resultsFeed()) {
    // What the store has not taken after a while waits in the journal for
    // the next run; only records that the journal could not hold are lost.
    std::string problem;
    if (!feed->finish(std::chrono::seconds(10), &problem))
      std::fprintf(err, "tavrix-cli: %s\n", problem.c_str());
    recordsLost = feed->lost();
  }
  if (reason == EndReason::kLimit)
    std::fprintf(err, "tavrix-cli: %s ended the run\n", limit.c_str());
  int status = ExitStatusFor(reason);
  if (status == kExitOk && engine.testDatabase().anyUutFailed()) status = kExitUutFailed;
  const auto losses = engine.files().losses();
  if (losses.empty() && recordsLost == 0) return status;
  for (const auto& loss : losses) {
    std::fprintf(err, "tavrix-cli: lost %lld write%s of %s\n", static_cast<long long>(loss.writes),
                 loss.writes == 1 ? "" : "s", loss.path.c_str());
  }
  if (status == kExitOk || status == kExitUutFailed) {
    std::fprintf(err, "tavrix-cli: the run ended (%s) but some of its output was lost\n",
                 status == kExitOk ? "no UUT failed" : "a UUT failed its test");
    status = kExitOutputLost;
  }
  return status;
}

// The first write the run loses is told at once; the run goes on.
void ReportFirstLoss(Engine& engine, std::FILE* err) {
  engine.files().onFirstLoss([err](const WatchedFileSystem::Loss& loss) {
    std::fprintf(
        err,
        "tavrix-cli: output lost: %s (the run goes on; later failures of this file are counted)\n",
        loss.firstError.c_str());
  });
}

// Everything of a run once its engine is built: the view attached, the
// trace, the run's record and the link opened, the sequence (or the
// checkpoint) loaded, breakpoints and the control socket, the run itself,
// and its exit status.
int DriveRun(const Host& host, const RunOptions& options, RunSetup& setup, RunConsole& console,
             StopRelay& stopRelay, Engine& engine, std::FILE* in, std::FILE* out, std::FILE* err) {
  ReportFirstLoss(engine, err);
  TerminalView& view = console.view;
  view.attach(engine, options.virtualTime);
  struct Detach {
    TerminalView& view;
    ~Detach() { view.detach(); }
  } detach{view};
  if (!StartTrace(engine, view, options, console.traceToOut, out, err)) return kExitUsage;
  // Every run keeps its trace in the data root, whether or not --trace asks
  // for one as well.
  const InterruptedRun& interrupted = setup.interrupted;
  RunRecording record(
      engine,
      {options.shell    ? std::string("(shell)")
       : options.resume ? (interrupted.sequence.empty() ? interrupted.path : interrupted.sequence)
                        : options.sequence,
       {},
       options.shell ? "shell" : "cli",
       engine.clock().now()},
      setup.recordLimits, err);
  if (!OpenInstrument(engine, setup.link, options, err)) return kExitUsage;

  // Every run keeps a checkpoint in the data root, which goes when it ends
  // (not the shell's, whose lines come from its input).
  if (!options.shell) engine.keepCheckpoints();
  std::optional<ScratchFolder> shellFolder;
  std::optional<ShellSession> shell;
  if (options.resume ? !PrepareResume(engine, interrupted, options.force, err)
                     : !PrepareSequence(host, engine, options, in, out, shellFolder, shell, err)) {
    return kExitUsage;
  }

  // Breakpoints and the control socket.
  std::string error;
  RunControl control(engine, err);
  if (!control.setBreakpoints(options.breaks, options.breakIfs, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }
  control.setAnswers(console.answers);
  if (options.controlSocket) {
    control.openSocket(options.resume ? engine.sequencer().sequenceFileName() : options.sequence,
                       {}, record.id());
  }
  if (console.takeKeys) control.takeKeys(console.keys, in, view);
#ifndef _WIN32
  // With a plant's database server for a store, the station's runs are
  // published into it while this one runs (the plant page shows them).
  std::unique_ptr<plant::RunPublishing> publishing;
  if (options.controlSocket) {
    publishing = plant::RunPublishing::Start(setup.storeSetting, engine.files().dataRoot(),
                                             setup.stationName);
    if (publishing) publishing->ranHere(control.runId());
  }
#endif

  // The results store: records wait in a journal in the data root and are
  // written by the recorder's thread, never by the engine's.
  if (!engine.feedResultsStore(&error)) {
    std::fprintf(err, "tavrix-cli: --results-store: %s\n", error.c_str());
    return kExitUsage;
  }

  std::string limit;
  const EndReason reason =
      RunToEnd(engine, options, setup, stopRelay, shell ? &*shell : nullptr, limit, err);
  PutInSafeState(engine, reason, err);
  const int status = EndStatus(engine, reason, limit, err);
  if (engine.trace().enabled()) {
    engine.trace().event("end").field("reason", EndReasonName(reason)).field("code", status);
  }
  record.finish(reason, status);
  view.finish(reason, status);
  return status;
}

}  // namespace

int RunSequence(const Host& host, const RunOptions& options, std::FILE* in, std::FILE* out,
                std::FILE* err) {
  if (options.station && NamesStationFile(*options.station))
    return RunStation(host, options, *options.station, in, out, err);
  // Taken before any thread of the run starts (the results store's writer,
  // the terminal view), so that a stop request never ends the process
  // before the results are written.
  StopRelay stopRelay;
  const platform::StopRequests stopRequests([&stopRelay](int) { stopRelay.request(); });
  RunSetup setup;
  if (!ParseRun(host, options, in, err, setup)) return kExitUsage;
  RunConsole console(*setup.op, options, in, out, err);
  const std::unique_ptr<Engine> engine = BuildRunEngine(options, setup, console.answers, err);
  if (engine == nullptr) return kExitUsage;
  return DriveRun(host, options, setup, console, stopRelay, *engine, in, out, err);
}

int RunRig(const Host& host, const RigOptions& options, std::FILE* out, std::FILE* err,
           const std::atomic<bool>* stop) {
  std::string error;
  if (options.newKey) {
    if (!WriteNewLinkKey(*options.newKey, &error)) {
      std::fprintf(err, "tavrix-cli rig: %s\n", error.c_str());
      return kExitUsage;
    }
    std::fprintf(out, "tavrix-cli rig: wrote a new key to %s\n", options.newKey->c_str());
    return kExitOk;
  }
  if (options.simulate)
    return ServeSimulatedDevice(*options.simulate, options.listen, out, err, stop);
  RigServing serving;
  serving.listen = options.listen;
  serving.setupFile = options.setup;
  serving.keyFile = options.key.value_or("");
  InstrumentSettings settings;
  if (options.instrumentSettings &&
      !LoadInstrumentSettings(host.files, *options.instrumentSettings, settings, &error)) {
    std::fprintf(err, "tavrix-cli rig: %s\n", error.c_str());
    return kExitUsage;
  }
  SystemClock clock;
  if (options.link != kLinkSim) {
    serving.library = MakeLinkLibrary(options.link, clock, settings, host.files, &error);
    if (!serving.library) {
      std::fprintf(err, "tavrix-cli rig: %s\n", error.c_str());
      return kExitUsage;
    }
    serving.libraryName = options.link;
  }
  return RunRigServer(host.files, std::move(serving), err, stop);
}

namespace {
int CommandMain(const Host& host, const std::vector<std::string>& args, std::FILE* in,
                std::FILE* out, std::FILE* err);

// "tavrix-cli 7.0 (commit 0123456789ab)": what --version shows.
std::string VersionText() {
  return std::string("tavrix-cli ") + BuildVersion() + " (commit " + BuildCommit() + ")";
}
}  // namespace

int TavrixCliMain(const Host& host, const std::vector<std::string>& args, std::FILE* in,
                  std::FILE* out, std::FILE* err) {
  const int status = CommandMain(host, args, in, out, err);
  // What a command printed must have arrived: a full disk or a closed pipe
  // behind standard output is a failure of the command, not a success.
  errno = 0;
  const bool flushed = out == nullptr || std::fflush(out) == 0;
  if (out != nullptr && (!flushed || std::ferror(out))) {
    const int why = errno;
    std::fprintf(err, "tavrix-cli: cannot write standard output%s%s\n", why ? ": " : "",
                 why ? std::strerror(why) : "");
    return status == kExitOk ? 1 : status;
  }
  return status;
}

namespace {
// Whether the command line gives `--station` a station file.
bool NamesStationFileIn(const std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--station" && i + 1 < args.size() && NamesStationFile(args[i + 1])) return true;
    if (args[i].rfind("--station=", 0) == 0 && NamesStationFile(args[i].substr(10))) return true;
  }
  return false;
}

// The options of `run` that say how the run goes: its clock, who answers
// its questions, its trace, and the companion programs.
void AddRunOptions(CLI::App* command, RunOptions& run) {
  command->add_flag("--virtual-time", run.virtualTime,
                    "Run on a virtual clock: waits take no real time");
  command->add_option("--start", run.start,
                      "Where the virtual clock starts: \"YYYY-MM-DD HH:MM:SS\"");
  command->add_option("--answers", run.answers, "File of scripted operator answers");
  command->add_option("--trace", run.trace,
                      "Write a JSON-lines trace to FILE (- for standard output)");
  command->add_flag("--no-hardware", run.noHardware,
                    "Every channel reads \"0\"; no setup is loaded, so writes find no channel");
  command->add_option("--companion-answer", run.companionAnswers,
                      "Answer of a companion program's DDE item: TOPIC!ITEM=VALUE (repeatable)");
  run.companions = platform::hasCompanionPrograms() ? "programs" : "record";
  command
      ->add_option("--companions", run.companions,
                   "record: companion commands only go to the trace; programs: they reach the "
                   "programs of this computer (Windows; the default there)")
      ->check(CLI::IsMember({"record", "programs"}));
}

// The options of `run` for the instrument link.
void AddRunLinkOptions(CLI::App* command, RunOptions& run) {
  command->add_option("--setup", run.setup, "Hardware setup (.ims) to load before the first line");
  command->add_option(
      "--link", run.link,
      "The instrument link: sim (default), dll (Windows), tcp://HOST:PORT or map:FILE (an I/O map "
      "of Modbus and SCPI devices)");
  command->add_option("--link-key", run.linkKey,
                      "Key file for a rig server that asks for a key (tcp:// links)");
  command->add_option("--reply-timeout", run.replyTimeout,
                      "Give up a device exchange after SECONDS");
  command->add_option("--instrument-settings", run.instrumentSettings,
                      "Settings file of the instrument link (key = value)");
}

// The options of `run` for what it leaves, when it ends and what it shows.
void AddRunOutputOptions(CLI::App* command, RunOptions& run) {
  command
      ->add_option("--results", run.results,
                   "Results files of tested UUTs: text (default), xml or off")
      ->check(CLI::IsMember({"text", "xml", "off"}));
  command->add_option(
      "--stop-after", run.stopAfter,
      "End the run (exit status 5) after this long on its clock: 90s, 30m, 48h, 7d");
  command->add_option("--max-lines", run.maxLines,
                      "End the run (exit status 5) after N dispatched lines");
  command->add_flag("--quiet", run.quiet, "Show only messages and the summary, even on a terminal");
  command->add_option("--results-store", run.resultsStore,
                      "Where UUT records go besides the results files: sqlite (default), "
                      "sqlite:FILE, off, or a connection string");
  command->add_option("--station", run.station,
                      "This station's name in the UUT records, or a station file (.toml) whose "
                      "test sockets all run at once (see docs/stations.md)");
}

// The options of `run` that hold it, and the control socket.
void AddRunControlOptions(CLI::App* command, RunOptions& run) {
  command->add_option("--break", run.breaks,
                      "Hold the run before LINE or after LABEL, from hit N on with LINE:N "
                      "(repeatable; see docs/run-control.md)");
  command->add_option("--break-if", run.breakIfs,
                      "Hold the run when a channel condition such as \"T1 > 80\" turns true "
                      "(=, >, <, <>; \"T1 > 80:N\" from hit N on; repeatable)");
  command->add_flag("!--no-control-socket", run.controlSocket,
                    "Open no control socket for tavrix-cli ctl");
}

struct RunCommand {
  CLI::App* command;
  CLI::Option* resume;
};

// `tavrix-cli run`: its options, then --resume and SEQUENCE, which the
// command line `args` decides whether it wants.
RunCommand AddRunCommand(CLI::App& app, RunOptions& run, const std::vector<std::string>& args) {
  CLI::App* command = app.add_subcommand("run", "Run a sequence file (.wts) to its end");
  AddRunOptions(command, run);
  AddRunLinkOptions(command, run);
  AddRunOutputOptions(command, run);
  AddRunControlOptions(command, run);
  CLI::Option* resumeOption =
      command
          ->add_option("--resume", run.resumeRun,
                       "Go on with an interrupted run (RUN: its name from 'tavrix-cli ctl list "
                       "--interrupted'; the latest when left out) instead of starting SEQUENCE")
          ->expected(0, 1);
  command->add_flag("--force", run.force,
                    "With --resume: go on although the sequence file changed since the checkpoint");
  // SEQUENCE is wanted unless a run goes on (which is told before the
  // parse, so that options taking several values leave SEQUENCE alone).
  const bool resuming = std::any_of(args.begin(), args.end(), [](const std::string& arg) {
    return arg == "--resume" || arg.rfind("--resume=", 0) == 0;
  });
  CLI::Option* sequence = command->add_option(
      "SEQUENCE", run.sequence,
      "The sequence file (with a station file: every socket's sequence; not with --resume)");
  // Required unless a station file names the sockets' sequences or a run
  // goes on. Required, a positional is kept from the repeatable options
  // before it (--break 1 FILE).
  if (!NamesStationFileIn(args) && !resuming) sequence->required();
  return {command, resumeOption};
}

// `tavrix-cli shell`: a run whose lines are typed one at a time.
CLI::App* AddShellCommand(CLI::App& app, RunOptions& shell, const std::string& companions) {
  shell.shell = true;
  shell.companions = companions;
  CLI::App* command =
      app.add_subcommand("shell",
                         "Run each line typed on the rig at once (.read CH, .channels, .watch CH, "
                         ".trace FILE, .quit)");
  command->add_option("--setup", shell.setup, "Hardware setup (.ims) to load first");
  command->add_option("--link", shell.link,
                      "The instrument link: sim (default), dll (Windows), tcp://HOST:PORT or "
                      "map:FILE");
  command->add_option("--link-key", shell.linkKey,
                      "Key file for a rig server that asks for one (tcp:// links)");
  command->add_option("--instrument-settings", shell.instrumentSettings,
                      "Settings file of the instrument link (key = value)");
  command->add_option("--answers", shell.answers, "File of scripted operator answers");
  command->add_flag("--virtual-time", shell.virtualTime,
                    "Run on a virtual clock: waits take no real time");
  command->add_option("--trace", shell.trace, "Write a JSON-lines trace to FILE from the start");
  command->add_option("--results-store", shell.resultsStore,
                      "Where UUT records go besides the results files");
  shell.results = "text";
  shell.controlSocket = false;
  return command;
}

// `tavrix-cli rig`: serves a rig over TCP.
CLI::App* AddRigCommand(CLI::App& app, RigOptions& rig) {
  CLI::App* command = app.add_subcommand(
      "rig", "Serve the simulated rig, or the rig PC's link libraries, over TCP (tcp:// links)");
  command->add_option("--listen", rig.listen,
                      "Address to listen on, HOST:PORT (default 127.0.0.1:5025); any address "
                      "but 127.x.x.x needs --key");
  command->add_option("--setup", rig.setup, "The simulated rig's setup file (.ims)");
  command
      ->add_option("--link", rig.link,
                   "What to serve: sim (the simulated rig, default), dll (the rig PC's "
                   "libraries, 32-bit Windows build) or map:FILE (the devices of an I/O map)")
      ->check(CLI::Validator(
          [](std::string& value) -> std::string {
            if (value == "sim" || value == "dll" ||
                value.rfind(std::string(kLinkMapPrefix), 0) == 0) {
              return {};
            }
            return "sim, dll or map:FILE";
          },
          "sim|dll|map:FILE"));
  command
      ->add_option("--simulate", rig.simulate,
                   "Serve a simulated device on --listen instead: modbus (an oven, Modbus TCP) or "
                   "scpi (a power supply, SCPI on a raw socket)")
      ->check(CLI::IsMember({"modbus", "scpi"}));
  command->add_option("--key", rig.key,
                      "Key file: clients must prove they hold the same key (--link-key)");
  command->add_option("--new-key", rig.newKey,
                      "Write a new random key to FILE (readable by its owner only) and exit");
  command->add_option("--instrument-settings", rig.instrumentSettings,
                      "Settings file: where the dll link finds its libraries");
  return command;
}

// Parses the command line; the status when that alone ends the command
// (help, the version, or a command line it cannot take).
std::optional<int> ParseCommandLine(CLI::App& app, const std::vector<std::string>& args,
                                    std::FILE* out, std::FILE* err) {
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  if (!reversed.empty()) reversed.pop_back();  // the program name
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), out);
    return kExitOk;
  } catch (const CLI::CallForAllHelp&) {
    std::fputs(app.help("", CLI::AppFormatMode::All).c_str(), out);
    return kExitOk;
  } catch (const CLI::CallForVersion& e) {
    std::fprintf(out, "%s\n", e.what());
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    std::fprintf(err, "tavrix-cli: %s\nRun 'tavrix-cli --help' for usage.\n", e.what());
    return kExitUsage;
  }
  return std::nullopt;
}

// `run` once the options that go together have been checked.
int StartRun(const Host& host, const RunOptions& run, std::FILE* in, std::FILE* out,
             std::FILE* err) {
  const bool station = run.station && NamesStationFile(*run.station);
  if (run.resume && station) {
    std::fprintf(err, "tavrix-cli: --resume goes on with one run, not a station's sockets\n");
    return kExitUsage;
  }
  if (!station && run.resume == !run.sequence.empty()) {
    std::fprintf(err, "tavrix-cli: run wants %s\nRun 'tavrix-cli --help' for usage.\n",
                 run.resume ? "either --resume or a SEQUENCE, not both" : "a SEQUENCE");
    return kExitUsage;
  }
  if (run.force && !run.resume) {
    std::fprintf(err, "tavrix-cli: --force goes with --resume\n");
    return kExitUsage;
  }
  return RunSequence(host, run, in, out, err);
}

// `lint`: the files given, or a station file's sequences.
int StartLint(const Host& host, const std::vector<std::string>& files, const std::string& link,
              const std::string& station, std::FILE* out, std::FILE* err) {
  if (!station.empty()) return LintStation(host, station, files, out, err);
  if (files.empty()) {
    std::fprintf(err, "tavrix-cli: SEQUENCE is required\nRun 'tavrix-cli --help' for usage.\n");
    return kExitUsage;
  }
  return RunLint(host, files, out, err, link);
}

int CommandMain(const Host& host, const std::vector<std::string>& args, std::FILE* in,
                std::FILE* out, std::FILE* err) {
  CLI::App app{"Runs test sequences headless against a rig or its simulation.", "tavrix-cli"};
  app.require_subcommand(1);
  app.set_version_flag("--version", VersionText(),
                       "Show the version and the commit it was built from");
  RunOptions run;
  const RunCommand runCommand = AddRunCommand(app, run, args);
  RunOptions shell;
  CLI::App* shellCommand = AddShellCommand(app, shell, run.companions);
  RigOptions rig;
  CLI::App* rigCommand = AddRigCommand(app, rig);
  std::vector<std::string> lintFiles;
  std::string lintLink;
  std::string lintStation;
  CLI::App* lintCommand = AddLintCommand(app, lintFiles, &lintLink, &lintStation);
  CryptCommands cryptCommands(app);
  ResultsCommands resultsCommands(app);
  CtlCommand ctlCommand(app);
  ServeCommand serveCommand(app);

  if (auto status = ParseCommandLine(app, args, out, err)) return *status;
  if (runCommand.command->parsed()) {
    run.resume = runCommand.resume->count() > 0;
    return StartRun(host, run, in, out, err);
  }
  if (shellCommand->parsed()) return RunSequence(host, shell, in, out, err);
  if (auto status = cryptCommands.run(host, in, out, err)) return *status;
  if (auto status = resultsCommands.run(host, out, err)) return *status;
  if (auto status = ctlCommand.run(host, out, err)) return *status;
  if (auto status = serveCommand.run(host, out, err)) return *status;
  if (rigCommand->parsed()) return RunRig(host, rig, out, err);
  if (lintCommand->parsed()) return StartLint(host, lintFiles, lintLink, lintStation, out, err);
  return kExitUsage;
}

}  // namespace

}  // namespace tavrix
