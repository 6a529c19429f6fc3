#include "engine/engine.h"

#include "calcchan/calc_commands.h"
#include "common/paths.h"
#include "engine/run_checkpoints.h"
#include "engine/run_record.h"
#include "indexing/indexing_commands.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/outputs/output_commands.h"
#include "instrument/simrig/sim_link.h"
#include "resultsdb/results_feed.h"
#include "sequencer/core_commands.h"

namespace tavrix {

namespace {
// Below the link's data folder: where the daily summaries and reports go.
constexpr std::string_view kSummaryFolder = "\\summary";
// The one link an engine knows without a factory: the simulated rig.
constexpr std::string_view kSimLinkSpec = "sim";
constexpr std::string_view kNoInstrument = "No instrument link is attached";
}  // namespace

std::unique_ptr<Engine> BuildEngine(EngineConfig config, EngineBuildError* error) {
  const auto fail = [error](EnginePart part, std::string text) -> std::unique_ptr<Engine> {
    if (error != nullptr) *error = {part, std::move(text)};
    return nullptr;
  };
  if (!config.clock || !config.files || config.op == nullptr)
    return fail(EnginePart::kConfig, "an engine needs a clock, a file system and an operator");
  std::unique_ptr<Engine> engine(new Engine(config));
  std::string problem;
  if (config.companionPrograms && !engine->connectCompanionPrograms(&problem))
    return fail(EnginePart::kCompanionPrograms, problem);
  for (const auto& answer : config.companionAnswers) {
    if (!engine->companion().setAnswerFromText(answer, &problem))
      return fail(EnginePart::kCompanionAnswer, problem);
  }
  if (config.link) {
    engine->linkFactory_ = std::move(config.linkFactory);
    if (!engine->attachInstrument(std::move(config.settings), *config.link, &problem))
      return fail(EnginePart::kLink, problem);
    engine->instrument_->channels().setNameMap(std::move(config.channelMap));
  }
  return engine;
}

Engine::Engine(EngineConfig& config)
    : clock_(std::move(config.clock)),
      ownFiles_(std::move(config.files)),
      resultsStore_(std::move(config.resultsStore)),
      files_(*ownFiles_),
      paths_(files_.dataRoot()),
      events_(*clock_),
      trace_(*clock_),
      companion_(&trace_),
      sequencer_(events_, *config.op, trace_, files_, paths_),
      testDatabase_(sequencer_, paths_,
                    ResultsSettings{.writeResults = config.writeResultsFiles,
                                    .xmlLayout = config.xmlResultsFiles,
                                    .dataDirectory = join(files_.dataRoot(), "data")}),
      safeState_(config.settings.safeStateSequence) {
  RegisterSequencerCommands(sequencer_, {}, &loopCountOutput_);
  RegisterCompanionCommands(sequencer_, companion_);
  RegisterOperatorEntryCommands(sequencer_, &channelAccess_);
  RegisterIndexingCommands(sequencer_, companion_);
  testDatabase_.registerCommands();
  publishSubsystemEvents();
}

Engine::~Engine() = default;

void Engine::recordEveryRun(const RunRecordLimits& limits, const std::string& frontEnd,
                            const std::string& testSocket) {
  recorder_ = std::make_unique<RunRecorder>(*this, limits, frontEnd, nullptr, testSocket);
}

std::string Engine::recordId() const { return recorder_ ? recorder_->currentId() : std::string(); }

void Engine::publishSubsystemEvents() {
  testDatabase_.addUutFinishedHook(
      [this](const UutRecord& uut, const std::vector<std::string>& files) {
        RunEvent event;
        event.kind = RunEventKind::kUut;
        event.title = uut.serialNumber;
        event.flag = uut.passed;
        event.items = files;
        sequencer_.publish(std::move(event));
      });
}

// --- Commands ------------------------------------------------------------------

void Engine::post(std::function<void(Engine&)> task) {
  events_.post([this, task = std::move(task)] { task(*this); });
}

void Engine::start() {
  post([](Engine& e) {
    const bool fresh = !e.sequencer_.flags().running;
    e.sequencer_.start();
    if (fresh) e.makeSafeAfterAbnormalEnd();
  });
}
void Engine::startStepping() {
  post([](Engine& e) {
    const bool fresh = !e.sequencer_.flags().running;
    e.sequencer_.startStepping();
    if (fresh) e.makeSafeAfterAbnormalEnd();
  });
}

void Engine::makeSafeAfterAbnormalEnd() {
  const EndReason reason = sequencer_.endReason();
  if (safeState_.empty() || reason == EndReason::kEndOfFile || reason == EndReason::kStop ||
      reason == EndReason::kNone)
    return;
  const std::string file = sequencer_.preparedFileName();
  bool ran = false;
  std::string error;
  const bool safe = runSafeState(&ran, &error);
  // The run's own file is the one prepared again for the next Run.
  std::string problem;
  if (!file.empty()) sequencer_.prepareFile(file, &problem);
  if (!safe) {
    sequencer_.showMessage(error);
  } else if (ran) {
    sequencer_.showMessage("The run ended (" + std::string(EndReasonName(reason)) +
                           "): the safe-state sequence " + safeState_ + " ran");
  }
}
void Engine::stop() {
  post([](Engine& e) { e.sequencer_.stop(); });
}
void Engine::pause() {
  post([](Engine& e) { e.sequencer_.pause(); });
}
void Engine::resume() {
  post([](Engine& e) { e.sequencer_.resume(); });
}
void Engine::step() {
  post([](Engine& e) { e.sequencer_.step(); });
}
void Engine::skip() {
  post([](Engine& e) { e.sequencer_.skip(); });
}

void Engine::close(std::function<void(bool)> closed) {
  post([closed = std::move(closed)](Engine& e) {
    const bool may = e.sequencer_.mayClose();
    if (may && e.sequencer_.flags().running) e.sequencer_.requestAbort();
    if (closed) closed(may);
  });
}

void Engine::prepare(std::string path, std::function<void(bool, const std::string&)> done) {
  post([path = std::move(path), done = std::move(done)](Engine& e) {
    std::string error;
    // The file of a run, free or stepped, is never swapped under it.
    const bool prepared = !e.sequencer_.flags().running && e.sequencer_.prepareFile(path, &error);
    if (done) done(prepared, error);
  });
}

EndReason Engine::run() {
  sequencer_.start();
  return sequencer_.endReason();
}

bool Engine::feedResultsStore(std::string* error) {
  resultsFeed_.reset();
  if (!resultsStore_) return true;
  std::string problem;
  resultsFeed_ = ResultsFeed::Start(*ownFiles_, resultsStore_->setting, resultsStore_->station,
                                    testDatabase_, sequencer_, resultsStore_->report, &problem);
  if (!problem.empty()) {
    if (error) *error = problem;
    return false;
  }
  return true;
}

bool Engine::attachInstrument(InstrumentSettings settings, std::string_view linkSpec,
                              std::string* error) {
  if (instrument_) {
    // Its commands are bound to the instrument already attached.
    if (error) *error = "an instrument link is attached already";
    return false;
  }
  std::unique_ptr<LinkLibrary> backend;
  if (linkFactory_) {
    backend = linkFactory_(linkSpec, events_.clock(), settings, files_, error);
  } else if (linkSpec.empty() || linkSpec == kSimLinkSpec) {
    backend = std::make_unique<SimLink>(events_.clock(), settings.dataRoot, files_);
  } else if (error) {
    *error = "unknown link \"" + std::string(linkSpec) + "\": use sim";
  }
  if (!backend) return false;
  // The one drive map of the run: the settings' drives over the data root.
  paths_ = MakePathMap(files_.dataRoot(), settings);
  instrument_ = std::make_unique<Instrument>(events_, trace_, std::move(settings),
                                             std::move(backend), paths_);
  instrument_->watchOutputs([this](std::string_view channel, std::string_view value) {
    // Only front ends hear output values; the trace writer does not.
    if (sequencer_.runEvents().subscribers() < 2) return;
    RunEvent event;
    event.kind = RunEventKind::kOutput;
    event.title = channel;
    event.text = value;
    sequencer_.publish(std::move(event));
  });
  RegisterInstrumentCommands(sequencer_, *instrument_);
  loopCountOutput_.attach(instrument_.get());
  RegisterOutputCommands(sequencer_, *instrument_);
  calcChannelPort_ = std::make_unique<InstrumentChannelPort>(*instrument_);
  CalcPorts ports;
  ports.channels = calcChannelPort_.get();
  ports.files = &files_;
  ports.showMessage = [this](std::string_view text) { sequencer_.showMessage(text); };
  ports.companion = [this](std::string_view topic, std::string_view item, std::string_view text,
                           std::string* why) { return companion_.execute(topic, item, text, why); };
  ports.resolvePath = [this](std::string_view spec) { return resolvePath(spec); };
  ports.dataFolder = [this] { return instrument_->link().GetDataDirectory(); };
  ports.summaryFolder = [this] {
    return instrument_->link().GetDataDirectory() + std::string(kSummaryFolder);
  };
  calc_ = std::make_unique<CalcChannels>(events_, std::move(ports));
  RegisterCalcChannelCommands(sequencer_, *calc_);

  // The stage checks read channels through the channel operations, and
  // results without a directory of their own go to the link's data directory.
  testDatabase_.setDataDirectory(instrument_->link().GetDataDirectory());
  testDatabase_.setChannelReader(
      [this](const std::string& name, std::string& value, std::string* error) {
        if (instrument_->channels().ReadChannel(name, value)) return true;
        if (error != nullptr) *error = instrument_->link().lastErrorText();
        return false;
      });
  return true;
}

std::string Engine::resolvePath(std::string_view spec) const { return paths_.toLocal(spec); }

bool Engine::connectCompanionPrograms(std::string* error) {
  if (programs_ == nullptr) programs_ = MakeSystemCompanion();
  if (programs_ == nullptr) {
    if (error != nullptr) *error = "companion programs are reached only on Windows";
    return false;
  }
  companion_.connect(programs_.get());
  return true;
}

bool Engine::InstrumentChannels::read(std::string_view channel, std::string& value,
                                      std::string* error) {
  Instrument* instrument = engine_.instrument();
  if (instrument == nullptr) {
    if (error) *error = kNoInstrument;
    return false;
  }
  if (instrument->channels().ReadChannel(channel, value)) return true;
  if (error) *error = instrument->link().lastErrorText();
  return false;
}

bool Engine::InstrumentChannels::write(std::string_view channel, std::string_view value,
                                       std::string* error) {
  Instrument* instrument = engine_.instrument();
  if (instrument == nullptr) {
    if (error) *error = kNoInstrument;
    return false;
  }
  if (instrument->channels().WriteChannel(channel, value)) return true;
  if (error) *error = instrument->link().lastErrorText();
  return false;
}

}  // namespace tavrix
