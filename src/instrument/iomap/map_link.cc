#include "instrument/iomap/map_link.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "common/text_conventions.h"

namespace tavrix {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;
SteadyTime steadyNow() { return std::chrono::steady_clock::now(); }

// Commands a device queue holds at most; a further send is "not ready"
// until the device catches up.
constexpr size_t kQueueLimit = 256;
// The command the link sends itself at open: connect and say what you are.
constexpr std::string_view kOpenCommand = "\x01OPEN";

bool numberLike(std::string_view text) {
  text = trim(text);
  if (text.empty()) return false;
  const char c = text[0];
  return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == '&';
}

std::string_view firstWord(std::string_view& rest) {
  rest = trimLeft(rest);
  const size_t blank = rest.find(' ');
  const std::string_view word = rest.substr(0, blank);
  rest = blank == std::string_view::npos ? std::string_view{} : trimLeft(rest.substr(blank + 1));
  return word;
}

}  // namespace

// Posts an empty task to the loop at the deadlines it is given, so that a
// wait through the loop wakes when its real time is up.
struct MapLink::Waker {
  using Entry = std::pair<SteadyTime, uint64_t>;
  std::mutex mutex;
  std::condition_variable wake;
  std::set<Entry> due;
  uint64_t next = 0;
  EventLoop* loop = nullptr;
  bool quit = false;
  std::thread thread;

  explicit Waker(EventLoop* events) : loop(events) {
    thread = std::thread([this] { run(); });
  }
  ~Waker() {
    {
      std::lock_guard lock(mutex);
      quit = true;
    }
    wake.notify_all();
    thread.join();
  }
  Entry at(SteadyTime when) {
    Entry entry;
    {
      std::lock_guard lock(mutex);
      entry = {when, ++next};
      due.insert(entry);
    }
    wake.notify_all();
    return entry;
  }
  // A wait that ended before its deadline needs no wake any more.
  void forget(const Entry& entry) {
    std::lock_guard lock(mutex);
    due.erase(entry);
  }
  void run() {
    std::unique_lock lock(mutex);
    while (!quit) {
      if (due.empty()) {
        wake.wait(lock);
        continue;
      }
      const SteadyTime first = due.begin()->first;
      if (steadyNow() < first) {
        wake.wait_until(lock, first);
        continue;
      }
      due.erase(due.begin());
      EventLoop* events = loop;
      lock.unlock();
      events->post([] {});
      lock.lock();
    }
  }
};

// A device of the map: its thread, its queue of commands, its channels
// with the settings a sequence can change (offset, alarm limits).
struct MapLink::Worker {
  struct Channel {
    const MapChannel* map = nullptr;
    double userOffset = 0;  // O=, added to every reading (re-zero)
    std::optional<double> high;
    std::optional<double> low;
    std::string tag;
    std::string escape;
  };
  struct Job {
    uint64_t id = 0;
    std::string command;
    bool wantsReply = false;
    bool essential = false;  // a write: never dropped by an abort
    bool cancelled = false;
  };

  Worker(const MapDevice& d, std::unique_ptr<DeviceIo> deviceIo, std::string why)
      : device(d), io(std::move(deviceIo)), unavailable(std::move(why)) {}

  const MapDevice& device;
  std::vector<Channel> channels;
  std::unique_ptr<DeviceIo> io;
  std::string unavailable;  // why this build cannot reach the device
  int reconnectPauseMs = 200;

  // Shared between the run's thread and the device's thread.
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Job> queue;
  std::map<uint64_t, std::string> replies;
  uint64_t failedAttempts = 0;
  std::string problem;   // the last failure to reach the device
  std::string identity;  // what the device said it is
  EventLoop* loop = nullptr;
  bool quit = false;
  std::thread thread;

  // The run's thread only.
  uint64_t nextId = 1;
  std::vector<uint64_t> awaited;  // replies asked for, the latest last

  // The device's thread only.
  std::string report = "0";

  void start() {
    thread = std::thread([this] { run(); });
  }
  void stop() {
    {
      std::lock_guard lock(mutex);
      quit = true;
    }
    wake.notify_all();
    // A device in the middle of a slow exchange lets go at once.
    if (io) io->interrupt();
    if (thread.joinable()) thread.join();
    if (io) io->disconnect();
  }
  void notifyLoop() {
    EventLoop* events = nullptr;
    {
      std::lock_guard lock(mutex);
      events = loop;
    }
    if (events != nullptr) events->post([] {});
  }

  void run() {
    std::unique_lock lock(mutex);
    for (;;) {
      wake.wait(lock, [&] { return quit || !queue.empty(); });
      if (quit) return;
      if (queue.front().cancelled) {
        queue.pop_front();
        continue;
      }
      const std::string command = queue.front().command;
      lock.unlock();
      std::string why;
      const std::optional<std::string> reply = execute(command, why);
      lock.lock();
      if (reply) {
        const Job job = std::move(queue.front());
        queue.pop_front();
        if (job.wantsReply && !job.cancelled) replies[job.id] = *reply;
        if (io != nullptr) identity = io->identity();
      } else {
        ++failedAttempts;
        problem = why;
      }
      lock.unlock();
      notifyLoop();
      lock.lock();
      if (!reply && !quit) {
        wake.wait_for(lock, std::chrono::milliseconds(reconnectPauseMs),
                      [&] { return quit || (!queue.empty() && queue.front().cancelled); });
      }
    }
  }

  Channel* find(std::string_view name) {
    for (Channel& c : channels) {
      if (c.map->name == name) return &c;
    }
    return nullptr;
  }

  std::string fail(int code, std::string_view text) {
    report = std::to_string(code) + " " + std::string(text);
    return "ERR " + report;
  }

  // One exchange with the device, connecting first when needed. nullopt:
  // no answer (why says what happened).
  std::optional<DeviceIo::Status> exchange(const std::function<DeviceIo::Status()>& call,
                                           std::string& why) {
    if (io == nullptr) {
      why = device.name + ": " + unavailable;
      return std::nullopt;
    }
    if (!io->connected()) {
      std::string problemText;
      if (!io->connect(problemText)) {
        why = device.name + " (" + device.address() + "): " + problemText;
        return std::nullopt;
      }
    }
    const DeviceIo::Status status = call();
    if (status == DeviceIo::Status::kNoAnswer) {
      io->disconnect();
      return std::nullopt;
    }
    return status;
  }

  // The device's answer to one command; nullopt when the device did not
  // answer (the command is tried again).
  std::optional<std::string> execute(std::string_view command, std::string& why) {
    if (command == kOpenCommand) {
      if (exchange([] { return DeviceIo::Status::kOk; }, why)) return std::string("0");
      return std::nullopt;
    }
    std::string_view rest = command;
    const std::string word = upperCase(firstWord(rest));
    if (word == "REP") return report;
    if (word == "ALA") return alarms(upperCase(trim(rest)), why);
    if (word != "REA" && word != "WRI" && word != "SHO" && word != "DEF" && word != "ESC" &&
        word != "CLEAR") {
      return fail(11, "bad command");
    }
    const std::string_view name = firstWord(rest);
    Channel* channel = find(name);
    if (channel == nullptr) return fail(12, "bad channel");
    const MapChannel& c = *channel->map;
    if (word == "REA") {
      if (!c.readable()) {
        return fail(map_error::kWriteOnly, c.name + " is write-only: the map gives it no read");
      }
      double value = 0;
      std::string text;
      const auto status = exchange([&] { return io->read(c, value, text); }, why);
      if (!status) {
        why = text.empty() ? why : text;
        return std::nullopt;
      }
      if (*status == DeviceIo::Status::kDeviceError) return fail(map_error::kDevice, text);
      report = "0";
      return MapNumberText(value + channel->userOffset);
    }
    if (word == "WRI") {
      if (!c.writable()) {
        return fail(map_error::kReadOnly, c.name + " is read-only; nothing was written");
      }
      if (!numberLike(rest)) {
        return fail(map_error::kBadValue, c.name + ": \"" + std::string(rest) +
                                              "\" is not a number; nothing was written");
      }
      const double value = leadingNumber(rest);
      std::string limitWhy;
      if (!WithinLimits(c, value, &limitWhy)) return fail(map_error::kOutOfRange, limitWhy);
      if (c.table != ModbusTable::kNone) {
        uint16_t words[2];
        if (!EncodeRegisters(c, value, words, &limitWhy)) {
          return fail(map_error::kBadValue, c.name + ": " + limitWhy + "; nothing was written");
        }
      }
      std::string text;
      const auto status = exchange([&] { return io->write(c, value, text); }, why);
      if (!status) {
        why = text.empty() ? why : text;
        return std::nullopt;
      }
      if (*status == DeviceIo::Status::kDeviceError) return fail(map_error::kDevice, text);
      report = "0";
      return std::string("0");
    }
    if (word == "SHO") {
      report = "0";
      const bool digital = c.table == ModbusTable::kCoil || c.table == ModbusTable::kDiscreteInput;
      std::string text = std::string("E=1 M=") + (digital ? "D" : "A") + " N=" + c.name;
      if (!c.units.empty()) text += " U=" + c.units;
      text += " O=" + MapNumberText(channel->userOffset);
      return text;
    }
    if (word == "DEF") return define(*channel, rest);
    if (word == "ESC") {
      channel->escape = std::string(rest);
      report = "0";
      return std::string("0");
    }
    return fail(14, "not a monitor channel");
  }

  std::string define(Channel& channel, std::string_view settings) {
    Channel changed = channel;
    while (!settings.empty()) {
      const std::string_view token = firstWord(settings);
      const size_t eq = token.find('=');
      if (eq == std::string_view::npos) return fail(13, "bad setting");
      const std::string key = upperCase(token.substr(0, eq));
      const std::string_view value = token.substr(eq + 1);
      if (key == "TAG") {
        changed.tag = std::string(value);
        continue;
      }
      if (!numberLike(value)) return fail(13, "bad setting");
      const double n = leadingNumber(value);
      if (key == "O") {
        changed.userOffset = n;
      } else if (key == "HIGH") {
        changed.high = n;
      } else if (key == "LOW") {
        changed.low = n;
      } else {
        return fail(13, "bad setting");
      }
    }
    channel = std::move(changed);
    report = "0";
    return "0";
  }

  // "ALA T" and "ALA N": every alarm channel of the device is read; one that
  // cannot be read leaves the answer open (the device is asked again), so
  // a device that does not answer never reads as "no alarm".
  std::optional<std::string> alarms(const std::string& what, std::string& why) {
    if (what != "T" && what != "N") return fail(11, "bad command");
    int count = 0;
    std::string names;
    for (Channel& channel : channels) {
      if (!channel.high && !channel.low) continue;
      const MapChannel& c = *channel.map;
      double value = 0;
      std::string text;
      const auto status = exchange([&] { return io->read(c, value, text); }, why);
      if (!status || *status != DeviceIo::Status::kOk) {
        if (!text.empty()) why = text;
        return std::nullopt;
      }
      value += channel.userOffset;
      if ((channel.high && value > *channel.high) || (channel.low && value < *channel.low)) {
        ++count;
        if (!names.empty()) names += ", ";
        names += channel.tag.empty() ? c.name : channel.tag;
      }
    }
    report = "0";
    if (what == "T") return std::to_string(count);
    return names.empty() ? std::string("-") : names;
  }
};

MapLink::MapLink(const Clock& clock, IoMap map, DeviceFactory makeDevice, MapLinkOptions options)
    : clock_(clock),
      map_(std::move(map)),
      makeDevice_(makeDevice ? std::move(makeDevice) : DeviceFactory(MakeDeviceIo)),
      options_(options),
      ownClock_(std::make_unique<SystemClock>()),
      ownEvents_(std::make_unique<EventLoop>(*ownClock_)) {}

MapLink::~MapLink() { stopWorkers(); }

void MapLink::useEventLoop(EventLoop& events) {
  events_ = &events;
  for (auto& w : workers_) {
    std::lock_guard lock(w->mutex);
    w->loop = events_;
  }
  if (waker_) {
    std::lock_guard lock(waker_->mutex);
    waker_->loop = events_;
  }
}

void MapLink::stopWorkers() {
  for (auto& w : workers_) w->stop();
  workers_.clear();
  waker_.reset();
}

std::string MapLink::connectionProblem() const {
  if (!openProblem_.empty()) return openProblem_;
  std::string text;
  for (const auto& w : workers_) {
    std::lock_guard lock(w->mutex);
    if (w->problem.empty()) continue;
    if (!text.empty()) text += "; ";
    text += w->problem;
  }
  return text;
}

void MapLink::waitFor(const std::function<bool()>& done, int waitMs) {
  const SteadyTime deadline = steadyNow() + std::chrono::milliseconds(waitMs);
  Waker* waker = waker_.get();
  const Waker::Entry entry = waker->at(deadline);
  {
    EventLoop::OutsideWait outside(events());
    events().waitUntil([&] { return done() || steadyNow() >= deadline; });
  }
  // A task run during the wait may have closed the link (and its waker).
  if (waker_.get() == waker) waker->forget(entry);
}

int32_t MapLink::openInterface(int16_t& handle) {
  stopWorkers();
  openProblem_.clear();
  waker_ = std::make_unique<Waker>(&events());
  for (const MapDevice& d : map_.devices) {
    std::string why;
    std::unique_ptr<DeviceIo> io = makeDevice_(d, &why);
    auto w = std::make_unique<Worker>(d, std::move(io), why);
    w->loop = &events();
    w->reconnectPauseMs = options_.reconnectPauseMs;
    for (const MapChannel& c : map_.channels) {
      if (&map_.devices[c.device] != &d) continue;
      Worker::Channel channel;
      channel.map = &c;
      channel.high = c.high;
      channel.low = c.low;
      channel.tag = c.tag;
      w->channels.push_back(std::move(channel));
    }
    w->start();
    workers_.push_back(std::move(w));
  }
  // Every device is reached once now, so that a device that is not there
  // stops the run before its first line, and what each says it is goes to
  // the trace.
  std::vector<uint64_t> ids;
  int longest = 0;
  for (auto& w : workers_) {
    std::lock_guard lock(w->mutex);
    const uint64_t id = w->nextId++;
    w->queue.push_back({id, std::string(kOpenCommand), true, false, false});
    ids.push_back(id);
    longest = std::max(longest, w->device.timeoutMs);
  }
  for (auto& w : workers_) w->wake.notify_all();
  const auto settled = [&] {
    for (size_t i = 0; i < workers_.size(); ++i) {
      std::lock_guard lock(workers_[i]->mutex);
      if (workers_[i]->replies.count(ids[i]) == 0 && workers_[i]->failedAttempts == 0) return false;
    }
    return true;
  };
  const SteadyTime deadline = steadyNow() + std::chrono::milliseconds(longest + 500);
  while (!settled() && steadyNow() < deadline) {
    waitFor(
        settled,
        static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steadyNow()).count()) +
            1);
  }
  for (size_t i = 0; i < workers_.size(); ++i) {
    Worker& w = *workers_[i];
    std::lock_guard lock(w.mutex);
    if (w.replies.erase(ids[i]) == 0) {
      if (!openProblem_.empty()) openProblem_ += "; ";
      openProblem_ += w.problem.empty()
                          ? w.device.name + " (" + w.device.address() + ") did not answer"
                          : w.problem;
    }
  }
  if (!openProblem_.empty()) {
    const std::string problem = openProblem_;
    stopWorkers();
    openProblem_ = problem;
    return link_result::kLinkLost;
  }
  if (trace_ != nullptr && trace_->enabled()) {
    for (auto& w : workers_) {
      std::lock_guard lock(w->mutex);
      auto event = trace_->event("device");
      event.field("name", w->device.name).field("dev", w->device.number);
      event.field("address", w->device.address());
      if (!w->identity.empty()) event.field("idn", w->identity);
    }
  }
  open_ = true;
  handle = 1;
  return link_result::kOk;
}

std::vector<std::string> MapLink::deviceLines() const {
  std::vector<std::string> lines;
  for (const auto& w : workers_) {
    std::lock_guard lock(w->mutex);
    std::string line = "device " + w->device.name + " (" + w->device.address() + ")";
    if (!w->identity.empty()) line += ": " + w->identity;
    lines.push_back(std::move(line));
  }
  return lines;
}

int32_t MapLink::closeInterface(int16_t /*handle*/) {
  stopWorkers();
  open_ = false;
  return link_result::kOk;
}

int32_t MapLink::interfaceVersion(int16_t /*handle*/, std::string& text) {
  WriteBuffer(text, kMapInterfaceVersion);
  return link_result::kOk;
}

int32_t MapLink::sendCommand(int16_t /*handle*/, int16_t device, std::string_view command,
                             bool wait) {
  if (!open_) return link_result::kNotOpen;
  if (device < 0 || device > 99) return link_result::kBadDevice;
  if (device < 1 || device > static_cast<int>(workers_.size())) return link_result::kBadDevice;
  Worker& w = *workers_[device - 1];
  const std::string text(trim(BufferText(command)));
  const std::string word = upperCase(text.substr(0, text.find(' ')));
  {
    std::lock_guard lock(w.mutex);
    if (w.queue.size() >= kQueueLimit) return link_result::kNotReady;
    const uint64_t id = w.nextId++;
    w.queue.push_back({id, text, wait, word == "WRI", false});
    if (wait) w.awaited.push_back(id);
  }
  w.wake.notify_all();
  return link_result::kOk;
}

int32_t MapLink::getReply(int16_t /*handle*/, int16_t device, std::string& buffer, bool /*wait*/) {
  if (!open_) return link_result::kNotOpen;
  if (device < 0 || device > 99) return link_result::kBadDevice;
  if (device < 1 || device > static_cast<int>(workers_.size())) return link_result::kBadDevice;
  Worker& w = *workers_[device - 1];
  if (w.awaited.empty()) return 34;  // nothing was sent
  const uint64_t id = w.awaited.back();
  uint64_t failures = 0;
  const auto take = [&](std::string& reply) {
    std::lock_guard lock(w.mutex);
    const auto it = w.replies.find(id);
    if (it == w.replies.end()) return false;
    reply = std::move(it->second);
    w.replies.erase(it);
    return true;
  };
  {
    std::lock_guard lock(w.mutex);
    failures = w.failedAttempts;
  }
  const auto settled = [&] {
    std::lock_guard lock(w.mutex);
    return w.replies.count(id) > 0 || w.failedAttempts != failures;
  };
  if (!settled()) waitFor(settled, options_.replyWaitMs);
  // A task run during the wait may have closed the link.
  if (!open_ || workers_.size() < static_cast<size_t>(device) || workers_[device - 1].get() != &w)
    return link_result::kLinkLost;
  std::string reply;
  if (!take(reply)) return link_result::kNotReady;
  w.awaited.erase(std::find(w.awaited.begin(), w.awaited.end(), id));
  WriteBuffer(buffer, reply);
  return link_result::kOk;
}

int32_t MapLink::abortReply(int16_t /*handle*/, int16_t device) {
  if (!open_ || device < 1 || device > static_cast<int>(workers_.size())) {
    return link_result::kOk;
  }
  Worker& w = *workers_[device - 1];
  if (w.awaited.empty()) return link_result::kOk;
  const uint64_t id = w.awaited.back();
  w.awaited.pop_back();
  {
    std::lock_guard lock(w.mutex);
    w.replies.erase(id);
    for (auto& job : w.queue) {
      if (job.id == id && !job.essential) job.cancelled = true;
      if (job.id == id) job.wantsReply = false;
    }
  }
  w.wake.notify_all();
  return link_result::kOk;
}

int32_t MapLink::millisecondCount() { return static_cast<int32_t>(clock_.milliseconds()); }

int32_t MapLink::dirPath(std::string& path) {
  path.clear();
  return link_result::kOk;
}

int32_t MapLink::setupLibVersion(std::string& text) {
  WriteBuffer(text, kMapInterfaceVersion);
  return 6;
}

int32_t MapLink::loadAndLockSetup(const std::string& /*path*/, int32_t /*second*/,
                                  SetupLoad& load) {
  // The map is the setup: whichever file a run chooses, the channels are
  // the map's.
  load.setupName = map_.setupName();
  load.summary = map_.summary();
  return link_result::kOk;
}

int32_t MapLink::unlockSetup(std::string_view /*setupName*/, int16_t /*handle*/) {
  return link_result::kOk;
}

int32_t MapLink::requestMonitorChannel(std::string_view /*setupName*/,
                                       MonitorChannelRecord& /*record*/) {
  return link_result::kNoMonitorChannels;
}

std::unique_ptr<LinkLibrary> MakeMapLink(std::string_view linkSpec, const std::string& mapFile,
                                         const Clock& clock, const FileSystem& files,
                                         std::string* error) {
  std::string path = mapFile;
  if (linkSpec.substr(0, kLinkMapPrefix.size()) == kLinkMapPrefix) {
    path = std::string(linkSpec.substr(kLinkMapPrefix.size()));
  }
  if (path.empty()) {
    if (error) *error = "the map link needs a map file: map:FILE, or io_map = FILE in the settings";
    return nullptr;
  }
  IoMap map;
  std::string why;
  if (!LoadIoMapFile(files, path, map, &why)) {
    if (error) *error = why;
    return nullptr;
  }
  return std::make_unique<MapLink>(clock, std::move(map));
}

}  // namespace tavrix
