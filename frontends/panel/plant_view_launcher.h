// The window's way to the plant view: `tavrix-cli serve` started as a child
// process on loopback for the window's results store, its address read from
// what it prints once it listens, and stopped with the window. No toolkit
// here; the window only adds a menu item and opens the browser.
#pragma once

#include <string>
#include <vector>

namespace tavrix {

class PlantViewLauncher {
 public:
  PlantViewLauncher() = default;
  ~PlantViewLauncher();
  PlantViewLauncher(const PlantViewLauncher&) = delete;
  PlantViewLauncher& operator=(const PlantViewLauncher&) = delete;

  // What the window runs: serve on a free loopback port, for the store the
  // window's settings name (empty: the data root's database file).
  static std::vector<std::string> ServeArguments(const std::string& storeSetting);
  // The address in serve's line "... the plant view is at URL (...)";
  // empty when the line is not that one.
  static std::string ViewAddress(const std::string& line);

  // Starts `program` with `arguments` and waits (at most `timeoutMs`) until
  // it says where it serves; its address, or empty with what it said when
  // it ended or did not answer in time. A view already started is given
  // again.
  std::string start(const std::string& program, const std::vector<std::string>& arguments,
                    std::string* error, int timeoutMs = 10000);
  bool running();
  const std::string& address() const { return address_; }
  // Stops the server (SIGTERM, and SIGKILL when it does not end).
  void stop();

 private:
  int pid_ = -1;
  int output_ = -1;  // what it says, kept open so that it may go on saying it
  std::string address_;
};

}  // namespace tavrix
