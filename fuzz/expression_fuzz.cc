// Macro lines of arbitrary text through the expression evaluator, one line at
// a time so that later lines use the results and waveforms of earlier ones;
// channel references read a small fake rig and waveform "RAMP" is on file.

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <string_view>

#include "calcchan/expressions.h"
#include "common/file_system.h"
#include "fuzz_support.h"
#include "machine_door.h"
#include "testing/fake_channels.h"

namespace {

const std::string& WaveformFolder() {
  static const std::string folder = [] {
    std::string dir = tavrix::fuzz::ScratchFolder() + "/waves";
    mkdir(dir.c_str(), 0700);
    std::ofstream(dir + "/RAMP.csv", std::ios::binary)
        << "# pressure ramp, bar\r\n0\r\n10\r\n20,30\r\n40\r\n15\r\n";
    return dir;
  }();
  return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  FakeChannels rig;
  rig.values = {{"T1", "20.5"}, {"T2", "ERROR"}, {"P", "-3e2"}, {"EMPTY", ""}};
  CalcPorts ports;
  ports.channels = &rig;
  ports.files = &localFiles();
  ports.showMessage = [](std::string_view) {};
  ports.userValue = [](std::string_view channel, double& value) {
    value = static_cast<double>(channel.size());
    return channel.size() % 2 == 0;
  };
  Analyser analyser(ports);
  analyser.setWaveformFolder(tavrix::localFiles(), WaveformFolder());
  std::string_view text(reinterpret_cast<const char*>(data), size);
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    analyser.EvaluateMacroLine(line);
    analyser.EvaluateExpression(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return 0;
}
