#include "window_engine.h"

#include <cstdio>

#include "engine/run_checkpoints.h"
#include "engine/run_record.h"
#include "instrument/backends/link_backends.h"
#include "platform/companion_programs.h"

namespace tavrix {

namespace {

EngineConfig WindowConfig(Operator& op, const std::string& dataRoot,
                          const InstrumentSettings& settings) {
  EngineConfig config;
  config.clock = std::make_unique<SystemClock>();
  config.files = std::make_unique<LocalFileSystem>(dataRoot);
  config.op = &op;
  config.resultsStore = EngineConfig::ResultsStore{
      settings.resultsStore, settings.station,
      [](const std::string& text) { std::fprintf(stderr, "tavrix: %s\n", text.c_str()); }};
  // Where the system has companion programs (Windows) the window talks to
  // them; elsewhere it records what it would have sent.
  config.companionPrograms = platform::hasCompanionPrograms();
  return config;
}

}  // namespace

std::unique_ptr<Engine> MakeWindowEngine(Operator& op, const std::string& dataRoot,
                                         InstrumentSettings settings, const std::string& link) {
  const auto report = [](const std::string& text) {
    std::fprintf(stderr, "tavrix: %s\n", text.c_str());
  };
  EngineConfig config = WindowConfig(op, dataRoot, settings);
  config.settings = settings;
  config.link = link;
  config.linkFactory = MakeLinkLibrary;
  EngineBuildError problem;
  auto engine = BuildEngine(std::move(config), &problem);
  if (engine == nullptr && problem.part == EnginePart::kLink) {
    report(problem.text);
    engine = BuildEngine(WindowConfig(op, dataRoot, settings), &problem);
  }
  if (engine == nullptr) {
    report(problem.text);
    return nullptr;
  }
  std::string error;
  if (!engine->feedResultsStore(&error)) report("results store: " + error);
  // Every run keeps a checkpoint in the data root until it ends, and a
  // record that stays.
  engine->keepCheckpoints();
  engine->recordEveryRun({settings.recordsMaxAge, settings.recordsMaxBytes}, "window");
  if (engine->instrument() != nullptr) engine->instrument()->ensureOpen();
  return engine;
}

}  // namespace tavrix
