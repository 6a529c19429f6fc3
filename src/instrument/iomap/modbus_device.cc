// A Modbus device of the map (TCP or RTU) through libmodbus: one
// connection per device, made again after any failure.
#include "instrument/iomap/modbus_device.h"

#include <modbus/modbus.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace tavrix {
namespace {

std::string exceptionName(int code) {
  switch (code) {
    case 1:
      return "illegal function";
    case 2:
      return "illegal data address";
    case 3:
      return "illegal data value";
    case 4:
      return "server device failure";
    case 5:
      return "acknowledge";
    case 6:
      return "server device busy";
    case 7:
      return "negative acknowledge";
    case 8:
      return "memory parity error";
    case 10:
      return "gateway path unavailable";
    case 11:
      return "gateway target device failed to respond";
    default:
      return "unknown exception";
  }
}

std::string placeName(const MapChannel& c) {
  switch (c.table) {
    case ModbusTable::kCoil:
      return "coil " + std::to_string(c.address);
    case ModbusTable::kDiscreteInput:
      return "discrete input " + std::to_string(c.address);
    case ModbusTable::kInputRegister:
      return "input register " + std::to_string(c.address);
    case ModbusTable::kHoldingRegister:
    case ModbusTable::kNone:
      break;
  }
  return "register " + std::to_string(c.address);
}

class ModbusDevice final : public DeviceIo {
 public:
  explicit ModbusDevice(const MapDevice& device) : device_(device) {}
  ~ModbusDevice() override { disconnect(); }

  bool connect(std::string& problem) override {
    disconnect();
    modbus_t* ctx = nullptr;
    if (device_.protocol == MapProtocol::kModbusTcp) {
      const std::string port = std::to_string(device_.port);
      ctx = modbus_new_tcp_pi(device_.host.c_str(), port.c_str());
    } else {
      ctx = modbus_new_rtu(device_.serial.path.c_str(), device_.serial.baud, device_.serial.parity,
                           device_.serial.dataBits, device_.serial.stopBits);
    }
    if (ctx == nullptr) {
      problem = modbus_strerror(errno);
      return false;
    }
    const int ms = device_.timeoutMs;
    modbus_set_response_timeout(ctx, static_cast<uint32_t>(ms / 1000),
                                static_cast<uint32_t>((ms % 1000) * 1000));
    modbus_set_slave(ctx, device_.unit);
    if (modbus_connect(ctx) != 0) {
      const int e = errno;
      problem = e == ECONNREFUSED ? "connection refused" : modbus_strerror(e);
      modbus_free(ctx);
      return false;
    }
    std::lock_guard lock(mutex_);
    ctx_ = ctx;
    return true;
  }

  void disconnect() override {
    std::lock_guard lock(mutex_);
    if (ctx_ == nullptr) return;
    modbus_close(ctx_);
    modbus_free(ctx_);
    ctx_ = nullptr;
  }

  bool connected() const override { return ctx_ != nullptr; }

  void interrupt() override {
    std::lock_guard lock(mutex_);
    if (ctx_ != nullptr && device_.protocol == MapProtocol::kModbusTcp) {
      const int fd = modbus_get_socket(ctx_);
      if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
    }
  }

  Status read(const MapChannel& c, double& value, std::string& text) override {
    uint16_t words[2] = {0, 0};
    int got = -1;
    switch (c.table) {
      case ModbusTable::kCoil:
      case ModbusTable::kDiscreteInput: {
        uint8_t bit = 0;
        got = c.table == ModbusTable::kCoil ? modbus_read_bits(ctx_, c.address, 1, &bit)
                                            : modbus_read_input_bits(ctx_, c.address, 1, &bit);
        words[0] = bit;
        break;
      }
      case ModbusTable::kInputRegister:
        got = modbus_read_input_registers(ctx_, c.address, c.wordCount(), words);
        break;
      case ModbusTable::kHoldingRegister:
      case ModbusTable::kNone:
        got = modbus_read_registers(ctx_, c.address, c.wordCount(), words);
        break;
    }
    if (got < 0) return failure(c, errno, text);
    value = DecodeRegisters(c, words);
    return Status::kOk;
  }

  Status write(const MapChannel& c, double value, std::string& text) override {
    uint16_t words[2] = {0, 0};
    if (!EncodeRegisters(c, value, words, &text)) return Status::kDeviceError;
    int done = -1;
    if (c.table == ModbusTable::kCoil) {
      done = modbus_write_bit(ctx_, c.address, words[0] != 0 ? 1 : 0);
    } else if (c.wordCount() == 1) {
      done = modbus_write_register(ctx_, c.address, words[0]);
    } else {
      done = modbus_write_registers(ctx_, c.address, 2, words);
    }
    if (done < 0) return failure(c, errno, text);
    return Status::kOk;
  }

 private:
  Status failure(const MapChannel& c, int error, std::string& text) {
    if (error > MODBUS_ENOBASE && error <= EMBXGTAR) {
      const int code = error - MODBUS_ENOBASE;
      text = "Modbus exception " + std::to_string(code) + ": " + exceptionName(code) + " at " +
             placeName(c) + " of " + device_.name;
      return Status::kDeviceError;
    }
    if (error == ETIMEDOUT) {
      text = device_.name + " did not answer within " + std::to_string(device_.timeoutMs) + " ms";
    } else if (error > EMBXGTAR) {
      text = device_.name + " answered with bytes that are not a Modbus reply (" +
             modbus_strerror(error) + ")";
    } else {
      text = device_.name + " (" + device_.address() + "): " + modbus_strerror(error);
    }
    return Status::kNoAnswer;
  }

  const MapDevice& device_;
  std::mutex mutex_;  // the context against interrupt() from another thread
  modbus_t* ctx_ = nullptr;
};

}  // namespace

std::unique_ptr<DeviceIo> MakeModbusDevice(const MapDevice& device, std::string* /*why*/) {
  return std::make_unique<ModbusDevice>(device);
}

}  // namespace tavrix
