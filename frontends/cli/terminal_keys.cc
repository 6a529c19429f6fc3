#include "terminal_keys.h"

#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstring>

#include "terminal_view.h"

namespace tavrix {

TerminalKeys::~TerminalKeys() { stop(); }

#ifdef _WIN32

bool TerminalKeys::Available(std::FILE*) { return false; }
void TerminalKeys::start(std::FILE*, Engine&, Breakpoints&, TerminalView&) {}
void TerminalKeys::stop() {}
void TerminalKeys::setRaw(bool) {}
void TerminalKeys::ask(const Question& question, std::function<void(Answer)> answered) {
  inner_.ask(question, std::move(answered));
}

#else

bool TerminalKeys::Available(std::FILE* in) { return in != nullptr && ::isatty(::fileno(in)) == 1; }

void TerminalKeys::start(std::FILE* in, Engine& engine, Breakpoints& breakpoints,
                         TerminalView& view) {
  engine_ = &engine;
  breakpoints_ = &breakpoints;
  view_ = &view;
  fd_ = ::fileno(in);
  if (::pipe(wake_) != 0) return;
  termios settings{};
  if (::tcgetattr(fd_, &settings) == 0) {
    saved_.resize(sizeof settings);
    std::memcpy(saved_.data(), &settings, sizeof settings);
    haveSaved_ = true;
  }
  {
    std::lock_guard guard(mutex_);
    setRaw(true);
  }
  events_ = engine.subscribe([this](const RunEvent& event) {
    if (event.kind == RunEventKind::kHold) held_ = true;
    if (event.kind == RunEventKind::kRelease) held_ = false;
    if ((event.kind == RunEventKind::kLine || event.kind == RunEventKind::kHold) &&
        !watched_.empty() && engine_->clock().now() - lastWatch_ >= kMicrosPerSecond)
      watchLine();
  });
  // On a real clock the watch line is read once a second, also while a
  // line waits; on a virtual one it moves with the lines.
  if (!engine.clock().isVirtual()) {
    refresh_ = std::make_unique<Timer>(engine.events(), kMicrosPerSecond, [this] {
      if (!watched_.empty()) watchLine();
    });
    refresh_->setEnabled(true);
  }
  thread_ = std::thread([this] { readKeys(); });
}

void TerminalKeys::stop() {
  events_.reset();
  // The timer goes now, while its engine is there: the keys outlive it.
  refresh_.reset();
  {
    std::lock_guard guard(mutex_);
    stopping_ = true;
  }
  if (wake_[1] >= 0) {
    const char c = 1;
    [[maybe_unused]] const ssize_t n = ::write(wake_[1], &c, 1);
  }
  if (thread_.joinable()) thread_.join();
  {
    std::lock_guard guard(mutex_);
    setRaw(false);
  }
  for (int& fd : wake_) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
}

// Under the lock: keys one at a time without echo, or the terminal as found.
void TerminalKeys::setRaw(bool raw) {
  if (!haveSaved_ || raw == rawNow_) return;
  termios settings;
  std::memcpy(&settings, saved_.data(), sizeof settings);
  if (raw) {
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
  }
  ::tcsetattr(fd_, TCSANOW, &settings);
  rawNow_ = raw;
}

void TerminalKeys::ask(const Question& question, std::function<void(Answer)> answered) {
  {
    // From here on the key reader leaves the terminal to the answer.
    std::lock_guard guard(mutex_);
    asking_ = true;
    setRaw(false);
  }
  inner_.ask(question, [this, answered = std::move(answered)](Answer answer) {
    {
      std::lock_guard guard(mutex_);
      asking_ = false;
      if (!stopping_ && thread_.joinable()) setRaw(true);
    }
    if (wake_[1] >= 0) {
      const char c = 1;
      [[maybe_unused]] const ssize_t n = ::write(wake_[1], &c, 1);
    }
    answered(std::move(answer));
  });
}

void TerminalKeys::readKeys() {
  for (;;) {
    pollfd fds[2] = {{wake_[0], POLLIN, 0}, {fd_, POLLIN, 0}};
    {
      std::lock_guard guard(mutex_);
      if (stopping_) return;
      if (asking_) fds[1].events = 0;  // the answer's keys are not ours
    }
    if (::poll(fds, 2, -1) < 0) continue;
    if (fds[0].revents & POLLIN) {
      char drain[64];
      [[maybe_unused]] const ssize_t n = ::read(wake_[0], drain, sizeof drain);
      continue;
    }
    if (fds[1].revents & (POLLHUP | POLLERR | POLLNVAL)) return;
    if (!(fds[1].revents & POLLIN)) continue;
    char c = 0;
    {
      // A question opened meanwhile keeps what was typed for it.
      std::lock_guard guard(mutex_);
      if (asking_ || stopping_) continue;
      if (::read(fd_, &c, 1) != 1) return;
    }
    key(c);
  }
}

void TerminalKeys::key(char c) {
  Engine& engine = *engine_;
  if (typingName_) {
    if (c == '\r' || c == '\n') {
      typingName_ = false;
      std::vector<std::string> names;
      size_t at = 0;
      while (at < name_.size()) {
        const size_t end = std::min(name_.find(' ', at), name_.size());
        if (end > at) names.push_back(name_.substr(at, end - at));
        at = end + 1;
      }
      name_.clear();
      engine.post([this, names](Engine&) {
        for (const auto& n : names)
          if (std::find(watched_.begin(), watched_.end(), n) == watched_.end())
            watched_.push_back(n);
        watchLine();
      });
    } else if (c == 0x7f || c == '\b') {
      if (!name_.empty()) name_.pop_back();
    } else if (c == 0x1b) {
      typingName_ = false;
      name_.clear();
    } else if (static_cast<unsigned char>(c) >= 0x20) {
      name_ += c;
    }
    return;
  }
  switch (c) {
    case ' ':
      engine.post([this](Engine& e) {
        if (held_) {
          e.sequencer().resume();
        } else {
          e.sequencer().pause();
        }
      });
      break;
    case 's':
      engine.step();
      break;
    case 'k':
      engine.skip();
      break;
    case 'q':
      engine.close();
      break;
    case 'b':
      engine.post([this](Engine&) {
        const auto list = breakpoints_->list();
        if (list.empty()) view_->note("no breakpoints");
        for (const Breakpoint& b : list)
          view_->note("breakpoint " + std::to_string(b.id) + ": " + DescribeBreakpoint(b));
      });
      break;
    case 'w':
      typingName_ = true;
      name_.clear();
      break;
    default:
      break;
  }
}

#endif

// Engine thread: reads the watched channels into the watch line.
void TerminalKeys::watchLine() {
  lastWatch_ = engine_->clock().now();
  std::string text = "watch:";
  Instrument* instrument = engine_->instrument();
  for (const std::string& name : watched_) {
    std::string value;
    const bool read = instrument != nullptr && instrument->isOpen() &&
                      instrument->channels().ReadChannel(name, value);
    text += " " + name + "=" + (read ? value : "?");
  }
  view_->setWatchLine(text);
}

}  // namespace tavrix
