// A station's runs published into a plant's results store, so that the
// plant page of any station shows them: `tavrix-cli serve` publishes while
// it serves, and `tavrix-cli run` while it runs when its results go to a
// plant's database server. Every publisher of a station sees the same runs
// (those whose control sockets are in the data root), so several on one
// station write the same row and none needs to know of the others.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>

#include "live_monitor.h"
#include "resultsdb/results_store.h"
#include "resultsdb/station_status.h"

namespace tavrix::plant {

// A publisher writes at least this often, so that a station heard from
// less than kStationOfflineSeconds ago is one that runs.
inline constexpr int kHeartbeatSeconds = 5;

// The runs of a live view as a station publishes them: each run's id,
// sequence, socket, state, line, last unit and how it ended.
nlohmann::json PublishedRuns(const nlohmann::json& snapshot,
                             const std::set<std::string>& leftOut = {});

struct PublisherOptions {
  StoreSpec store;
  std::string station;
  int heartbeatSeconds = kHeartbeatSeconds;
  // A change of the runs is published at once, but not more often than this.
  int leastGapMs = 1000;
  // Seconds since 1970; the system's clock unless a test sets it.
  std::function<long long()> now;
};

class StationPublisher {
 public:
  // Publishes what `monitor` sees (it must outlive the publisher).
  StationPublisher(PublisherOptions options, LiveMonitor& monitor);
  ~StationPublisher();
  StationPublisher(const StationPublisher&) = delete;
  StationPublisher& operator=(const StationPublisher&) = delete;

  // Publishes on a thread of its own: now, on each change of the runs, and
  // every heartbeat. A store that cannot be reached is tried again at the
  // next; the runs never wait for it.
  void start();
  // Publishes now; false with a message.
  bool publishNow(std::string* error);
  // Stops the thread; with `lastWord` publishes once more, without the
  // runs `ended` (runs of this process that are over, whose sockets may not
  // have closed yet). The monitor must have stopped for the thread to end
  // at once.
  void stop(bool lastWord, const std::set<std::string>& ended = {});

  // Called after each publication that the store took; for tests.
  static void SetPublishedHook(std::function<void(const StationStatus&)> hook);

 private:
  void loop();

  PublisherOptions options_;
  LiveMonitor& monitor_;
  bool publish(const std::set<std::string>& leftOut, std::string* error);

  std::mutex mutex_;  // the store
  std::unique_ptr<SqlResultsStore> store_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// What `tavrix-cli run` (one run or a station's sockets) starts beside its
// runs: a monitor of the data root's runs and a publisher into the store,
// when the store is a plant's database server. Null otherwise.
class RunPublishing {
 public:
  static std::unique_ptr<RunPublishing> Start(const std::string& storeSetting,
                                              const std::string& dataRoot,
                                              const std::string& station);
  // Publishes a last time, without the runs of this process.
  ~RunPublishing();
  // A run of this process (by its control socket's id).
  void ranHere(const std::string& runId);

 private:
  RunPublishing() = default;
  std::mutex mutex_;
  std::set<std::string> ours_;
  std::unique_ptr<LiveMonitor> monitor_;
  std::unique_ptr<StationPublisher> publisher_;
};

}  // namespace tavrix::plant
