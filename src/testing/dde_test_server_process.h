// The DDE test server (dde_test_server.cc) as a process that a test starts
// and stops, and named events shared with it. Windows only.
#pragma once

#include <string>
#include <vector>

namespace tavrix::platform {

// A named event of this test process alone.
class NamedEvent {
 public:
  explicit NamedEvent(const std::string& role);
  ~NamedEvent();
  NamedEvent(const NamedEvent&) = delete;
  NamedEvent& operator=(const NamedEvent&) = delete;

  const std::string& name() const { return name_; }
  void set();
  // Blocks until another program sets the event (true), or `process` ends
  // or half a minute passes (false). Never a clock wait of the test's own.
  bool waitFor(void* process = nullptr) const;

 private:
  std::string name_;
  void* handle_;
};

class DdeTestServerProcess {
 public:
  // Where the server is: beside the running test program.
  static std::string path();

  // Starts the server with --log `logPath`, its ready and stop events, and
  // `arguments`; waits until it serves. started() says whether it did.
  DdeTestServerProcess(const std::string& logPath, const std::string& arguments);
  // Stops the server and waits for it to end.
  ~DdeTestServerProcess();
  DdeTestServerProcess(const DdeTestServerProcess&) = delete;
  DdeTestServerProcess& operator=(const DdeTestServerProcess&) = delete;

  bool started() const { return started_; }
  // The log lines written since the last call.
  std::vector<std::string> received();

 private:
  std::string log_;
  size_t seen_ = 0;
  NamedEvent stop_{"stop"};
  void* process_ = nullptr;
  bool started_ = false;
};

}  // namespace tavrix::platform
