// What one engine is built from. A front end (or a test) fills an
// EngineConfig in its own `main` and hands it to BuildEngine: the clock, the
// file system with its data root, the operator, the instrument link and its
// settings, the results store and the companion programs. Nothing here has a
// default that reaches the machine: the file system and the clock always
// come from the caller, so two engines in one process share nothing.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/clock.h"
#include "common/file_system.h"
#include "instrument/link/channels.h"
#include "instrument/link/instrument_settings.h"
#include "instrument/link/link_library.h"
#include "sequencer/operator.h"

namespace tavrix {

class Engine;

// Turns a link spec into a backend, or nullptr with a message.
using LinkFactory = std::function<std::unique_ptr<LinkLibrary>(
    std::string_view linkSpec, const Clock& clock, const InstrumentSettings& settings,
    const FileSystem& files, std::string* error)>;

struct EngineConfig {
  // Required: the clock of the run (system or virtual), the run's files
  // (their data root is the run's), and who answers questions.
  std::unique_ptr<Clock> clock;
  std::unique_ptr<FileSystem> files;
  Operator* op = nullptr;

  // The instrument link: `link` names the backend ("sim", "tcp://...",
  // "dll"); unset, no instrument is attached. Without a factory the engine
  // knows only the simulated rig.
  InstrumentSettings settings;
  std::optional<std::string> link;
  LinkFactory linkFactory;
  // A test socket's channel names (engine's channels, outputs and
  // calculated channels alike): see ChannelNameMap. Empty: the rig's names.
  ChannelNameMap channelMap;

  // The results store fed with every UUT that ends (results_store setting;
  // see docs/results-database.md). Fed from Engine::feedResultsStore(), so
  // that a front end decides when a bad setting is reported.
  struct ResultsStore {
    std::string setting;
    std::string station;  // empty: this computer's name
    std::function<void(const std::string&)> report;
  };
  std::optional<ResultsStore> resultsStore;
  // Results files of tested UUTs: written at all, and in the XML layout.
  bool writeResultsFiles = true;
  bool xmlResultsFiles = false;

  // Companion commands reach the programs of this computer (Windows only)
  // instead of being only recorded; `companionAnswers` are answers of DDE
  // items, "TOPIC!ITEM=VALUE".
  bool companionPrograms = false;
  std::vector<std::string> companionAnswers;
};

// Which part of a config BuildEngine could not use.
enum class EnginePart { kConfig, kCompanionPrograms, kCompanionAnswer, kLink };

struct EngineBuildError {
  EnginePart part = EnginePart::kConfig;
  std::string text;
};

// Builds an engine with every subsystem's commands registered; nullptr, with
// the part and a message in `error`, when the config cannot be used (a
// missing clock, file system or operator, companion programs on a system
// without them, a bad companion answer, a link spec that names no backend).
// The link is attached but not opened (Instrument::ensureOpen).
std::unique_ptr<Engine> BuildEngine(EngineConfig config, EngineBuildError* error = nullptr);

}  // namespace tavrix
