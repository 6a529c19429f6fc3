// A serial line (a USB adapter, a COM port): raw bytes, no flow control,
// with waits bounded in milliseconds. termios on POSIX systems, the
// communications functions on Windows.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace tavrix::platform {

struct SerialSettings {
  std::string path;  // "/dev/ttyUSB0", "COM3"
  int baud = 9600;
  char parity = 'N';  // N, E or O
  int dataBits = 8;
  int stopBits = 1;
};

class SerialPort {
 public:
  virtual ~SerialPort() = default;
  // Sends all of `bytes` within `waitMs`; false when the line failed.
  virtual bool write(std::string_view bytes, int waitMs) = 0;
  // Appends what comes within `waitMs`: the count (0 when nothing came),
  // -1 when the port failed.
  virtual int read(std::string& into, int waitMs) = 0;
  // From another thread: makes a read in progress return soon.
  virtual void interrupt() = 0;
};

// The port opened with `settings`; nullptr with the reason in `problem`.
std::unique_ptr<SerialPort> openSerialPort(const SerialSettings& settings, std::string* problem);

}  // namespace tavrix::platform
