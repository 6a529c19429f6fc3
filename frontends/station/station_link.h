// The link that the test sockets of a station share. Each socket's engine
// gets a link library of its own (SocketLink) that goes to the rig through
// a DeviceGate: one exchange at a time per device, in the order the sockets
// asked. A socket that finds the device busy is told "not ready yet" and
// polls again through its run's event loop, so it never blocks its thread
// and never holds up a socket that talks to another device. The simulated
// rig is one for all the sockets (their shared channels are the same
// channels); a link to a rig server gives each socket a connection of its own.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "instrument/link/link_library.h"

namespace tavrix {

class DeviceGate {
 public:
  // `wait`: a socket that finds its device busy waits for its turn a while
  // (its thread is its own: on the system's clock). Without it, it is told
  // at once (sockets that take turns on one virtual clock must never block).
  explicit DeviceGate(bool wait = false) : wait_(wait) {}
  // Whether `socket` may exchange with `device` now; queues it when not.
  bool take(int socket, int16_t device);
  // `socket`'s exchange with `device` is over.
  void give(int socket, int16_t device);
  // Drops whatever `socket` holds or waits for.
  void forget(int socket);

 private:
  struct Device {
    int holder = -1;
    std::deque<int> waiting;
  };
  bool mayTake(const Device& d, int socket) const {
    return d.holder < 0 && (d.waiting.empty() || d.waiting.front() == socket);
  }

  const bool wait_;
  std::mutex mutex_;
  std::condition_variable freed_;
  Device devices_[100];
};

// A setup loaded once for all the sockets: loading it again would restart
// the rig the others use. Each socket gets the first load's channel table.
class SetupOnce {
 public:
  // The load, or nothing while another socket's load of it is under way
  // (which may wait for a rig server: the caller waits through its own
  // event loop and asks again, so that it never blocks the others).
  template <class Load>
  std::optional<int32_t> tryLoad(const std::string& path, SetupLoad& setup, Load doLoad) {
    std::unique_lock lock(mutex_);
    if (!path_.empty() && path == path_) {
      setup = loaded_;
      return link_result::kOk;
    }
    if (loading_) return std::nullopt;
    loading_ = true;
    lock.unlock();
    const int32_t result = doLoad(setup);
    lock.lock();
    loading_ = false;
    if (result == link_result::kOk) {
      path_ = path;
      loaded_ = setup;
    }
    return result;
  }

 private:
  std::mutex mutex_;
  bool loading_ = false;
  std::string path_;
  SetupLoad loaded_;
};

// One backend for several sockets: calls are made one at a time; the link
// is opened by the first socket and closed by the last; a setup loaded
// once is not loaded again (loading restarts a simulated rig).
class SharedBackend {
 public:
  explicit SharedBackend(std::unique_ptr<LinkLibrary> backend) : backend_(std::move(backend)) {}
  LinkLibrary& library() { return *backend_; }
  std::mutex& mutex() { return mutex_; }

  int32_t open(int16_t& handle);
  int32_t close(int16_t handle);
  int32_t load(const std::string& path, int32_t second, SetupLoad& load);

 private:
  std::unique_ptr<LinkLibrary> backend_;
  std::mutex mutex_;
  int opened_ = 0;
  int16_t handle_ = 0;
  SetupOnce setup_;
};

class SocketLink final : public LinkLibrary {
 public:
  // Over a backend shared with other sockets ...
  SocketLink(int socket, DeviceGate& gate, SharedBackend& shared);
  // ... or over a backend of its own (a connection to a rig server that the
  // other sockets reach over connections of their own).
  SocketLink(int socket, DeviceGate& gate, SetupOnce& setup, std::unique_ptr<LinkLibrary> own);
  ~SocketLink() override;

  void useEventLoop(EventLoop& events) override;
  void useTrace(Trace& trace) override;
  std::string ownSetup() const override;
  int32_t openInterface(int16_t& handle) override;
  int32_t closeInterface(int16_t handle) override;
  int32_t interfaceVersion(int16_t handle, std::string& text) override;
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command, bool wait) override;
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override;
  bool writesOnlyTheReply() const override;
  int32_t abortReply(int16_t handle, int16_t device) override;
  int32_t millisecondCount() override;
  std::string connectionProblem() const override;
  int32_t dirPath(std::string& path) override;
  int32_t setupLibVersion(std::string& text) override;
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override;
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override;
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override;

 private:
  // Runs `call` on the backend, one call at a time when it is shared.
  template <class Call>
  auto locked(Call call) const;

  int socket_;
  DeviceGate& gate_;
  SharedBackend* shared_ = nullptr;
  SetupOnce* setup_ = nullptr;
  EventLoop* events_ = nullptr;
  std::unique_ptr<LinkLibrary> own_;
  LinkLibrary& backend_;
};

}  // namespace tavrix
