// A Modbus RTU device on a serial line: libmodbus's RTU server on one
// pseudo-terminal, the map's device on another, the two far sides joined.
#include <gtest/gtest.h>
#include <modbus/modbus.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "testing/map_run.h"

namespace tavrix {
namespace {

using testing::kMapStart;
using testing::MapRun;

class RtuDevice {
 public:
  explicit RtuDevice(int unit) {
    char nearName[256] = {};
    char serverName[256] = {};
    EXPECT_EQ(openpty(&farA_, &nearA_, nearName, nullptr, nullptr), 0);
    EXPECT_EQ(openpty(&farB_, &nearB_, serverName, nullptr, nullptr), 0);
    path_ = nearName;
    mapping_ = modbus_mapping_new(8, 8, 16, 16);
    mapping_->tab_input_registers[2] = 0xfff6;  // -10
    ctx_ = modbus_new_rtu(serverName, 115200, 'N', 8, 1);
    modbus_set_slave(ctx_, unit);
    EXPECT_EQ(modbus_connect(ctx_), 0);
    relay_ = std::thread([this] { relay(); });
    server_ = std::thread([this] { serve(); });
  }
  ~RtuDevice() {
    quit_ = true;
    relay_.join();
    server_.join();
    modbus_close(ctx_);
    modbus_free(ctx_);
    modbus_mapping_free(mapping_);
    for (int fd : {farA_, nearA_, farB_, nearB_}) close(fd);
  }
  const std::string& path() const { return path_; }
  uint16_t holding(int address) const { return mapping_->tab_registers[address]; }

 private:
  // Carries bytes between the two far sides.
  void relay() {
    while (!quit_) {
      pollfd p[2] = {{farA_, POLLIN, 0}, {farB_, POLLIN, 0}};
      if (poll(p, 2, 20) <= 0) continue;
      char chunk[256];
      for (int i = 0; i < 2; ++i) {
        if ((p[i].revents & POLLIN) == 0) continue;
        const ssize_t n = read(p[i].fd, chunk, sizeof chunk);
        if (n > 0 && write(i == 0 ? farB_ : farA_, chunk, static_cast<size_t>(n)) != n) return;
      }
    }
  }
  void serve() {
    uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
    modbus_set_indication_timeout(ctx_, 0, 50'000);
    while (!quit_) {
      const int length = modbus_receive(ctx_, query);
      if (length > 0) modbus_reply(ctx_, query, length, mapping_);
    }
  }

  int farA_ = -1, nearA_ = -1, farB_ = -1, nearB_ = -1;
  std::string path_;
  modbus_mapping_t* mapping_ = nullptr;
  modbus_t* ctx_ = nullptr;
  std::atomic<bool> quit_{false};
  std::thread relay_;
  std::thread server_;
};

TEST(ModbusRtu, ADeviceOnASerialLineIsWrittenAndRead) {
  ScratchFolder scratch;
  VirtualClock clock(kMapStart);
  RtuDevice device(7);
  MapRun run(clock, scratch,
             "[device.plc]\nmodbus = \"rtu://" + device.path() +
                 "?baud=115200\"\nunit = 7\n"
                 "[channel.SETPOINT]\ndevice = \"plc\"\nholding_register = 4\ntype = \"uint16\"\n"
                 "scale = 0.5\n"
                 "[channel.TEMP]\ndevice = \"plc\"\ninput_register = 2\ntype = \"int16\"\n"
                 "offset = 100\n");
  EXPECT_EQ(run.run({"SEND SETPOINT, 21.5", "CHECK TEMP = 90, WRONG", "STOP",
                     "WRONG:", "SEND SETPOINT, 0"}),
            "");
  EXPECT_EQ(device.holding(4), 43);
}

}  // namespace
}  // namespace tavrix
