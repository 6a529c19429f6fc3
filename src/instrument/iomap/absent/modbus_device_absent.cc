// Builds without libmodbus: a map with a Modbus device opens no link.
#include "instrument/iomap/modbus_device.h"

namespace tavrix {

std::unique_ptr<DeviceIo> MakeModbusDevice(const MapDevice& /*device*/, std::string* why) {
  if (why)
    *why =
        "this build of the program has no Modbus support (libmodbus is left out of the Windows "
        "builds); use the Linux build for Modbus devices";
  return nullptr;
}

}  // namespace tavrix
