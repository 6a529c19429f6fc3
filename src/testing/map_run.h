// Runs sequences over a map link to devices the test starts on loopback.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/iomap/map_link.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_commands.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/recording_operator.h"
#include "testing/test_files.h"

namespace tavrix::testing {

constexpr Micros kMapStart = 1'767'225'600LL * kMicrosPerSecond;  // 2026-01-01 00:00:00

// A run over a map link on `clock` (the clock of the test's devices too):
// the map is read from `mapText`, the link waits
// `replyWaitMs` real milliseconds a poll (short, so that a device that
// does not answer costs the test little real time).
class MapRun {
 public:
  MapRun(VirtualClock& clock, const ScratchFolder& folder, const std::string& mapText,
         int replyWaitMs = 100)
      : clock_(clock),
        events_(clock_),
        trace_(clock_),
        paths_(folder.path()),
        seq_(events_, op_, trace_, testFiles(), paths_),
        folder_(folder) {
    RegisterSequencerCommands(seq_);
    const std::string mapPath = folder.file("rig" + std::to_string(++files_) + ".toml");
    EXPECT_TRUE(testFiles().writeAtomically(mapPath, mapText, nullptr));
    IoMap map;
    std::string error;
    EXPECT_TRUE(LoadIoMapFile(testFiles(), mapPath, map, &error)) << error;
    auto link = std::make_unique<MapLink>(
        clock_, std::move(map), MapLink::DeviceFactory{},
        MapLinkOptions{.replyWaitMs = replyWaitMs, .reconnectPauseMs = 20});
    link_ = link.get();
    InstrumentSettings settings;
    settings.useReplyTimeout = true;
    settings.replyTimeoutSecs = 1;
    instrument_ = std::make_unique<Instrument>(events_, trace_, settings, std::move(link), paths_);
    RegisterInstrumentCommands(seq_, *instrument_);
    RegisterOutputCommands(seq_, *instrument_);
    tracePath_ = folder.file("trace" + std::to_string(files_) + ".jsonl");
    trace_.setOutput(testFiles().create(tracePath_, nullptr));
    trace_.setOrigin(clock_.now());
  }
  ~MapRun() {
    trace_.setOutput(nullptr);
    testFiles().remove(tracePath_, nullptr);
  }

  // Runs `lines`; the run's last sequence error ("" when none).
  std::string run(const std::vector<std::string>& lines,
                  const std::function<std::unique_ptr<Timer>(EventLoop&)>& duringRun = {}) {
    std::string text;
    for (const auto& line : lines) text += line + "\r\n";
    const std::string sequence = folder_.file("seq" + std::to_string(++files_) + ".wts");
    EXPECT_TRUE(testFiles().writeAtomically(sequence, text, nullptr));
    std::string error;
    EXPECT_TRUE(seq_.prepareFile(sequence, &error)) << error;
    std::unique_ptr<Timer> hook;
    if (duringRun) hook = duringRun(events_);
    seq_.start();
    testFiles().remove(sequence, nullptr);
    return seq_.lastSequenceError();
  }
  // A timer that presses Stop `after` the run starts.
  std::function<std::unique_ptr<Timer>(EventLoop&)> stopAfter(Micros after) {
    return [this, after](EventLoop& events) {
      auto timer = std::make_unique<Timer>(events, after, [this] { seq_.stop(); });
      timer->setEnabled(true);
      return timer;
    };
  }
  std::string trace() {
    std::string text;
    testFiles().readFile(tracePath_, text, nullptr);
    return text;
  }

  VirtualClock& clock() { return clock_; }
  Sequencer& sequencer() { return seq_; }
  Instrument& instrument() { return *instrument_; }
  MapLink& link() { return *link_; }

 private:
  static inline int files_ = 0;
  VirtualClock& clock_;
  EventLoop events_;
  Trace trace_;
  RecordingOperator op_;
  PathMap paths_;
  Sequencer seq_;
  const ScratchFolder& folder_;
  std::unique_ptr<Instrument> instrument_;
  MapLink* link_ = nullptr;
  std::string tracePath_;
};

}  // namespace tavrix::testing
