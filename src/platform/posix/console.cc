#include "platform/console.h"

#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace tavrix::platform {

bool isTerminal(std::FILE* stream) { return stream != nullptr && ::isatty(fileno(stream)); }

int terminalColumns(std::FILE* stream) {
  winsize size{};
  if (stream == nullptr || ioctl(fileno(stream), TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

// SIGINT, SIGTERM and SIGHUP are blocked in the calling thread (and so in
// the threads it starts afterwards) and taken with sigwait() by a thread of
// their own; SIGUSR2 ends that thread.
struct StopRequests::State {
  sigset_t previous{};
  std::thread thread;
};

StopRequests::StopRequests(std::function<void(int exitStatus)> onStop)
    : state_(std::make_unique<State>()) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR2}) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, &state_->previous);
  state_->thread = std::thread([set, onStop = std::move(onStop)] {
    for (;;) {
      int signal = 0;
      if (sigwait(&set, &signal) != 0 || signal == SIGUSR2) return;
      onStop(128 + signal);
    }
  });
}

StopRequests::~StopRequests() {
  pthread_kill(state_->thread.native_handle(), SIGUSR2);
  state_->thread.join();
  pthread_sigmask(SIG_SETMASK, &state_->previous, nullptr);
}

}  // namespace tavrix::platform
