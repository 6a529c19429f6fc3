// What the live page shows: every run of this station that has a control
// socket, followed through it. A thread of its own looks for new sockets a
// few times a second; each run found is followed by a thread that asks its
// status once and then reads its events as they come, so a change on the
// run reaches the page within a fraction of a second, and nothing of this
// ever runs on a run's engine thread: a run only writes to its socket.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace tavrix::plant {

// One run as the page shows it.
struct LiveRun {
  std::string id;
  nlohmann::json status = nlohmann::json::object();  // the status reply's fields
  std::string state;                                 // ready, running, held, ended
  int line = 0;
  std::string lineText;
  std::string runStatus;              // Ready, Running, Stopped
  std::string command;                // the current command display (a wait's count-down)
  long timeoutLeft = -1;              // seconds, or -1 when no time-out counts down
  std::vector<std::string> messages;  // the newest last
  nlohmann::json prompt;              // the open question, or null
  std::string lastSerial;
  std::string lastVerdict;
  std::string endReason;
};

class LiveMonitor {
 public:
  // Follows the runs whose sockets are below `runsFolder`, looking for new
  // ones every `scanMs`.
  LiveMonitor(std::string runsFolder, int scanMs = 250);
  ~LiveMonitor();
  LiveMonitor(const LiveMonitor&) = delete;
  LiveMonitor& operator=(const LiveMonitor&) = delete;

  // The runs as one JSON object {"version":N,"runs":[...]}.
  nlohmann::json snapshot() const;
  // Waits until the view is newer than `version` or `timeoutMs` passed, or
  // the monitor stops; the current version.
  long waitForChange(long version, int timeoutMs) const;
  long version() const;

  // Sends one control request to run `id` and gives its reply line; false
  // with a message when the run is not there or did not answer.
  bool control(const std::string& id, const std::string& cmd, const std::vector<std::string>& args,
               std::string& reply, std::string* error) const;

  void stop();

 private:
  struct Follower;
  void scanLoop();
  void follow(const std::string& id, int fd);
  void changed();  // under the lock

  std::string runsFolder_;
  int scanMs_;
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  bool stopping_ = false;
  long version_ = 1;
  std::map<std::string, LiveRun> runs_;
  // Runs that ended, kept a while so the page shows how they ended.
  std::map<std::string, int> endedScans_;
  std::map<std::string, std::shared_ptr<Follower>> followers_;
  std::thread scanner_;
};

// Reads one line from a socket with a time-out; false on end, error or
// time-out. `buffer` keeps what came after the line.
bool ReadSocketLine(int fd, std::string& buffer, std::string& line, int timeoutMs);

}  // namespace tavrix::plant
