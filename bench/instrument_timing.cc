// WAIT on a channel condition that stays false for ten seconds on the system
// clock, through the in-process rig: the CPU share of one core it costs.

#include <unistd.h>

#include <fstream>

#include "bench_support.h"
#include "common/file_system.h"
#include "engine/engine.h"
#include "instrument/backends/link_backends.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/link/instrument.h"
#include "machine_door.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

const RegisterTiming kWaitCondition("wait-condition", [] {
  char rig[] = "/tmp/tavrixbenchrigXXXXXX";
  close(mkstemp(rig));
  std::ofstream(rig, std::ios::binary) << "D 1\n  10001 E=1 N=TEMP1 V=20\n";
  const std::string path = WriteSequence({"WAIT TEMP1 > 50"});
  QuietOperator op;
  const auto built = MakeBenchEngine(std::make_unique<SystemClock>(), op);
  Engine& engine = *built;
  auto instrument = MakeInstrument(engine.events(), engine.trace(), {}, "sim", localFiles(),
                                   engine.paths(), nullptr);
  RegisterInstrumentCommands(engine.sequencer(), *instrument);
  instrument->selectSetupFile(rig);
  std::string error;
  engine.sequencer().prepareFile(path, &error);
  Timer stop(engine.events(), 10 * kMicrosPerSecond, [&] { engine.sequencer().stop(); });
  stop.setEnabled(true);
  const double cpu0 = CpuSeconds();
  const double wall0 = WallSeconds();
  engine.sequencer().start();
  const double wall = WallSeconds() - wall0;
  const double cpu = CpuSeconds() - cpu0;
  std::remove(path.c_str());
  std::remove(rig);
  return Rows{
      {"WAIT on a false condition, 10 s: CPU share of one core", Fixed(100 * cpu / wall, "%", 3)},
      {"WAIT on a false condition: wall time", Fixed(wall, "s", 2)}};
});

}  // namespace
}  // namespace tavrix::bench
