// An SCPI instrument on a serial line: the instrument of the tests answers
// on the far side of a pseudo-terminal, whose near side the map names as
// its serial port.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "instrument/simdevices/scpi_instrument_server.h"
#include "testing/map_run.h"

namespace tavrix {
namespace {

using testing::kMapStart;
using testing::MapRun;

// The instrument behind the pseudo-terminal's far side.
class SerialInstrument {
 public:
  SerialInstrument() {
    char name[256] = {};
    EXPECT_EQ(openpty(&far_, &near_, name, nullptr, nullptr), 0);
    path_ = name;
    thread_ = std::thread([this] { serve(); });
  }
  ~SerialInstrument() {
    quit_ = true;
    thread_.join();
    close(far_);
    close(near_);
  }
  const std::string& path() const { return path_; }
  ScpiInstrumentServer& instrument() { return instrument_; }

 private:
  void serve() {
    std::string inbox;
    while (!quit_) {
      pollfd p{far_, POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      char chunk[256];
      const ssize_t n = read(far_, chunk, sizeof chunk);
      if (n <= 0) continue;
      inbox.append(chunk, static_cast<size_t>(n));
      for (size_t eol; (eol = inbox.find('\n')) != std::string::npos;) {
        const std::string line = inbox.substr(0, eol);
        inbox.erase(0, eol + 1);
        const std::string reply = instrument_.handle(line);
        if (line.find('?') == std::string::npos) continue;
        const std::string out = reply + "\r\n";
        if (write(far_, out.data(), out.size()) != static_cast<ssize_t>(out.size())) return;
      }
    }
  }

  int far_ = -1;
  int near_ = -1;
  std::string path_;
  ScpiInstrumentServer instrument_;
  std::atomic<bool> quit_{false};
  std::thread thread_;
};

TEST(ScpiSerial, AnInstrumentOnASerialLineIsSetAndRead) {
  ScratchFolder scratch;
  VirtualClock clock(kMapStart);
  SerialInstrument serial;
  MapRun run(clock, scratch,
             "[device.dmm]\nscpi = \"serial://" + serial.path() +
                 "?baud=115200&parity=N&data=8&stop=1\"\n"
                 "[channel.V]\ndevice = \"dmm\"\nwrite = \"VOLT {value}\"\n"
                 "read = \"VOLT?\"\n");
  EXPECT_EQ(run.run({"SEND V, 4.5", "CHECK V = 4.5, WRONG", "SEND V, 99", "WRONG:"}),
            "IML error - 23 dmm refused \"VOLT 99\": -222,\"Data out of range\"");
  EXPECT_EQ(serial.instrument().voltage(), 4.5);
  EXPECT_NE(
      run.trace().find(R"("address":")" + serial.path() + R"(","idn":"TAVRIX,SIM-PSU,0,1.0")"),
      std::string::npos)
      << run.trace();

  MapRun nowhere(clock, scratch,
                 "[device.dmm]\nscpi = \"serial://" + scratch.file("ttyNONE") +
                     "\"\n[channel.V]\ndevice = \"dmm\"\nread = \"VOLT?\"\n");
  EXPECT_FALSE(nowhere.instrument().ensureOpen());
  EXPECT_EQ(nowhere.link().connectionProblem(), "dmm (" + scratch.file("ttyNONE") +
                                                    "): cannot open " + scratch.file("ttyNONE") +
                                                    ": No such file or directory");
}

}  // namespace
}  // namespace tavrix
