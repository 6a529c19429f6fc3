#include "window_engine.h"

#include <cstdio>

#include "instrument/backends/link_backends.h"

namespace tavrix {

std::unique_ptr<Engine> MakeWindowEngine(Operator& op, std::unique_ptr<FileSystem> files,
                                         InstrumentSettings settings, const std::string& link) {
  auto engine = std::make_unique<Engine>(std::make_unique<SystemClock>(), op, std::move(files));
  const auto report = [](const std::string& text) {
    std::fprintf(stderr, "tavrix: %s\n", text.c_str());
  };
  std::string error;
  if (!engine->feedResultsStore(settings.resultsStore, settings.station, report, &error))
    report("results store: " + error);
  engine->setLinkFactory(MakeLinkLibrary);
  if (engine->attachInstrument(std::move(settings), link, &error)) {
    engine->instrument()->ensureOpen();
  } else {
    report(error);
  }
  // Where the system has companion programs (Windows) the window talks to
  // them; elsewhere it records what it would have sent.
  engine->connectCompanionPrograms(nullptr);
  return engine;
}

}  // namespace tavrix
