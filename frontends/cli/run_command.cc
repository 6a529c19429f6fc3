#include "run_command.h"

#include <CLI/CLI.hpp>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "common/civil_time.h"
#include "crypt_commands.h"
#include "engine/engine.h"
#include "instrument/backends/link_backends.h"
#include "instrument/link/instrument.h"
#include "instrument/tcp/rig_server.h"
#include "lint_command.h"
#include "platform/console.h"
#include "platform/timer_resolution.h"
#include "results_commands.h"
#include "resultsdb/results_recorder.h"
#include "resultsdb/uut_capture.h"
#include "sequencer/console_operators.h"
#include "terminal_view.h"

namespace tavrix {

namespace {

int ExitStatusFor(EndReason reason) {
  switch (reason) {
    case EndReason::kEndOfFile:
    case EndReason::kStop:
      return kExitOk;
    case EndReason::kError:
    case EndReason::kUnload:
      return kExitSequenceError;
    case EndReason::kAbort:
    case EndReason::kNone:
      break;
  }
  return kExitStopped;
}

// Turns the console's stop request (Ctrl+C, SIGTERM, Ctrl+Break) into the
// window's close request, posted to the engine, for as long as it lives.
class SignalBridge {
 public:
  explicit SignalBridge(Engine& engine)
      : requests_([&engine] {
          engine.events().post([&engine] {
            Sequencer& seq = engine.sequencer();
            if (seq.flags().running && seq.closeRequest()) seq.requestAbort();
          });
        }) {}

 private:
  platform::StopRequests requests_;
  // Timed waits and ramp steps keep their accuracy for the run.
  platform::FineTimerResolution timers_;
};

}  // namespace

int RunSequence(const RunOptions& options, std::FILE* in, std::FILE* out, std::FILE* err) {
  std::unique_ptr<Clock> clock;
  if (options.virtualTime) {
    Micros start = SystemClock().now();
    if (options.start) {
      const auto parsed = parseDateTime(*options.start);
      if (!parsed) {
        std::fprintf(err, "tavrix-cli: --start wants \"YYYY-MM-DD HH:MM:SS\", not \"%s\"\n",
                     options.start->c_str());
        return kExitUsage;
      }
      start = *parsed;
    }
    clock = std::make_unique<VirtualClock>(start);
  } else {
    if (options.start) {
      std::fprintf(err, "tavrix-cli: --start needs --virtual-time\n");
      return kExitUsage;
    }
    clock = std::make_unique<SystemClock>();
  }

  std::string operatorError;
  std::unique_ptr<Operator> op = MakeConsoleOperator(options.answers, in, err, &operatorError);
  if (!op) {
    std::fprintf(err, "tavrix-cli: %s\n", operatorError.c_str());
    return kExitUsage;
  }

  // The terminal view, unless the trace takes standard output.
  const bool traceToOut = options.trace && *options.trace == "-";
  TerminalView view(*op, out, traceToOut ? err : out,
                    !traceToOut && !options.quiet && TerminalView::IsTerminal(out));
  Engine engine(std::move(clock), view);
  view.attach(engine, options.virtualTime);
  struct Detach {
    TerminalView& view;
    ~Detach() { view.detach(); }
  } detach{view};
  if (options.trace && !traceToOut) view.addFileWritten(*options.trace);
  if (options.trace) {
    if (*options.trace == "-") {
      engine.trace().setOutput(out, false);
    } else {
      std::FILE* file = std::fopen(options.trace->c_str(), "w");
      if (file == nullptr) {
        std::fprintf(err, "tavrix-cli: cannot write the trace file %s\n", options.trace->c_str());
        return kExitUsage;
      }
      engine.trace().setOutput(file, true);
    }
  }
  engine.trace().setOrigin(engine.clock().now());
  for (const auto& answer : options.companionAnswers) {
    std::string error;
    if (!engine.companion().setAnswerFromText(answer, &error)) {
      std::fprintf(err, "tavrix-cli: --companion-answer: %s\n", error.c_str());
      return kExitUsage;
    }
  }

  Sequencer& seq = engine.sequencer();
  TestDatabase& testDatabase = engine.testDatabase();
  testDatabase.results.xmlLayout = options.results == "xml";
  testDatabase.results.writeResults = options.results != "off";
  std::string error;

  InstrumentSettings settings;
  if (options.instrumentSettings && !LoadInstrumentSettings(*options.instrumentSettings, settings, error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }
  if (options.noHardware) settings.noHardware = true;
  if (options.replyTimeout) {
    if (*options.replyTimeout < 0 || *options.replyTimeout > 32767) {
      std::fprintf(err, "tavrix-cli: --reply-timeout takes whole seconds 0-32767\n");
      return kExitUsage;
    }
    settings.useReplyTimeout = true;
    settings.replyTimeoutSecs = *options.replyTimeout;
  }
  engine.setLinkFactory(MakeLinkLibrary);
  if (!engine.attachInstrument(settings, options.link, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }
  Instrument* instrument = engine.instrument();
  if (!instrument->ensureOpen()) {
    std::fprintf(err, "tavrix-cli: cannot open the instrument link %s: %s\n", options.link.c_str(),
                 instrument->link().lastErrorText.c_str());
    return kExitUsage;
  }
  if (options.setup && !instrument->selectSetupFile(*options.setup)) {
    std::fprintf(err, "tavrix-cli: cannot load the setup %s: %s\n", options.setup->c_str(),
                 instrument->link().lastErrorText.c_str());
    return kExitUsage;
  }

  if (!seq.prepareFile(options.sequence, &error)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }

  // The results store: records wait in a journal in the data root and are
  // written by the recorder's thread, never by the engine's.
  StoreSpec storeSpec;
  if (!ParseStoreSpec(options.resultsStore.value_or(settings.resultsStore), defaultDataRoot(),
                      storeSpec, &error)) {
    std::fprintf(err, "tavrix-cli: --results-store: %s\n", error.c_str());
    return kExitUsage;
  }
  std::unique_ptr<ResultsQueue> resultsQueue;
  std::unique_ptr<ResultsRecorder> recorder;
  if (storeSpec.kind != StoreSpec::Kind::kOff) {
    resultsQueue = std::make_unique<ResultsQueue>(join(defaultDataRoot(), kQueueFileName));
    if (!resultsQueue->open(&error)) std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    recorder = std::make_unique<ResultsRecorder>(
        *resultsQueue, [storeSpec](std::string* e) -> std::unique_ptr<ResultsStore> {
          return OpenResultsStore(storeSpec, e);
        });
    recorder->start();
    std::string station = options.station.value_or(settings.station);
    if (station.empty()) station = DefaultStationName();
    CaptureUuts(testDatabase, seq, *recorder, station, [err](const std::string& text) {
      std::fprintf(err, "tavrix-cli: %s\n", text.c_str());
    });
  }

  EndReason reason;
  {
    SignalBridge signals(engine);
    seq.pressRun();
    reason = seq.endReason();
  }
  if (recorder) {
    // What the store has not taken after a while waits in the journal for
    // the next run; it never changes how the run ended.
    testDatabase.uutEnded = nullptr;
    const bool written = recorder->flush(std::chrono::seconds(10));
    recorder->stop();
    if (!written) {
      std::fprintf(err, "tavrix-cli: %zu UUT records wait in %s for %s: %s\n",
                   recorder->waiting(), resultsQueue->path().c_str(),
                   DescribeStoreSpec(storeSpec).c_str(), recorder->lastError().c_str());
    }
    if (engine.trace().enabled() && (testDatabase.uutsFinished() > 0 || recorder->waiting() > 0)) {
      auto event = engine.trace().event("results_store");
      event.field("store", DescribeStoreSpec(storeSpec))
          .field("waiting", static_cast<int64_t>(recorder->waiting()));
      if (!written) event.field("error", recorder->lastError());
    }
  }
  int status = ExitStatusFor(reason);
  if (status == kExitOk && testDatabase.anyUutFailed()) status = kExitUutFailed;
  if (engine.trace().enabled()) {
    engine.trace().event("end").field("reason", EndReasonName(reason)).field("code", status);
  }
  view.finish(reason, status);
  return status;
}

int TavrixCliMain(const std::vector<std::string>& args, std::FILE* in, std::FILE* out, std::FILE* err) {
  CLI::App app{"Runs test sequences headless against a rig or its simulation.", "tavrix-cli"};
  app.require_subcommand(1);
  RunOptions run;
  CLI::App* runCommand = app.add_subcommand("run", "Run a sequence file (.wts) to its end");
  runCommand->add_flag("--virtual-time", run.virtualTime, "Run on a virtual clock: waits take no real time");
  runCommand->add_option("--start", run.start, "Where the virtual clock starts: \"YYYY-MM-DD HH:MM:SS\"");
  runCommand->add_option("--answers", run.answers, "File of scripted operator answers");
  runCommand->add_option("--trace", run.trace, "Write a JSON-lines trace to FILE (- for standard output)");
  runCommand->add_flag("--no-hardware", run.noHardware, "Every channel reads \"0\"; no setup is loaded, so writes find no channel");
  runCommand->add_option("--companion-answer", run.companionAnswers,
                         "Answer of a companion program's DDE item: TOPIC!ITEM=VALUE (repeatable)");
  runCommand->add_option("--setup", run.setup, "Hardware setup (.ims) to load before the first line");
  runCommand->add_option("--link", run.link, "The instrument link: sim (default), dll (Windows) or tcp://HOST:PORT");
  runCommand->add_option("--reply-timeout", run.replyTimeout, "Give up a device exchange after SECONDS");
  runCommand->add_option("--instrument-settings", run.instrumentSettings,
                         "Settings file of the instrument link (key = value)");
  runCommand->add_option("--results", run.results, "Results files of tested UUTs: text (default), xml or off")
      ->check(CLI::IsMember({"text", "xml", "off"}));
  runCommand->add_flag("--quiet", run.quiet,
                       "Show only messages and the summary, even on a terminal");
  runCommand->add_option("--results-store", run.resultsStore,
                         "Where UUT records go besides the results files: sqlite (default), "
                         "sqlite:FILE, off, or a connection string");
  runCommand->add_option("--station", run.station, "This station's name in the UUT records");
  runCommand->add_option("SEQUENCE", run.sequence, "The sequence file")->required();

  RigOptions rig;
  CLI::App* rigCommand = app.add_subcommand("rig", "Serve the simulated rig over TCP");
  rigCommand->add_option("--listen", rig.listen, "Address to listen on, HOST:PORT (default 127.0.0.1:5025)");
  rigCommand->add_option("--setup", rig.setup, "The rig's setup file (.ims)");

  std::vector<std::string> lintFiles;
  CLI::App* lintCommand = AddLintCommand(app, lintFiles);

  CryptCommands cryptCommands(app);
  ResultsCommands resultsCommands(app);

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
  } catch (const CLI::ParseError& e) {
    std::fprintf(err, "tavrix-cli: %s\nRun 'tavrix-cli --help' for usage.\n", e.what());
    return kExitUsage;
  }
  if (runCommand->parsed()) return RunSequence(run, in, out, err);
  if (auto status = cryptCommands.run(in, out, err)) return *status;
  if (auto status = resultsCommands.run(out, err)) return *status;
  if (rigCommand->parsed()) return RunRigServer(rig.listen, rig.setup, err);
  if (lintCommand->parsed()) return RunLint(lintFiles, out, err);
  return kExitUsage;
}

}  // namespace tavrix
