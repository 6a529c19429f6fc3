// The Modbus devices of an I/O map (TCP and RTU). Builds without libmodbus
// (the Windows builds) have none: MakeModbusDevice says so.
#pragma once

#include <memory>
#include <string>

#include "instrument/iomap/device_io.h"

namespace tavrix {

std::unique_ptr<DeviceIo> MakeModbusDevice(const MapDevice& device, std::string* why);

}  // namespace tavrix
