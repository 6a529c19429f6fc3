// Ramps, group ramps and pulses on the system clock, against the simulated
// rig: how close each write lands to the instant its schedule calls for
// (after the schedule's tenth-of-a-second rounding of the wait), the CPU a
// ramp costs, and the length of a pulse on the link's millisecond counter.

#include <cmath>
#include <fstream>

#include "bench_support.h"
#include "engine/engine.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_commands.h"
#include "instrument/simrig/sim_link.h"
#include "machine_door.h"
#include "testing/stub_links.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

// Passes every call to the simulated rig and notes, on the run's clock, when
// each write was sent, when the device's report on it came back, and the
// millisecond counter at the send.
class TimedLink final : public ForwardingLink {
 public:
  struct Exchange {
    Micros sent = 0;
    Micros checked = 0;  // the "REP" reply that closed the write
    int32_t counter = 0;
  };
  explicit TimedLink(const Clock& clock)
      : ForwardingLink(sim_), clock_(clock), sim_(clock, "", localFiles()) {}
  std::vector<Exchange> writes;

  int32_t sendCommand(int16_t h, int16_t d, std::string_view c, bool w) override {
    const std::string_view text = BufferText(c);
    if (text.substr(0, 4) == "WRI ") writes.push_back({clock_.now(), 0, sim_.millisecondCount()});
    repPending_ = text == "REP";
    return sim_.sendCommand(h, d, c, w);
  }
  int32_t getReply(int16_t h, int16_t d, std::string& b, bool w) override {
    const int32_t result = sim_.getReply(h, d, b, w);
    if (result == 0 && repPending_ && !writes.empty() && writes.back().checked == 0) {
      writes.back().checked = clock_.now();
    }
    return result;
  }

 private:
  const Clock& clock_;
  SimLink sim_;
  bool repPending_ = false;
};

struct Measured {
  std::vector<TimedLink::Exchange> writes;
  double wall = 0;
  double cpu = 0;
};

// Runs `lines` behind the setup of `channels` output channels X1..Xn.
Measured RunOnRig(int channels, const std::vector<std::string>& lines) {
  const std::string rig = WriteSequence({});
  {
    std::ofstream out(rig, std::ios::binary);
    out << "D 1\n";
    for (int i = 1; i <= channels; ++i) {
      out << "  1" << (i < 10 ? "000" : "00") << i << " E=1 M=A N=X" << i << "\n";
    }
  }
  std::vector<std::string> all = {"IMSFILESPEC " + rig};
  all.insert(all.end(), lines.begin(), lines.end());
  const std::string path = WriteSequence(all);
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
  Engine& engine = *built;
  auto link = std::make_unique<TimedLink>(engine.clock());
  TimedLink* timed = link.get();
  Instrument instrument(engine.events(), engine.trace(), InstrumentSettings{}, std::move(link),
                        engine.paths());
  RegisterInstrumentCommands(engine.sequencer(), instrument);
  RegisterOutputCommands(engine.sequencer(), instrument);
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  const double cpu0 = CpuSeconds();
  const double wall0 = WallSeconds();
  engine.sequencer().start();
  Measured m;
  m.wall = WallSeconds() - wall0;
  m.cpu = CpuSeconds() - cpu0;
  m.writes = timed->writes;
  std::remove(path.c_str());
  std::remove(rig.c_str());
  return m;
}

// The lateness of every write against the instant its pass was due: a pass
// is computed when the previous pass's last write was checked, and waits
// the time to its step rounded down to tenths. `perPass` ramps share the
// interval, so each pass writes that many values.
std::vector<double> LatenessMs(const std::vector<TimedLink::Exchange>& w, size_t perPass,
                               double interval) {
  std::vector<double> late;
  const Micros start = w.front().sent;
  for (size_t pass = 1; pass * perPass < w.size(); ++pass) {
    const Micros computed = w[pass * perPass - 1].checked;
    const Micros due = start + std::llround(pass * interval * 1e6);
    const Micros wait = due > computed ? (due - computed) / 100'000 * 100'000 : 0;
    for (size_t i = pass * perPass; i < (pass + 1) * perPass && i < w.size(); ++i) {
      late.push_back(static_cast<double>(w[i].sent - (computed + wait)) / 1000);
    }
  }
  return late;
}

const RegisterTiming kRamp("ramp", [] {
  const Measured m = RunOnRig(1, {"RAMP X1, 0 TO 10 OVER 5 IN 10"});
  const auto [median, worst] = MedianAndWorst(LatenessMs(m.writes, 1, 0.5));
  return Rows{{"RAMP 0 TO 10 OVER 5 IN 10: writes", std::to_string(m.writes.size())},
              {"  write vs its rounded instant, median", Fixed(median, "ms")},
              {"  write vs its rounded instant, worst", Fixed(worst, "ms")},
              {"  CPU share of one core during the ramp", Fixed(100 * m.cpu / m.wall, "%")}};
});

const RegisterTiming kGroup("group ramps", [] {
  std::vector<std::string> lines = {"[GROUPRAMPS]"};
  for (int i = 1; i <= 20; ++i)
    lines.push_back("RAMP X" + std::to_string(i) + ", 0 TO 100 OVER 25 IN 100");
  lines.push_back("[END]");
  const Measured m = RunOnRig(20, lines);
  const auto [median, worst] = MedianAndWorst(LatenessMs(m.writes, 20, 0.25));
  return Rows{{"GROUPRAMPS 20 x 100 steps: writes", std::to_string(m.writes.size())},
              {"  write vs its pass's instant, median", Fixed(median, "ms")},
              {"  write vs its pass's instant, worst", Fixed(worst, "ms")},
              {"  CPU share of one core during the group", Fixed(100 * m.cpu / m.wall, "%")}};
});

const RegisterTiming kPulse("pulse", [] {
  std::vector<std::string> lines(20, "PULSEOUTPUT X1, HI, 100");
  const Measured m = RunOnRig(1, lines);
  std::vector<double> counter;
  std::vector<double> clock;
  for (size_t i = 0; i + 1 < m.writes.size(); i += 2) {
    counter.push_back(m.writes[i + 1].counter - m.writes[i].counter - 100.0);
    clock.push_back(static_cast<double>(m.writes[i + 1].sent - m.writes[i].sent) / 1000 - 100);
  }
  const auto [cMedian, cWorst] = MedianAndWorst(counter);
  const auto [tMedian, tWorst] = MedianAndWorst(clock);
  return Rows{{"PULSEOUTPUT HI 100 x20: counter error, median", Fixed(cMedian, "ms", 0)},
              {"  counter error, worst", Fixed(cWorst, "ms", 0)},
              {"  clock error between the writes, median", Fixed(tMedian, "ms")},
              {"  clock error between the writes, worst", Fixed(tWorst, "ms")}};
});

}  // namespace
}  // namespace tavrix::bench
