// The I/O map: a TOML file that names the devices of a rig built from
// common parts (Modbus I/O modules and PLCs, SCPI instruments) and maps each
// channel name of a sequence onto one of them: a register, coil or input of
// a Modbus device, or the read and write commands of an SCPI instrument.
// The file's form is described in docs/io-map.md.
//
// The map also gives each channel the place in the channel table that a
// setup file gives it elsewhere: every device becomes a device number (the
// first device 1, the next 2, ...) and its channels channel numbers from 1,
// so the map's summary reads as a setup summary does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

enum class MapProtocol { kModbusTcp, kModbusRtu, kScpiTcp, kScpiSerial };

struct SerialSettings {
  std::string path;  // "/dev/ttyUSB0", "COM3"
  int baud = 9600;
  char parity = 'N';  // N, E or O
  int dataBits = 8;
  int stopBits = 1;
};

struct MapDevice {
  std::string name;
  int number = 0;  // the device number on the link (1 for the first device)
  MapProtocol protocol = MapProtocol::kModbusTcp;
  std::string host;  // TCP devices
  uint16_t port = 0;
  SerialSettings serial;  // serial devices
  int unit = 1;           // Modbus unit (slave) identifier
  // Real milliseconds an exchange with the device may take before it
  // counts as not answered.
  int timeoutMs = 1000;
  int line = 0;  // where the device's table starts in the file
  // "tcp://127.0.0.1:1502" or the serial path, for messages.
  std::string address() const;
  bool isModbus() const {
    return protocol == MapProtocol::kModbusTcp || protocol == MapProtocol::kModbusRtu;
  }
};

enum class ModbusTable { kNone, kCoil, kDiscreteInput, kInputRegister, kHoldingRegister };
enum class ValueType { kBit, kInt16, kUint16, kInt32, kUint32, kFloat32 };

struct MapChannel {
  std::string name;
  size_t device = 0;  // index into IoMap::devices
  int number = 0;     // channel number on its device (from 1)
  ModbusTable table = ModbusTable::kNone;
  int address = 0;  // register, coil or input number on the wire (0-based)
  ValueType type = ValueType::kBit;
  bool lowWordFirst = false;
  double scale = 1;
  double offset = 0;
  std::optional<double> min;
  std::optional<double> max;
  std::string units;
  std::optional<double> high;  // alarm limits
  std::optional<double> low;
  std::string tag;           // the alarm's name (default: the channel name)
  std::string readCommand;   // SCPI
  std::string writeCommand;  // SCPI, "{value}" stands for the value
  int line = 0;

  bool readable() const;
  bool writable() const;
  bool hasAlarm() const { return high.has_value() || low.has_value(); }
  // Registers the value takes on the wire (1 or 2; 1 for a bit).
  int wordCount() const;
  const std::string& alarmName() const { return tag.empty() ? name : tag; }
};

struct IoMap {
  std::string path;  // the file, for messages
  std::vector<MapDevice> devices;
  std::vector<MapChannel> channels;

  const MapChannel* find(std::string_view name) const;
  // The channel table's setup summary: one line per channel, CR LF ended,
  // in the form a setup file's channel lines take.
  std::string summary() const;
  // The setup name: the file's name without folder and extension (13
  // characters at most).
  std::string setupName() const;

 private:
  friend bool ParseIoMap(std::string_view, std::string_view, IoMap&, std::string*);
  std::unordered_map<std::string, size_t> index_;
};

// Reads a map's text; `fileName` names the file in messages. On a mistake
// returns false with "FILE line N: where: what".
bool ParseIoMap(std::string_view text, std::string_view fileName, IoMap& map, std::string* error);
bool LoadIoMapFile(const FileSystem& files, const std::string& path, IoMap& map,
                   std::string* error);

// --- Conversion between a channel's value and its wire form ---------------

// The registers for `value` (engineering units): the raw value is
// (value - offset) / scale, rounded to the type's integer for the integer
// types; false with a reason when it does not fit the type.
bool EncodeRegisters(const MapChannel& channel, double value, uint16_t words[2], std::string* why);
// The engineering value of the registers read (raw * scale + offset).
double DecodeRegisters(const MapChannel& channel, const uint16_t words[2]);
// A value as the link's replies write it: up to 10 significant digits.
std::string MapNumberText(double value);
// Whether a write of `value` lies within the channel's min and max; the
// reason names the channel otherwise.
bool WithinLimits(const MapChannel& channel, double value, std::string* why);
// The SCPI command for a write: the template with "{value}" replaced.
std::string FillTemplate(std::string_view command, double value);

}  // namespace tavrix
