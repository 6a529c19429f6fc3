// The SCPI instruments of an I/O map: text commands and replies, one a
// line, over a raw TCP socket or a serial line. "*IDN?" is asked after
// each connection; after every write the instrument's error queue
// ("SYST:ERR?") is read, and an error in it fails the write.
#pragma once

#include <memory>
#include <string>

#include "instrument/iomap/device_io.h"

namespace tavrix {

std::unique_ptr<DeviceIo> MakeScpiDevice(const MapDevice& device, std::string* why);

}  // namespace tavrix
