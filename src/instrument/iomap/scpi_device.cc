#include "instrument/iomap/scpi_device.h"

#include <chrono>
#include <mutex>

#include "common/text_conventions.h"
#include "platform/serial_port.h"
#include "platform/sockets.h"

namespace tavrix {
namespace {

// Error queue entries read after one write at most (a queue that never
// empties is not read for ever).
constexpr int kErrorQueueReads = 16;
constexpr size_t kLongestReply = 64 * 1024;

int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool numberReply(std::string_view text) {
  text = trim(text);
  if (text.empty()) return false;
  const char c = text[0];
  return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

// What one line of the conversation carries: a socket or a serial port.
class Line {
 public:
  virtual ~Line() = default;
  // Bytes sent in full, or false.
  virtual bool send(std::string_view bytes, int waitMs) = 0;
  // Some bytes (appended), 0 when none came in `waitMs`, -1 when the line
  // closed or failed.
  virtual int receive(std::string& into, int waitMs) = 0;
  virtual void interrupt() = 0;
};

class SocketLine final : public Line {
 public:
  explicit SocketLine(platform::Socket socket) : socket_(socket) {}
  ~SocketLine() override { platform::closeSocket(socket_); }
  bool send(std::string_view bytes, int waitMs) override {
    const int64_t deadline = steadyMs() + waitMs;
    size_t sent = 0;
    while (sent < bytes.size()) {
      const long n = platform::sendSome(socket_, bytes.data() + sent, bytes.size() - sent);
      if (n > 0) {
        sent += static_cast<size_t>(n);
        continue;
      }
      if (n == platform::kBroken) return false;
      std::vector<platform::Watch> ready{{socket_, false, true}};
      const int64_t left = deadline - steadyMs();
      if (left <= 0 || platform::waitSockets(ready, static_cast<int>(left)) <= 0) return false;
    }
    return true;
  }
  int receive(std::string& into, int waitMs) override {
    std::vector<platform::Watch> ready{{socket_, true, false}};
    if (platform::waitSockets(ready, waitMs) <= 0) return 0;
    char chunk[4096];
    const long n = platform::receiveSome(socket_, chunk, sizeof chunk);
    if (n == platform::kWouldBlock) return 0;
    if (n <= 0) return -1;
    into.append(chunk, static_cast<size_t>(n));
    return static_cast<int>(n);
  }
  void interrupt() override { platform::shutdownSocket(socket_); }

 private:
  platform::Socket socket_;
};

class SerialLine final : public Line {
 public:
  explicit SerialLine(std::unique_ptr<platform::SerialPort> port) : port_(std::move(port)) {}
  bool send(std::string_view bytes, int waitMs) override { return port_->write(bytes, waitMs); }
  int receive(std::string& into, int waitMs) override { return port_->read(into, waitMs); }
  void interrupt() override { port_->interrupt(); }

 private:
  std::unique_ptr<platform::SerialPort> port_;
};

class ScpiDevice final : public DeviceIo {
 public:
  explicit ScpiDevice(const MapDevice& device) : device_(device) {}

  bool connect(std::string& problem) override {
    disconnect();
    std::unique_ptr<Line> line;
    if (device_.protocol == MapProtocol::kScpiTcp) {
      const platform::Socket socket =
          platform::connectTcp(device_.host, device_.port, device_.timeoutMs, &problem);
      if (socket == platform::kNoSocket) return false;
      line = std::make_unique<SocketLine>(socket);
    } else {
      platform::SerialSettings s{device_.serial.path, device_.serial.baud, device_.serial.parity,
                                 device_.serial.dataBits, device_.serial.stopBits};
      auto port = platform::openSerialPort(s, &problem);
      if (!port) return false;
      line = std::make_unique<SerialLine>(std::move(port));
    }
    {
      std::lock_guard lock(mutex_);
      line_ = std::move(line);
    }
    inbox_.clear();
    std::string idn;
    if (!query("*IDN?", idn, problem)) {
      disconnect();
      return false;
    }
    identity_ = std::string(trim(idn));
    return true;
  }

  void disconnect() override {
    std::lock_guard lock(mutex_);
    line_.reset();
    inbox_.clear();
  }
  bool connected() const override { return line_ != nullptr; }
  std::string identity() const override { return identity_; }
  void interrupt() override {
    std::lock_guard lock(mutex_);
    if (line_) line_->interrupt();
  }

  Status read(const MapChannel& c, double& value, std::string& text) override {
    std::string reply;
    if (!query(c.readCommand, reply, text)) return Status::kNoAnswer;
    if (!numberReply(reply)) {
      text = device_.name + " answered \"" + std::string(trim(reply)).substr(0, 80) + "\" to " +
             c.readCommand + ", which is not a number";
      return Status::kNoAnswer;
    }
    value = leadingNumber(reply);
    return Status::kOk;
  }

  Status write(const MapChannel& c, double value, std::string& text) override {
    const std::string command = FillTemplate(c.writeCommand, value);
    if (!line_->send(command + "\n", device_.timeoutMs)) {
      text = device_.name + ": the connection failed while sending";
      return Status::kNoAnswer;
    }
    // The instrument's error queue: the first error fails the write; the
    // rest are read so the next write starts with an empty queue.
    std::string first;
    for (int i = 0; i < kErrorQueueReads; ++i) {
      std::string reply;
      if (!query("SYST:ERR?", reply, text)) return Status::kNoAnswer;
      const std::string_view entry = trim(reply);
      if (!numberReply(entry)) {
        text = device_.name + " answered \"" + std::string(entry).substr(0, 80) +
               "\" to SYST:ERR?, which is not an error queue entry";
        return Status::kNoAnswer;
      }
      if (leadingNumber(entry.substr(0, entry.find(','))) == 0) break;
      if (first.empty()) first = std::string(entry);
    }
    if (!first.empty()) {
      text = device_.name + " refused \"" + command + "\": " + first;
      return Status::kDeviceError;
    }
    return Status::kOk;
  }

 private:
  // Sends `command` and waits for its reply line.
  bool query(const std::string& command, std::string& reply, std::string& problem) {
    if (!line_->send(command + "\n", device_.timeoutMs)) {
      problem = device_.name + ": the connection failed while sending";
      return false;
    }
    const int64_t deadline = steadyMs() + device_.timeoutMs;
    for (;;) {
      const size_t eol = inbox_.find('\n');
      if (eol != std::string::npos) {
        reply = inbox_.substr(0, eol);
        if (!reply.empty() && reply.back() == '\r') reply.pop_back();
        inbox_.erase(0, eol + 1);
        return true;
      }
      if (inbox_.size() > kLongestReply) {
        problem = device_.name + " sent more than 64 KiB without a line end";
        return false;
      }
      const int64_t left = deadline - steadyMs();
      if (left <= 0) {
        problem = device_.name + " did not answer " + command + " within " +
                  std::to_string(device_.timeoutMs) + " ms";
        return false;
      }
      if (line_->receive(inbox_, static_cast<int>(left)) < 0) {
        problem = device_.name + " (" + device_.address() + ") closed the connection";
        return false;
      }
    }
  }

  const MapDevice& device_;
  std::mutex mutex_;  // the line against interrupt() from another thread
  std::unique_ptr<Line> line_;
  std::string inbox_;
  std::string identity_;
};

}  // namespace

std::unique_ptr<DeviceIo> MakeScpiDevice(const MapDevice& device, std::string* /*why*/) {
  return std::make_unique<ScpiDevice>(device);
}

}  // namespace tavrix
