// Ramps onto Modbus holding registers through the I/O map link, on the
// system clock against the oven server of the tests on loopback: how close
// each write is sent to the instant the ramp's schedule calls for. A RAMP
// steps at most every 0.1 s, so 20 writes a second are two ramps of a
// group, each writing 10 values a second to a register of its own.

#include <cmath>
#include <fstream>

#include "bench_support.h"
#include "engine/engine.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/iomap/map_link.h"
#include "instrument/link/instrument.h"
#include "instrument/outputs/output_commands.h"
#include "instrument/simdevices/modbus_oven_server.h"
#include "testing/stub_links.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

// Passes every call to the map link and notes when each write was sent and
// when the device's report on it came back.
class TimedMapLink final : public ForwardingLink {
 public:
  struct Exchange {
    Micros sent = 0;
    Micros checked = 0;
  };
  TimedMapLink(const Clock& clock, IoMap map)
      : ForwardingLink(link_), clock_(clock), link_(clock, std::move(map)) {}
  std::vector<Exchange> writes;

  int32_t sendCommand(int16_t h, int16_t d, std::string_view c, bool w) override {
    const std::string_view text = BufferText(c);
    if (text.substr(0, 4) == "WRI ") writes.push_back({clock_.now(), 0});
    repPending_ = text == "REP";
    return link_.sendCommand(h, d, c, w);
  }
  int32_t getReply(int16_t h, int16_t d, std::string& b, bool w) override {
    const int32_t result = link_.getReply(h, d, b, w);
    if (result == 0 && repPending_ && !writes.empty() && writes.back().checked == 0) {
      writes.back().checked = clock_.now();
    }
    return result;
  }

 private:
  const Clock& clock_;
  MapLink link_;
  bool repPending_ = false;
};

const RegisterTiming kModbusRamp("modbus ramp", [] {
  SystemClock clock;
  ModbusOvenServer oven(clock);
  std::string error;
  if (!oven.start("127.0.0.1", 0, &error)) return Rows{{"modbus ramp: no server", error}};
  IoMap map;
  ParseIoMap("[device.io1]\nmodbus = \"tcp://127.0.0.1:" + std::to_string(oven.port()) +
                 "\"\n"
                 "[channel.HEATER]\ndevice = \"io1\"\nholding_register = 10\ntype = \"float32\"\n"
                 "word_order = \"little\"\n"
                 "[channel.VALVE]\ndevice = \"io1\"\nholding_register = 12\ntype = \"float32\"\n",
             "ramp.toml", map, &error);
  const std::string path = WriteSequence({"[GROUPRAMPS]", "RAMP HEATER, 0 TO 100 OVER 20 IN 200",
                                          "RAMP VALVE, 100 TO 0 OVER 20 IN 200", "[END]"});
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
  Engine& engine = *built;
  auto link = std::make_unique<TimedMapLink>(engine.clock(), std::move(map));
  TimedMapLink* timed = link.get();
  Instrument instrument(engine.events(), engine.trace(), InstrumentSettings{}, std::move(link),
                        engine.paths());
  RegisterInstrumentCommands(engine.sequencer(), instrument);
  RegisterOutputCommands(engine.sequencer(), instrument);
  engine.sequencer().prepareFile(path, &error);
  const double cpu0 = CpuSeconds();
  const double wall0 = WallSeconds();
  engine.sequencer().start();
  const double wall = WallSeconds() - wall0;
  const double cpu = CpuSeconds() - cpu0;
  std::remove(path.c_str());
  // A pass (two writes) is computed when the previous pass's last write was
  // checked and waits the time to its step rounded down to tenths.
  const auto& w = timed->writes;
  std::vector<double> late;
  std::vector<double> period;
  const Micros start = w.empty() ? 0 : w.front().sent;
  for (size_t pass = 1; pass * 2 + 1 < w.size(); ++pass) {
    const Micros computed = w[pass * 2 - 1].checked;
    const Micros due = start + pass * 100'000;
    const Micros wait = due > computed ? (due - computed) / 100'000 * 100'000 : 0;
    late.push_back(static_cast<double>(w[pass * 2].sent - (computed + wait)) / 1000);
    period.push_back(static_cast<double>(w[pass * 2].sent - w[pass * 2 - 2].sent) / 1000 - 100);
  }
  if (late.empty()) return Rows{{"modbus ramp: no writes", engine.sequencer().lastSequenceError()}};
  const auto [median, worst] = MedianAndWorst(late);
  const double pMedian = MedianAndWorst(period).first;
  return Rows{{"GROUPRAMPS 2 Modbus registers, 20 writes/s: writes", std::to_string(w.size())},
              {"  write vs its pass's instant, median", Fixed(median, "ms")},
              {"  write vs its pass's instant, worst", Fixed(worst, "ms")},
              {"  pass period vs 100 ms, median", Fixed(pMedian, "ms")},
              {"  writes the oven server received", std::to_string(oven.writes())},
              {"  CPU share of one core during the ramp", Fixed(100 * cpu / wall, "%")}};
});

}  // namespace
}  // namespace tavrix::bench
