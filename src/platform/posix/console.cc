#include "platform/console.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>
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

// The terminal is read with read() on its descriptor after poll() says a
// line may be there, so that a byte written to a pipe of the reader's own
// can end the wait. The bytes read past a line end wait for the next call.
struct LineReader::State {
  int fd = -1;
  int wake[2] = {-1, -1};
  std::mutex mutex;
  bool cancelled = false;
  std::string pending;

  // Under `mutex`.
  void forgetCancel() {
    cancelled = false;
    char drain[64];
    while (wake[0] >= 0 && ::read(wake[0], drain, sizeof drain) > 0) {
    }
  }
};

LineReader::LineReader(std::FILE* stream) : state_(std::make_unique<State>()) {
  state_->fd = stream ? fileno(stream) : -1;
  if (::pipe(state_->wake) == 0) {
    ::fcntl(state_->wake[0], F_SETFL, O_NONBLOCK);
    ::fcntl(state_->wake[1], F_SETFL, O_NONBLOCK);
  }
}

LineReader::~LineReader() {
  for (int fd : state_->wake) {
    if (fd >= 0) ::close(fd);
  }
}

LineReader::Result LineReader::readLine(std::string& line) {
  State& s = *state_;
  auto taken = [&] {
    std::lock_guard lock(s.mutex);
    const bool was = s.cancelled;
    if (was) s.forgetCancel();
    return was;
  };
  for (;;) {
    if (taken()) return Result::kCancelled;
    const size_t end = s.pending.find('\n');
    if (end != std::string::npos) {
      line = s.pending.substr(0, end);
      s.pending.erase(0, end + 1);
      return Result::kLine;
    }
    pollfd fds[2] = {{s.fd, POLLIN, 0}, {s.wake[0], POLLIN, 0}};
    const int ready = ::poll(fds, s.wake[0] >= 0 ? 2 : 1, -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return Result::kEnd;
    }
    if ((fds[1].revents & POLLIN) && taken()) return Result::kCancelled;
    if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
    char buf[4096];
    const ssize_t n = ::read(s.fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // The last line may lack its line end.
      if (s.pending.empty()) return Result::kEnd;
      line = std::move(s.pending);
      s.pending.clear();
      return Result::kLine;
    }
    s.pending.append(buf, static_cast<size_t>(n));
  }
}

void LineReader::clear() {
  std::lock_guard lock(state_->mutex);
  state_->forgetCancel();
}

void LineReader::cancel() {
  std::lock_guard lock(state_->mutex);
  state_->cancelled = true;
  if (state_->wake[1] >= 0) {
    const char byte = 0;
    if (::write(state_->wake[1], &byte, 1) < 0) {
      // The pipe is full: a wake-up is there already.
    }
  }
}

}  // namespace tavrix::platform
