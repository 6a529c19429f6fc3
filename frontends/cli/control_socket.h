// The control socket of a run: a local endpoint that only its user can open
// (platform/local_endpoint.h: a Unix-domain socket, or on Windows a named
// pipe whose name is kept in the file), known by the path
// <data root>/runs/<run id>/control.sock, through which `tavrix-cli
// ctl` (or any client speaking control_protocol.h) asks for the run's
// status, pauses, steps, skips, resumes or stops it, sets and clears
// breakpoints, reads channels, and follows its events. Several clients are
// served at once by one thread of its own; a client that does not read what
// it asked for is dropped rather than holding the run up. The socket and its
// folder go when the run ends.
#pragma once

#include <memory>
#include <string>

#include "answer_relay.h"
#include "engine/breakpoints.h"
#include "engine/engine.h"

namespace tavrix {

// The folder of the runs' sockets below a data root.
std::string RunsFolder(const std::string& dataRoot);

// A client may leave this much unread before it is dropped.
constexpr size_t kControlClientBacklog = 4 * 1024 * 1024;

class ControlSocket {
 public:
  // Listens for `engine`'s run under a new run id in RunsFolder(dataRoot);
  // nullptr with a message when the socket cannot be made. `origin` is
  // where the events' "t" counts from. `testSocket`, when not empty, names
  // the station's test socket the run belongs to (its status tells it).
  // `runId`, when not empty, is a run whose folder is made already (its
  // record's): the socket goes there, and the folder is left when it goes.
  // `started` says the run has started already (a socket opened as its run
  // starts, the window's): its first status is then "running", not "ready".
  static std::unique_ptr<ControlSocket> Open(Engine& engine, Breakpoints& breakpoints,
                                             const std::string& dataRoot,
                                             const std::string& sequence, int64_t origin,
                                             std::string* error, const std::string& testSocket = {},
                                             const std::string& runId = {}, bool started = false);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  const std::string& runId() const;
  const std::string& path() const;
  // Where "answer" gives its answers and "status" finds the open question;
  // without it a run's questions are answered only where they are shown.
  void setAnswers(AnswerRelay* relay);

  class Impl;

 private:
  explicit ControlSocket(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace tavrix
