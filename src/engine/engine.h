// One engine: the clock, the event loop, the trace, the companion programs
// and the run engine with every subsystem's commands registered. The front
// ends build one, plug in their operator and the instrument link, and go.
#pragma once

#include <functional>
#include <memory>

#include "calcchan/evaluation.h"
#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "common/watched_file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "instrument/link/channel_commands.h"
#include "instrument/link/instrument.h"
#include "sequencer/channel_access.h"
#include "sequencer/companion.h"
#include "sequencer/sequencer.h"
#include "testdb/test_database.h"

namespace tavrix {

class ResultsFeed;

class Engine {
 public:
  // `files` is the door to every file of the run; without one the engine
  // uses the machine's, with the data root defaultDataRoot() gives.
  Engine(std::unique_ptr<Clock> clock, Operator& op, std::unique_ptr<FileSystem> files = nullptr);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

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
  // From now on the companion commands reach the programs of this computer
  // (DDE, key strokes, program starts); the trace still records them. False,
  // with a message, where the system has none (all but Windows).
  bool connectCompanionPrograms(std::string* error);

  // Turns a link spec into a backend, or nullptr with a message.
  using LinkFactory = std::function<std::unique_ptr<LinkLibrary>(
      std::string_view linkSpec, const Clock& clock, const InstrumentSettings& settings,
      const FileSystem& files, std::string* error)>;
  // Which backends a link spec can name. By itself the engine knows only the
  // simulated rig ("sim", or none given); front ends that offer a rig server
  // set MakeLinkLibrary of instrument/backends.
  void setLinkFactory(LinkFactory factory) { linkFactory_ = std::move(factory); }

  // Builds the instrument over the link that `linkSpec` names and registers
  // the commands of every subsystem that works on channels. Call once; false
  // with a message when the link spec names no backend.
  bool attachInstrument(InstrumentSettings settings, std::string_view linkSpec, std::string* error);
  // Null until attachInstrument.
  Instrument* instrument() { return instrument_.get(); }
  CalcChannels* calcChannels() { return calc_.get(); }

  // Feeds the results store with every UUT that ends, besides the results
  // files: `setting` names the store as the results_store setting does
  // (docs/results-database.md), `station` this station (empty: the
  // computer's name). The journal lies in the data root and is written
  // straight to the file system: a journal that cannot be written loses
  // nothing (the record waits in memory, the results file holds it) and is
  // told to `report`. False with a message for a bad setting; "off" feeds
  // nothing. Call at most once.
  bool feedResultsStore(const std::string& setting, const std::string& station,
                        std::function<void(const std::string&)> report, std::string* error);
  // Null unless a store is fed.
  ResultsFeed* resultsFeed() { return resultsFeed_.get(); }

  // A file specification as written in sequence files, as a local path: the
  // instrument settings' drive map, and for other drives "<data root>/<x>"
  // (see common/paths.h).
  std::string resolvePath(std::string_view spec) const;

 private:
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
  // Last: it is unplugged from the test database before that goes.
  std::unique_ptr<ResultsFeed> resultsFeed_;
};

}  // namespace tavrix
