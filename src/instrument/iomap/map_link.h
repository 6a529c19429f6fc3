// The link library port over an I/O map: every device of the map answers
// the link's command words (REA, WRI, SHO, DEF, ESC, REP, ALA) as a device
// of the simulated rig does, by reading and writing the Modbus registers or
// sending the SCPI commands the map gives its channels. The map's channels
// are the channel table (the map is the setup), and its alarm limits give
// the answers to "ALA T" and "ALA N".
//
// Each device has a thread of its own that makes the exchanges, in the
// order the link sent the commands. The link's calls never block for long:
// a reply still on its way after replyWaitMs is "not ready" (17), so the
// link's own retry and time-out rules apply, and the wait goes through the
// run's event loop, so Stop, the window and timers are served meanwhile (a
// virtual clock stands still: the devices are outside the run). A device
// that does not answer, or whose connection fails, is connected again and
// asked again until it answers or the link gives the reply up; it never
// answers for it, so it never reads as "no alarm".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "common/trace.h"
#include "instrument/iomap/device_io.h"
#include "instrument/iomap/io_map.h"
#include "instrument/link/link_library.h"

namespace tavrix {

// The link spec prefix and the settings-file link name of the map link.
inline constexpr std::string_view kLinkMapPrefix = "map:";
inline constexpr std::string_view kLinkMap = "map";

// Error reports of the map's devices (the answer to "REP"; the simulated
// rig's 11-15 keep their meaning).
namespace map_error {
inline constexpr int kReadOnly = 20;    // a write to a channel that cannot be written
inline constexpr int kOutOfRange = 21;  // a write outside the map's min/max
inline constexpr int kBadValue = 22;    // not a number, or does not fit the register
inline constexpr int kDevice = 23;      // the device refused (exception, SCPI error)
inline constexpr int kWriteOnly = 24;   // a read of a channel that cannot be read
}  // namespace map_error

inline constexpr std::string_view kMapInterfaceVersion = "TAVRIX I/O map link 1.0";

// How long a MapLink waits, in real milliseconds.
struct MapLinkOptions {
  // For a reply in getReply before it answers 17.
  int replyWaitMs = 100;
  // Between two connection attempts to a device that cannot be reached.
  int reconnectPauseMs = 200;
};

class MapLink final : public LinkLibrary {
 public:
  // `makeDevice` builds the device of each map device (tests give their
  // own); by default MakeDeviceIo.
  using DeviceFactory = std::function<std::unique_ptr<DeviceIo>(const MapDevice&, std::string*)>;
  MapLink(const Clock& clock, IoMap map, DeviceFactory makeDevice = {},
          MapLinkOptions options = {});
  ~MapLink() override;

  const IoMap& map() const { return map_; }
  void useEventLoop(EventLoop& events) override;
  void useTrace(Trace& trace) override { trace_ = &trace; }
  std::string connectionProblem() const override;
  std::string ownSetup() const override { return map_.path; }
  std::vector<std::string> deviceLines() const override;

  int32_t openInterface(int16_t& handle) override;
  int32_t closeInterface(int16_t handle) override;
  int32_t interfaceVersion(int16_t handle, std::string& text) override;
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command, bool wait) override;
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override;
  int32_t abortReply(int16_t handle, int16_t device) override;
  int32_t millisecondCount() override;
  int32_t dirPath(std::string& path) override;
  int32_t setupLibVersion(std::string& text) override;
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override;
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override;
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override;

  // What one device of the map answers to one command, with `io` reached
  // directly (no thread): the device semantics on their own, for tests.
  struct Worker;

 private:
  EventLoop& events() { return events_ != nullptr ? *events_ : *ownEvents_; }
  void stopWorkers();
  // Waits through the event loop until `done` or `waitMs` of real time.
  void waitFor(const std::function<bool()>& done, int waitMs);

  const Clock& clock_;
  IoMap map_;
  DeviceFactory makeDevice_;
  const MapLinkOptions options_;
  EventLoop* events_ = nullptr;
  Trace* trace_ = nullptr;
  std::unique_ptr<SystemClock> ownClock_;
  std::unique_ptr<EventLoop> ownEvents_;
  std::vector<std::unique_ptr<Worker>> workers_;  // index: device number - 1
  struct Waker;
  std::unique_ptr<Waker> waker_;
  bool open_ = false;
  std::string openProblem_;
};

// The map link for a link spec "map:FILE" (or "map" with `mapFile` from the
// settings); nullptr with a message.
std::unique_ptr<LinkLibrary> MakeMapLink(std::string_view linkSpec, const std::string& mapFile,
                                         const Clock& clock, const FileSystem& files,
                                         std::string* error);

}  // namespace tavrix
