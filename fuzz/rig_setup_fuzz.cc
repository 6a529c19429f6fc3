// A rig setup file of arbitrary text through the parser; a setup that parses
// is loaded into the simulated devices, which then answer a few commands for
// each of its first channels.

#include <string>
#include <string_view>
#include <vector>

#include "instrument/simrig/rig_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  RigSetup setup;
  std::string error;
  if (!ParseRigSetup(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz.ims", setup,
                     &error)) {
    return 0;
  }
  std::vector<std::pair<int, std::string>> channels;
  for (const SimChannel& channel : setup.channels) {
    if (channels.size() == 8) break;
    channels.emplace_back(channel.device, channel.name);
  }
  RigModel model;
  model.load(std::move(setup));
  Micros now = 1'767'225'600LL * kMicrosPerSecond;
  for (const auto& [device, name] : channels) {
    for (const std::string& command :
         std::vector<std::string>{"REA " + name, "WRI " + name + " 5", "REP", "ALA", "SHO " + name,
                                  "DEF " + name + " M=A", "ESC"}) {
      now += 250'000;
      model.execute(device, command, now);
    }
  }
  return 0;
}
