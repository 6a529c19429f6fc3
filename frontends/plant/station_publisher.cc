#include "station_publisher.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>

#include "control_socket.h"
#include "resultsdb/uut_capture.h"

namespace tavrix::plant {

using json = nlohmann::json;

namespace {

std::mutex hookMutex;
std::function<void(const StationStatus&)>& Hook() {
  static std::function<void(const StationStatus&)> hook;
  return hook;
}

}  // namespace

json PublishedRuns(const json& snapshot, const std::set<std::string>& leftOut) {
  json runs = json::array();
  if (!snapshot.contains("runs")) return runs;
  for (const auto& run : snapshot["runs"]) {
    if (leftOut.count(run.value("id", ""))) continue;
    json brief = json::object();
    for (const char* key :
         {"id", "sequence", "socket", "state", "line", "last_serial", "last_verdict", "end"}) {
      if (run.contains(key)) brief[key] = run[key];
    }
    runs.push_back(brief);
  }
  return runs;
}

void StationPublisher::SetPublishedHook(std::function<void(const StationStatus&)> hook) {
  std::lock_guard guard(hookMutex);
  Hook() = std::move(hook);
}

StationPublisher::StationPublisher(PublisherOptions options, LiveMonitor& monitor)
    : options_(std::move(options)), monitor_(monitor) {
  if (!options_.now) {
    options_.now = [] { return static_cast<long long>(std::time(nullptr)); };
  }
}

StationPublisher::~StationPublisher() { stop(false); }

void StationPublisher::start() {
  if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
}

bool StationPublisher::publishNow(std::string* error) { return publish({}, error); }

bool StationPublisher::publish(const std::set<std::string>& leftOut, std::string* error) {
  StationStatus status;
  {
    std::lock_guard guard(mutex_);
    status = {options_.station,
              PublishedRuns(monitor_.snapshot(), leftOut)
                  .dump(-1, ' ', true, json::error_handler_t::replace),
              options_.now()};
    std::string why;
    if (!store_) store_ = OpenResultsStore(options_.store, &why);
    if (!store_) {
      if (error) *error = why;
      return false;
    }
    if (!PublishStationStatus(*store_, status, &why)) {
      store_.reset();  // a connection that failed is made again next time
      if (error) *error = why;
      return false;
    }
  }
  std::lock_guard guard(hookMutex);
  if (Hook()) Hook()(status);
  return true;
}

void StationPublisher::loop() {
  using Steady = std::chrono::steady_clock;
  long version = monitor_.version();
  publishNow(nullptr);
  Steady::time_point last = Steady::now();
  bool pending = false;
  while (!stopping_) {
    // Wakes on a change of the runs, on the monitor's stop, or in time for
    // the next heartbeat or the publication of a change held back.
    const auto due = pending ? last + std::chrono::milliseconds(options_.leastGapMs)
                             : last + std::chrono::seconds(options_.heartbeatSeconds);
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(due - Steady::now());
    const long now = monitor_.waitForChange(
        version,
        static_cast<int>(std::max<long long>(1, std::min<long long>(wait.count(), 60000))));
    if (stopping_) break;
    if (now != version) {
      version = now;
      pending = true;
    }
    const auto sinceLast = Steady::now() - last;
    if ((pending && sinceLast >= std::chrono::milliseconds(options_.leastGapMs)) ||
        sinceLast >= std::chrono::seconds(options_.heartbeatSeconds)) {
      publishNow(nullptr);  // a store that is away now is tried again next time
      last = Steady::now();
      pending = false;
    }
  }
}

void StationPublisher::stop(bool lastWord, const std::set<std::string>& ended) {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
  if (lastWord) publish(ended, nullptr);
}

std::unique_ptr<RunPublishing> RunPublishing::Start(const std::string& storeSetting,
                                                    const std::string& dataRoot,
                                                    const std::string& station) {
  StoreSpec spec;
  std::string error;
  if (!ParseStoreSpec(storeSetting, dataRoot, spec, &error) ||
      spec.kind != StoreSpec::Kind::kPostgres) {
    return nullptr;
  }
  std::unique_ptr<RunPublishing> p(new RunPublishing);
  p->monitor_ = std::make_unique<LiveMonitor>(RunsFolder(dataRoot));
  PublisherOptions options;
  options.store = spec;
  options.station = station.empty() ? DefaultStationName() : station;
  p->publisher_ = std::make_unique<StationPublisher>(options, *p->monitor_);
  p->publisher_->start();
  return p;
}

void RunPublishing::ranHere(const std::string& runId) {
  std::lock_guard guard(mutex_);
  if (!runId.empty()) ours_.insert(runId);
}

RunPublishing::~RunPublishing() {
  monitor_->stop();
  std::lock_guard guard(mutex_);
  publisher_->stop(true, ours_);
}

}  // namespace tavrix::plant
