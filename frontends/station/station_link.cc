#include "station_link.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/event_loop.h"

namespace tavrix {

namespace {
// How often a socket looks whether another socket's load of the setup is done.
constexpr Micros kLoadPoll = 10'000;
// How long a socket on the system's clock waits for a busy device before its
// own events run again.
constexpr auto kTurnWait = std::chrono::milliseconds(20);
bool validDevice(int16_t device) { return device >= 0 && device < 100; }
}  // namespace

bool DeviceGate::take(int socket, int16_t device) {
  if (!validDevice(device)) return true;
  std::unique_lock lock(mutex_);
  Device& d = devices_[device];
  if (d.holder == socket) return true;
  if (!mayTake(d, socket)) {
    if (std::find(d.waiting.begin(), d.waiting.end(), socket) == d.waiting.end())
      d.waiting.push_back(socket);
    // A while, then the socket's own events run before it asks again.
    if (!wait_ || !freed_.wait_for(lock, kTurnWait, [&] { return mayTake(d, socket); }))
      return false;
  }
  if (!d.waiting.empty() && d.waiting.front() == socket) d.waiting.pop_front();
  d.holder = socket;
  return true;
}

void DeviceGate::give(int socket, int16_t device) {
  if (!validDevice(device)) return;
  {
    std::lock_guard guard(mutex_);
    if (devices_[device].holder != socket) return;
    devices_[device].holder = -1;
  }
  if (wait_) freed_.notify_all();
}

void DeviceGate::forget(int socket) {
  {
    std::lock_guard guard(mutex_);
    for (Device& d : devices_) {
      if (d.holder == socket) d.holder = -1;
      d.waiting.erase(std::remove(d.waiting.begin(), d.waiting.end(), socket), d.waiting.end());
    }
  }
  if (wait_) freed_.notify_all();
}

int32_t SharedBackend::open(int16_t& handle) {
  std::lock_guard guard(mutex_);
  if (opened_ == 0) {
    const int32_t result = backend_->openInterface(handle_);
    if (result != link_result::kOk) return result;
  }
  ++opened_;
  handle = handle_;
  return link_result::kOk;
}

int32_t SharedBackend::close(int16_t handle) {
  std::lock_guard guard(mutex_);
  if (opened_ == 0) return link_result::kNotOpen;
  if (--opened_ > 0) return link_result::kOk;
  return backend_->closeInterface(handle);
}

int32_t SharedBackend::load(const std::string& path, int32_t second, SetupLoad& load) {
  // The simulated rig loads without waiting: no other load is ever under way.
  return *setup_.tryLoad(path, load, [&](SetupLoad& setup) {
    std::lock_guard guard(mutex_);
    return backend_->loadAndLockSetup(path, second, setup);
  });
}

SocketLink::SocketLink(int socket, DeviceGate& gate, SharedBackend& shared)
    : socket_(socket), gate_(gate), shared_(&shared), backend_(shared.library()) {}

SocketLink::SocketLink(int socket, DeviceGate& gate, SetupOnce& setup,
                       std::unique_ptr<LinkLibrary> own)
    : socket_(socket), gate_(gate), setup_(&setup), own_(std::move(own)), backend_(*own_) {}

SocketLink::~SocketLink() { gate_.forget(socket_); }

template <class Call>
auto SocketLink::locked(Call call) const {
  if (shared_ == nullptr) return call();
  std::lock_guard guard(shared_->mutex());
  return call();
}

void SocketLink::useEventLoop(EventLoop& events) {
  events_ = &events;
  // A shared backend waits for nothing outside the program.
  if (shared_ == nullptr) backend_.useEventLoop(events);
}
void SocketLink::useTrace(Trace& trace) {
  if (shared_ == nullptr) backend_.useTrace(trace);
}
std::string SocketLink::ownSetup() const {
  return locked([&] { return backend_.ownSetup(); });
}
int32_t SocketLink::openInterface(int16_t& handle) {
  if (shared_ != nullptr) return shared_->open(handle);
  return backend_.openInterface(handle);
}
int32_t SocketLink::closeInterface(int16_t handle) {
  gate_.forget(socket_);
  if (shared_ != nullptr) return shared_->close(handle);
  return backend_.closeInterface(handle);
}
int32_t SocketLink::interfaceVersion(int16_t handle, std::string& text) {
  return locked([&] { return backend_.interfaceVersion(handle, text); });
}

int32_t SocketLink::sendCommand(int16_t handle, int16_t device, std::string_view command,
                                bool wait) {
  // The device is this socket's from its command until its reply is in.
  if (!gate_.take(socket_, device)) return link_result::kNotReady;
  const int32_t result =
      locked([&] { return backend_.sendCommand(handle, device, command, wait); });
  if (result != link_result::kOk) gate_.give(socket_, device);
  return result;
}

int32_t SocketLink::getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) {
  const int32_t result = locked([&] { return backend_.getReply(handle, device, buffer, wait); });
  if (result != link_result::kNotReady && result != link_result::kPending)
    gate_.give(socket_, device);
  return result;
}

bool SocketLink::writesOnlyTheReply() const { return backend_.writesOnlyTheReply(); }

int32_t SocketLink::abortReply(int16_t handle, int16_t device) {
  const int32_t result = locked([&] { return backend_.abortReply(handle, device); });
  gate_.give(socket_, device);
  return result;
}

int32_t SocketLink::millisecondCount() {
  return locked([&] { return backend_.millisecondCount(); });
}
std::string SocketLink::connectionProblem() const {
  return locked([&] { return backend_.connectionProblem(); });
}
int32_t SocketLink::dirPath(std::string& path) {
  return locked([&] { return backend_.dirPath(path); });
}
int32_t SocketLink::setupLibVersion(std::string& text) {
  return locked([&] { return backend_.setupLibVersion(text); });
}
int32_t SocketLink::loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) {
  if (shared_ != nullptr) return shared_->load(path, second, load);
  for (;;) {
    const auto result = setup_->tryLoad(path, load, [&](SetupLoad& setup) {
      return backend_.loadAndLockSetup(path, second, setup);
    });
    if (result) return *result;
    if (events_ == nullptr) {
      std::this_thread::yield();
      continue;
    }
    bool due = false;
    Timer poll(*events_, kLoadPoll, [&due] { due = true; });
    poll.setEnabled(true);
    events_->waitUntil([&due] { return due; });
  }
}
int32_t SocketLink::unlockSetup(std::string_view setupName, int16_t handle) {
  // The setup stays locked while another socket uses it.
  if (shared_ != nullptr) return link_result::kOk;
  return backend_.unlockSetup(setupName, handle);
}
int32_t SocketLink::requestMonitorChannel(std::string_view setupName,
                                          MonitorChannelRecord& record) {
  return locked([&] { return backend_.requestMonitorChannel(setupName, record); });
}

}  // namespace tavrix
