// A station's test sockets for a front end that starts and stops each one on
// its own (the window): every socket's engine lives on a thread of its own
// for as long as the station is open, its file prepared, and runs whenever
// it is told to. A socket that has finished starts its next unit while the
// others run on. On a virtual clock the sockets take turns on the station's
// clock while they run (station_time.h); a socket at rest takes no turns.
// Every run of a socket keeps its record in the data root (runs/<run id>/),
// named for the socket, as each socket of tavrix-cli run --station does.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"
#include "panel/station_panel.h"
#include "station_file.h"
#include "station_rig.h"

namespace tavrix {

class StationSockets {
 public:
  struct Options {
    std::string dataRoot;
    InstrumentSettings settings;
    // The sockets share one virtual clock that starts at `start` (0: now).
    bool virtualTime = false;
    Micros start = 0;
    // Made on each socket's engine thread once its engine is built and its
    // records begun, and let go there before the engine goes: what the
    // front end keeps beside the socket's engine (its control socket).
    std::function<std::shared_ptr<void>(Engine& engine, size_t socket, const std::string& name)>
        companion;
  };
  // Called on a socket's engine thread for each of its run events, with the
  // unit the engine holds then.
  using EventHandler =
      std::function<void(size_t socket, const RunEvent& event, const SocketUnit& unit)>;
  // A socket's message box ("title", "text"), told without waiting for it
  // to be read; any thread.
  using MessageHandler =
      std::function<void(size_t socket, const std::string& title, const std::string& text)>;
  // The operator of a socket without an answers file: a person's.
  using PersonFactory =
      std::function<std::unique_ptr<Operator>(size_t socket, const std::string& name)>;

  // Reads and checks the station file (as tavrix-cli run --station does)
  // and builds every socket's engine with its file prepared. Null with a
  // message naming the file (or the socket) when any of that fails; nothing
  // runs then.
  static std::unique_ptr<StationSockets> Open(const std::string& path, const Options& options,
                                              EventHandler events, MessageHandler messages,
                                              PersonFactory person, std::string* error);
  // Stops whatever runs and ends the sockets' threads.
  ~StationSockets();
  StationSockets(const StationSockets&) = delete;
  StationSockets& operator=(const StationSockets&) = delete;

  const Station& station() const { return station_; }
  size_t size() const { return sockets_.size(); }
  std::vector<std::string> names() const;
  // The station's clock now (its virtual clock's, or the system's).
  Micros now() const;

  // Run: a socket at rest starts a free run of its file; a held run goes on
  // freely. Step: a socket at rest starts a run held before its first line;
  // a held run runs its held line. Stop ends the socket's run. Safe from any
  // thread.
  void run(size_t socket);
  void step(size_t socket);
  void stop(size_t socket);
  // Runs `task` on the socket's engine thread.
  void post(size_t socket, std::function<void(Engine&)> task);

 private:
  struct Socket;
  StationSockets() = default;
  bool startSocket(size_t index, const Options& options, std::string* error);
  void serve(Socket& socket);

  Station station_;
  EventHandler events_;
  MessageHandler messages_;
  PersonFactory person_;
  std::unique_ptr<StationTime> time_;
  std::unique_ptr<StationRig> rig_;
  std::vector<std::unique_ptr<Socket>> sockets_;
};

}  // namespace tavrix
