#include "instrument/iomap/device_io.h"

#include "instrument/iomap/modbus_device.h"
#include "instrument/iomap/scpi_device.h"

namespace tavrix {

std::unique_ptr<DeviceIo> MakeDeviceIo(const MapDevice& device, std::string* why) {
  return device.isModbus() ? MakeModbusDevice(device, why) : MakeScpiDevice(device, why);
}

}  // namespace tavrix
