// The I/O map link's speed on loopback: Modbus register reads and writes a
// second through CHECK and SEND lines against the oven server of the tests,
// SCPI queries a second through CHECK against the power supply simulator,
// and what the map's lookup and value conversion cost one exchange.

#include <benchmark/benchmark.h>

#include <fstream>

#include "bench_support.h"
#include "engine/engine.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/iomap/io_map.h"
#include "instrument/iomap/map_link.h"
#include "instrument/link/instrument.h"
#include "instrument/simdevices/modbus_oven_server.h"
#include "instrument/simdevices/scpi_instrument_server.h"
#include "machine_door.h"

namespace tavrix::bench {
namespace {

constexpr int kLines = 5000;

std::string WriteMap(uint16_t modbusPort, uint16_t scpiPort) {
  const std::string path = TempBenchPath(".toml");
  std::ofstream(path, std::ios::binary)
      << "[device.io1]\nmodbus = \"tcp://127.0.0.1:" << modbusPort << "\"\n"
      << "[device.psu]\nscpi = \"tcp://127.0.0.1:" << scpiPort << "\"\n"
      << "[channel.OVEN]\ndevice = \"io1\"\ninput_register = 3\ntype = \"int16\"\nscale = 0.1\n"
      << "[channel.HEATER]\ndevice = \"io1\"\nholding_register = 10\ntype = \"float32\"\n"
      << "word_order = \"little\"\nmin = 0\nmax = 100\n"
      << "[channel.PSU_V]\ndevice = \"psu\"\nwrite = \"VOLT {value}\"\nread = \"MEAS:VOLT?\"\n";
  return path;
}

// Runs `lines` over the map link to the two simulated devices, as often as
// the benchmark asks; the counter is exchanges a second.
void RunLines(benchmark::State& state, const std::vector<std::string>& lines) {
  SystemClock clock;
  ModbusOvenServer oven(clock);
  ScpiInstrumentServer psu;
  std::string error;
  if (!oven.start("127.0.0.1", 0, &error) || !psu.start("127.0.0.1", 0, &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  const std::string map = WriteMap(oven.port(), psu.port());
  const std::string path = WriteSequence(lines);
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
  Engine& engine = *built;
  IoMap ioMap;
  LoadIoMapFile(localFiles(), map, ioMap, &error);
  Instrument instrument(engine.events(), engine.trace(), InstrumentSettings{},
                        std::make_unique<MapLink>(engine.clock(), std::move(ioMap)),
                        engine.paths());
  RegisterInstrumentCommands(engine.sequencer(), instrument);
  if (!instrument.ensureOpen()) {
    state.SkipWithError(instrument.link().library().connectionProblem().c_str());
    return;
  }
  engine.sequencer().prepareFile(path, &error);
  for (auto _ : state) engine.sequencer().start();
  if (!engine.sequencer().lastSequenceError().empty()) {
    state.SkipWithError(engine.sequencer().lastSequenceError().c_str());
  }
  state.counters["lines_per_s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(lines.size()),
      benchmark::Counter::kIsRate);
  std::remove(path.c_str());
  std::remove(map.c_str());
}

void BM_ModbusRegisterReadsThroughCheck(benchmark::State& state) {
  RunLines(state, std::vector<std::string>(kLines, "CHECK OVEN > -100, NOWHERE"));
}
BENCHMARK(BM_ModbusRegisterReadsThroughCheck)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ModbusRegisterWritesThroughSend(benchmark::State& state) {
  std::vector<std::string> lines;
  for (int i = 0; i < kLines; ++i) lines.push_back("SEND HEATER, " + std::to_string(i % 100));
  RunLines(state, lines);
}
BENCHMARK(BM_ModbusRegisterWritesThroughSend)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScpiQueriesThroughCheck(benchmark::State& state) {
  RunLines(state, std::vector<std::string>(kLines, "CHECK PSU_V > -100, NOWHERE"));
}
BENCHMARK(BM_ScpiQueriesThroughCheck)->Unit(benchmark::kMillisecond)->UseRealTime();

// The map's share of one exchange: the channel found by name, a value
// turned into its registers and back (float32, word order swapped), and
// the reading written as the reply's text.
void BM_MapLookupAndConversion(benchmark::State& state) {
  IoMap map;
  std::string error;
  std::string text = "[device.io1]\nmodbus = \"tcp://127.0.0.1:1502\"\n";
  for (int i = 0; i < 64; ++i) {
    text += "[channel.CH" + std::to_string(i) +
            "]\ndevice = \"io1\"\nholding_register = " + std::to_string(2 * i) +
            "\ntype = \"float32\"\nword_order = \"little\"\nscale = 0.5\noffset = 3\n"
            "min = -1000\nmax = 1000\n";
  }
  ParseIoMap(text, "bench.toml", map, &error);
  const std::string names[] = {"CH3", "CH17", "CH40", "CH63"};
  size_t n = 0;
  double value = 12.25;
  for (auto _ : state) {
    const MapChannel* c = map.find(names[n++ & 3]);
    uint16_t words[2];
    std::string why;
    WithinLimits(*c, value, &why);
    EncodeRegisters(*c, value, words, &why);
    const std::string reply = MapNumberText(DecodeRegisters(*c, words));
    benchmark::DoNotOptimize(reply);
    value += 0.5;
    if (value > 900) value = 12.25;
  }
}
BENCHMARK(BM_MapLookupAndConversion);

}  // namespace
}  // namespace tavrix::bench
