// For the output tests: a run engine with the instrument on the simulated
// rig, in virtual time, that runs a sequence and reads back the writes from
// the run's trace.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/text_conventions.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_commands.h"
#include "instrument/simrig/sim_link.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"

namespace tavrix {

// The rig of the output tests: outputs, a load that follows an output with
// a lag, a monitor that follows OUT1, and alarms on devices 1 and 2.
inline constexpr std::string_view kOutputRig =
    "D 1\n"
    "  10001 E=1 M=A N=OUT1 U=V\n"
    "  10002 E=1 M=A N=OUT2 U=V\n"
    "  10003 E=1 M=D N=DIG1\n"
    "  10004 E=1 M=A N=VALVE U=%\n"
    "  10005 E=1 M=A N=LOAD U=kN FOLLOW=VALVE LAG=0.5 K=2\n"
    "  10006 E=1 M=A N=MON FOLLOW=OUT1 K=0.5\n"
    "  10007 E=1 M=A N=PEAK\n"
    "  10008 E=1 M=A N=HEAT\n"
    "  10009 E=1 M=A N=TEMP FOLLOW=HEAT LAG=10 HIGH=50 TAG=HIGHTEMP\n"
    "D 2\n"
    "  20001 E=1 M=A N=PRESS V=1 LOW=0 TAG=LOWPRESS\n";

class OperatorWithLabels : public RecordingOperator {
 public:
  std::vector<std::pair<std::string, int32_t>> statusLabels;
  std::vector<std::string> alarmLabels;
  std::vector<std::string> alarmCommands;
  void showStatusLabel(std::string_view text, int32_t colour) override {
    statusLabels.emplace_back(text, colour);
  }
  void showAlarmDefinitions(const std::vector<std::string>& labels,
                            const std::vector<std::string>& commands) override {
    alarmLabels = labels;
    alarmCommands = commands;
  }
};

struct Write {
  double t;  // seconds since the run began
  std::string channel;
  std::string value;
  bool operator==(const Write&) const = default;
};
inline std::ostream& operator<<(std::ostream& os, const Write& w) {
  return os << w.t << " " << w.channel << "=\"" << w.value << "\"";
}

class OutputRun {
 public:
  explicit OutputRun(std::string_view start = "2024-03-01 10:00:00")
      : clock_(*parseDateTime(start)),
        events_(clock_),
        trace_(clock_),
        seq_(events_, op_, trace_, files_, paths_) {
    auto sim = std::make_unique<SimLink>(clock_, "", files_);
    sim_ = sim.get();
    instrument_ =
        std::make_unique<Instrument>(events_, trace_, InstrumentSettings{}, std::move(sim), paths_);
    RegisterSequencerCommands(seq_);
    RegisterInstrumentCommands(seq_, *instrument_);
    RegisterOutputCommands(seq_, *instrument_);
    trace_.setOutput(files_.create(kTracePath, nullptr));
    trace_.setOrigin(clock_.now());
  }

  // Runs the lines behind an IMSFILESPEC of the rig; returns the last
  // sequence error ("" when none).
  std::string run(const std::vector<std::string>& lines, std::string_view rig = kOutputRig) {
    const std::string base = "/data/outputs";
    files_.put(base + ".ims", std::string(rig));
    std::string text = "IMSFILESPEC " + base + ".ims\r\n";
    for (const auto& line : lines) text += line + "\r\n";
    files_.put(base + ".wts", text);
    std::string error;
    EXPECT_TRUE(seq_.prepareFile(base + ".wts", &error)) << error;
    seq_.start();
    return seq_.lastSequenceError();
  }

  // Every "WRI" sent, with its instant, from the trace.
  std::vector<Write> writes(std::string_view channel = {}) {
    std::vector<Write> out;
    static const std::regex kWrite(
        R"re(^\{"t":([0-9.]+),"ev":"iml","dev":\d+,"cmd":"WRI (\S+) (.*?)")re");
    for (const auto& line : traceLines()) {
      std::smatch m;
      if (!std::regex_search(line, m, kWrite)) continue;
      if (!channel.empty() && m[2].str() != channel) continue;
      out.push_back({std::stod(m[1]), m[2], m[3]});
    }
    return out;
  }

  // Seconds since the run began of the "line" events whose text starts with
  // `prefix`.
  std::vector<double> lineTimes(std::string_view prefix) {
    std::vector<double> out;
    static const std::regex kLine(R"re(^\{"t":([0-9.]+),"ev":"line","n":\d+,"text":"(.*)"\})re");
    for (const auto& line : traceLines()) {
      std::smatch m;
      if (std::regex_search(line, m, kLine) && m[2].str().rfind(prefix, 0) == 0) {
        out.push_back(std::stod(m[1]));
      }
    }
    return out;
  }

  std::vector<std::string> traceLines() {
    std::vector<std::string> lines;
    std::string text;
    files_.readFile(kTracePath, text, nullptr);
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
      lines.push_back(text.substr(start, end - start));
    }
    return lines;
  }

  // The rig's reading of a channel now.
  double reading(std::string_view channel) {
    SimChannel* c = sim_->model().findAnyDevice(channel);
    EXPECT_NE(c, nullptr) << channel;
    return c ? sim_->model().reading(*c, clock_.now()) : 0;
  }
  double seconds() const { return static_cast<double>(clock_.now() - trace0()) / 1e6; }
  Micros trace0() const { return start_; }

  VirtualClock& clock() { return clock_; }
  EventLoop& events() { return events_; }
  Sequencer& seq() { return seq_; }
  Instrument& instrument() { return *instrument_; }
  OperatorWithLabels& op() { return op_; }
  SimLink& sim() { return *sim_; }

 private:
  VirtualClock clock_;
  Micros start_ = clock_.now();
  EventLoop events_;
  Trace trace_;
  OperatorWithLabels op_;
  static constexpr const char* kTracePath = "/data/trace.jsonl";
  MemoryFileSystem files_;
  PathMap paths_{files_.dataRoot()};
  Sequencer seq_;
  SimLink* sim_ = nullptr;
  std::unique_ptr<Instrument> instrument_;
};

// Writes at the given instants with the given values.
inline std::vector<Write> Writes(std::string_view channel,
                                 const std::vector<std::pair<double, std::string>>& points) {
  std::vector<Write> out;
  for (const auto& [t, v] : points) out.push_back({t, std::string(channel), v});
  return out;
}

}  // namespace tavrix
