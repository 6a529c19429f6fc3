// For tests: a link library that passes every call to another one and
// records the commands sent, as "<device>: <command>".
#pragma once

#include <string>
#include <vector>

#include "instrument/link/link_library.h"

namespace tavrix {

class RecordingLink final : public LinkLibrary {
 public:
  explicit RecordingLink(LinkLibrary& inner) : inner_(inner) {}
  std::vector<std::string> sent;
  int monitorResult = -1;  // when >= 0, monitor requests answer this instead

  int32_t openInterface(int16_t& handle) override { return inner_.openInterface(handle); }
  int32_t closeInterface(int16_t handle) override { return inner_.closeInterface(handle); }
  int32_t interfaceVersion(int16_t handle, std::string& text) override {
    return inner_.interfaceVersion(handle, text);
  }
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command,
                      bool wait) override {
    sent.push_back(std::to_string(device) + ": " + std::string(BufferText(command)));
    return inner_.sendCommand(handle, device, command, wait);
  }
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override {
    return inner_.getReply(handle, device, buffer, wait);
  }
  int32_t abortReply(int16_t handle, int16_t device) override {
    return inner_.abortReply(handle, device);
  }
  int32_t millisecondCount() override { return inner_.millisecondCount(); }
  int32_t dirPath(std::string& path) override { return inner_.dirPath(path); }
  int32_t setupLibVersion(std::string& text) override { return inner_.setupLibVersion(text); }
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override {
    return inner_.loadAndLockSetup(path, second, load);
  }
  int32_t unlockSetup(std::string_view name, int16_t handle) override {
    return inner_.unlockSetup(name, handle);
  }
  int32_t requestMonitorChannel(std::string_view name, MonitorChannelRecord& record) override {
    if (monitorResult >= 0) return monitorResult;
    return inner_.requestMonitorChannel(name, record);
  }

 private:
  LinkLibrary& inner_;
};

}  // namespace tavrix
