#include "platform/serial_port.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace tavrix::platform {
namespace {

speed_t speedFor(int baud) {
  switch (baud) {
    case 1200:
      return B1200;
    case 2400:
      return B2400;
    case 4800:
      return B4800;
    case 9600:
      return B9600;
    case 19200:
      return B19200;
    case 38400:
      return B38400;
    case 57600:
      return B57600;
    case 115200:
      return B115200;
    case 230400:
      return B230400;
    default:
      return 0;
  }
}

class PosixSerialPort final : public SerialPort {
 public:
  explicit PosixSerialPort(int fd) : fd_(fd) {}
  ~PosixSerialPort() override { ::close(fd_); }

  bool write(std::string_view bytes, int waitMs) override {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno != EAGAIN && errno != EINTR) return false;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{fd_, POLLOUT, 0};
      ::poll(&p, 1, static_cast<int>(left.count()));
    }
    return true;
  }

  int read(std::string& into, int waitMs) override {
    if (interrupted_) return -1;
    pollfd p{fd_, POLLIN, 0};
    // In short steps, so that interrupt() is seen soon.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      const int step = static_cast<int>(std::min<int64_t>(std::max<int64_t>(left.count(), 0), 50));
      const int ready = ::poll(&p, 1, step);
      if (interrupted_) return -1;
      if (ready < 0 && errno != EINTR) return -1;
      if (ready > 0) break;
      if (left.count() <= 0) return 0;
    }
    if ((p.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 && (p.revents & POLLIN) == 0) return -1;
    char chunk[1024];
    const ssize_t n = ::read(fd_, chunk, sizeof chunk);
    if (n < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    if (n == 0) return -1;
    into.append(chunk, static_cast<size_t>(n));
    return static_cast<int>(n);
  }

  void interrupt() override { interrupted_ = true; }

 private:
  int fd_;
  std::atomic<bool> interrupted_{false};
};

}  // namespace

std::unique_ptr<SerialPort> openSerialPort(const SerialSettings& s, std::string* problem) {
  const speed_t speed = speedFor(s.baud);
  if (speed == 0) {
    if (problem)
      *problem = "baud rate " + std::to_string(s.baud) + " is not one this system offers";
    return nullptr;
  }
  const int fd = ::open(s.path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (problem) *problem = "cannot open " + s.path + ": " + std::strerror(errno);
    return nullptr;
  }
  termios t{};
  if (::tcgetattr(fd, &t) != 0) {
    if (problem) *problem = s.path + " is not a serial port: " + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  ::cfmakeraw(&t);
  ::cfsetispeed(&t, speed);
  ::cfsetospeed(&t, speed);
  t.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
  t.c_cflag |= CLOCAL | CREAD;
  t.c_cflag |= s.dataBits == 5 ? CS5 : s.dataBits == 6 ? CS6 : s.dataBits == 7 ? CS7 : CS8;
  if (s.parity == 'E') t.c_cflag |= PARENB;
  if (s.parity == 'O') t.c_cflag |= PARENB | PARODD;
  if (s.stopBits == 2) t.c_cflag |= CSTOPB;
  t.c_cc[VMIN] = 0;
  t.c_cc[VTIME] = 0;
  if (::tcsetattr(fd, TCSANOW, &t) != 0) {
    if (problem) *problem = "cannot set up " + s.path + ": " + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  ::tcflush(fd, TCIOFLUSH);
  return std::make_unique<PosixSerialPort>(fd);
}

}  // namespace tavrix::platform
