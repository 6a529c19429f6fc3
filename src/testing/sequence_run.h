// Runs a sequence over a chosen link with the trace on, for the tests that
// compare one link's trace with another's.
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
#include "instrument/backends/link_backends.h"
#include "instrument/commands/channel_commands.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/recording_operator.h"
#include "testing/test_files.h"

namespace tavrix::testing {

struct LinkRun {
  std::string error;  // the run's sequence error, or why the link was not made
  std::string trace;  // the sequence file's name in it reads "SEQUENCE"
};

// Runs `lines` as a sequence file in `folder` on `clock` over `link` (a link
// specification). `duringRun` may set a timer on the run's loop before it
// starts. Each run has a sequence file of its own; the trace names it in an
// error report, so the name is taken out and two runs' traces compare equal.
inline LinkRun RunSequenceOver(
    VirtualClock& clock, const std::string& folder, const std::string& link,
    const InstrumentSettings& settings, const std::vector<std::string>& lines,
    const std::function<std::unique_ptr<Timer>(EventLoop&)>& duringRun = {}) {
  static int runs = 0;
  EventLoop events(clock);
  Trace trace(clock);
  RecordingOperator op;
  PathMap paths(folder);
  Sequencer seq(events, op, trace, testFiles(), paths);
  RegisterSequencerCommands(seq);
  std::string error;
  auto instrument = MakeInstrument(events, trace, settings, link, testFiles(), paths, &error);
  if (!instrument) return {error, {}};
  RegisterInstrumentCommands(seq, *instrument);
  std::string text;
  for (const auto& line : lines) text += line + "\r\n";
  const std::string sequence = folder + "/sequence" + std::to_string(++runs) + ".wts";
  const std::string tracePath = sequence + ".jsonl";
  EXPECT_TRUE(testFiles().writeAtomically(sequence, text, nullptr));
  trace.setOutput(testFiles().create(tracePath, nullptr));
  trace.setOrigin(clock.now());
  EXPECT_TRUE(seq.prepareFile(sequence, &error)) << error;
  std::unique_ptr<Timer> hook;
  if (duringRun) hook = duringRun(events);
  seq.start();
  trace.setOutput(nullptr);
  std::string traced;
  testFiles().readFile(tracePath, traced, nullptr);
  // The trace is JSON: a '\' in the name (Windows) is written doubled.
  std::string named;
  for (const char c : sequence) named += c == '\\' ? std::string("\\\\") : std::string(1, c);
  for (size_t at; (at = traced.find(named)) != std::string::npos;)
    traced.replace(at, named.size(), "SEQUENCE");
  testFiles().remove(sequence, nullptr);
  testFiles().remove(tracePath, nullptr);
  return {seq.lastSequenceError(), traced};
}

}  // namespace tavrix::testing
