// A calculated-channel setup file of arbitrary bytes through the loader, then
// a few evaluation passes of whatever table it made against a small fake rig,
// in virtual time.

#include <string>

#include "calcchan/evaluation.h"
#include "common/clock.h"
#include "fuzz_support.h"
#include "machine_door.h"
#include "testing/fake_channels.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  const std::string path = fuzz::ScratchFile(data, size, ".ccs");
  VirtualClock clock(1'767'225'600LL * kMicrosPerSecond);
  EventLoop events(clock);
  FakeChannels rig;
  rig.values = {{"T1", "20.5"}, {"T2", " 3"}, {"OUT", "0"}, {"R1", "0"}};
  CalcPorts ports;
  ports.channels = &rig;
  ports.files = &localFiles();
  ports.showMessage = [](std::string_view) {};
  ports.companion = [](std::string_view, std::string_view, std::string_view, std::string*) {
    return true;
  };
  ports.resolvePath = [path](std::string_view) { return path; };
  // Summary folders under a regular file: nothing can be written there.
  ports.dataFolder = [] { return std::string("/dev/null/data\\"); };
  ports.summaryFolder = [] { return std::string("/dev/null/summary"); };
  CalcChannels calc(events, ports);
  if (calc.startCalculatedChannels("c:\\setups\\FZ.ccs", "1")) {
    for (int pass = 0; pass < 3; ++pass) {
      clock.advanceBy(3600 * kMicrosPerSecond);
      calc.runPass();
    }
  }
  return 0;
}
