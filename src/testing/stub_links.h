// For tests and benchmarks: two link libraries to build fakes on.
// StubLinkLibrary answers every call at once and does nothing (an open
// interface is handle 1; a reply leaves the buffer as it is); a fake
// overrides the calls it is about. ForwardingLink passes every call to
// another link; a wrapper overrides the calls it watches. It offers no direct
// exchanges and says the buffers are written whole, so that every exchange
// goes through sendCommand and getReply.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "instrument/link/link_library.h"

namespace tavrix {

class StubLinkLibrary : public LinkLibrary {
 public:
  int32_t openInterface(int16_t& handle) override {
    handle = 1;
    return 0;
  }
  int32_t closeInterface(int16_t) override { return 0; }
  int32_t interfaceVersion(int16_t, std::string&) override { return 0; }
  int32_t sendCommand(int16_t, int16_t, std::string_view, bool) override { return 0; }
  int32_t getReply(int16_t, int16_t, std::string&, bool) override { return 0; }
  int32_t abortReply(int16_t, int16_t) override { return 0; }
  int32_t millisecondCount() override { return 0; }
  int32_t dirPath(std::string& path) override {
    path.clear();
    return 0;
  }
  int32_t setupLibVersion(std::string&) override { return 6; }
  int32_t loadAndLockSetup(const std::string&, int32_t, SetupLoad&) override { return 0; }
  int32_t unlockSetup(std::string_view, int16_t) override { return 0; }
  int32_t requestMonitorChannel(std::string_view, MonitorChannelRecord&) override { return 0; }
};

class ForwardingLink : public LinkLibrary {
 public:
  // `inner` outlives this (a wrapper that owns it may pass its own member).
  explicit ForwardingLink(LinkLibrary& inner) : inner_(inner) {}

  void useEventLoop(EventLoop& events) override { inner_.useEventLoop(events); }
  void useTrace(Trace& trace) override { inner_.useTrace(trace); }
  std::string ownSetup() const override { return inner_.ownSetup(); }
  std::vector<std::string> deviceLines() const override { return inner_.deviceLines(); }
  std::string connectionProblem() const override { return inner_.connectionProblem(); }
  int32_t openInterface(int16_t& handle) override { return inner_.openInterface(handle); }
  int32_t closeInterface(int16_t handle) override { return inner_.closeInterface(handle); }
  int32_t interfaceVersion(int16_t handle, std::string& text) override {
    return inner_.interfaceVersion(handle, text);
  }
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command,
                      bool wait) override {
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
    return inner_.requestMonitorChannel(name, record);
  }

 private:
  LinkLibrary& inner_;
};

}  // namespace tavrix
