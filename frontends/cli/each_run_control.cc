#include "each_run_control.h"

#include "control_socket.h"

namespace tavrix {

EachRunControl::EachRunControl(Engine& engine, Breakpoints& breakpoints,
                               std::function<void(const std::string&)> onProblem,
                               std::string testSocket)
    : engine_(engine),
      onProblem_(std::move(onProblem)),
      breakpoints_(breakpoints),
      testSocket_(std::move(testSocket)) {
  subscription_ = engine.subscribe([this](const RunEvent& e) { event(e); });
}

EachRunControl::~EachRunControl() {
  *alive_ = false;
  subscription_.reset();
  socket_.reset();
}

std::string EachRunControl::runId() const { return socket_ ? socket_->runId() : std::string(); }

void EachRunControl::event(const RunEvent& event) {
  if (event.kind == RunEventKind::kStarted) {
    socket_.reset();
    std::string error;
    socket_ = ControlSocket::Open(engine_, breakpoints_, engine_.files().dataRoot(),
                                  engine_.sequencer().sequenceFileName(), event.time, &error,
                                  testSocket_, engine_.recordId(), true);
    if (!socket_ && onProblem_) onProblem_("this run has no control socket: " + error);
    if (socket_ && onOpened_) onOpened_(socket_->runId());
  } else if (event.kind == RunEventKind::kEnd && socket_) {
    // The socket hears the end too (it tells its clients): it goes once
    // every subscriber has had the event.
    std::weak_ptr<ControlSocket> ended = socket_;
    engine_.post([this, alive = alive_, ended](Engine&) {
      if (*alive && socket_ == ended.lock()) socket_.reset();
    });
  }
}

}  // namespace tavrix
