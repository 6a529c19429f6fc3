// For tests: a link library that passes every call to another one and
// records the commands sent, as "<device>: <command>".
#pragma once

#include <string>
#include <vector>

#include "testing/stub_links.h"

namespace tavrix {

class RecordingLink final : public ForwardingLink {
 public:
  explicit RecordingLink(LinkLibrary& inner) : ForwardingLink(inner) {}
  std::vector<std::string> sent;
  int monitorResult = -1;  // when >= 0, monitor requests answer this instead

  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command,
                      bool wait) override {
    sent.push_back(std::to_string(device) + ": " + std::string(BufferText(command)));
    return ForwardingLink::sendCommand(handle, device, command, wait);
  }
  int32_t requestMonitorChannel(std::string_view name, MonitorChannelRecord& record) override {
    if (monitorResult >= 0) return monitorResult;
    return ForwardingLink::requestMonitorChannel(name, record);
  }
};

}  // namespace tavrix
