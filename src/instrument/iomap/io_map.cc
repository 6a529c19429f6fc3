#include "instrument/iomap/io_map.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/toml_reader.h"
#include "instrument/link/channels.h"

namespace tavrix {
namespace {

constexpr int kMaxDevices = 99;
constexpr int kMaxChannelsPerDevice = 9999;

// The Modbus table a channel's key names, kNone for any other key.
ModbusTable TableOfKey(std::string_view key) {
  if (key == "coil") return ModbusTable::kCoil;
  if (key == "discrete_input") return ModbusTable::kDiscreteInput;
  if (key == "input_register") return ModbusTable::kInputRegister;
  if (key == "holding_register") return ModbusTable::kHoldingRegister;
  return ModbusTable::kNone;
}

std::optional<ValueType> ValueTypeNamed(std::string_view name) {
  if (name == "int16") return ValueType::kInt16;
  if (name == "uint16") return ValueType::kUint16;
  if (name == "int32") return ValueType::kInt32;
  if (name == "uint32") return ValueType::kUint32;
  if (name == "float32") return ValueType::kFloat32;
  return std::nullopt;
}

class Reader : public TomlReader {
 public:
  using TomlReader::TomlReader;

  double number(const toml::node& node, std::string_view where, std::string_view key) const {
    if (node.is_integer()) return static_cast<double>(node.as_integer()->get());
    if (node.is_floating_point()) {
      const double v = node.as_floating_point()->get();
      if (std::isfinite(v)) return v;
    }
    fail(lineOf(node), where, "\"" + std::string(key) + "\" must be a finite number");
  }
  int64_t whole(const toml::node& node, std::string_view where, std::string_view key, int64_t low,
                int64_t high) const {
    if (!node.is_integer() || node.as_integer()->get() < low || node.as_integer()->get() > high) {
      fail(lineOf(node), where,
           "\"" + std::string(key) + "\" must be a whole number from " + std::to_string(low) +
               " to " + std::to_string(high));
    }
    return node.as_integer()->get();
  }

  void device(MapDevice& d, const toml::table& table) const {
    const std::string where = "device " + d.name;
    bool addressed = false;
    for (auto&& [key, node] : table) {
      const std::string_view k = key.str();
      const int line = lineOf(node);
      if (k == "modbus" || k == "scpi") {
        if (addressed) fail(line, where, "a device has one \"modbus\" or \"scpi\" address");
        addressed = true;
        address(d, k == "modbus", text(node, where, k), line, where);
      } else if (k == "unit") {
        d.unit = static_cast<int>(whole(node, where, k, 0, 255));
      } else if (k == "timeout_ms") {
        d.timeoutMs = static_cast<int>(whole(node, where, k, 1, 600'000));
      } else {
        fail(line, where, "unknown key \"" + std::string(k) + "\"");
      }
    }
    if (!addressed) fail(d.line, where, "needs a \"modbus\" or \"scpi\" address");
    if (!d.isModbus() && table.contains("unit"))
      fail(lineOf(*table.get("unit")), where, "\"unit\" is for Modbus devices only");
  }

  void address(MapDevice& d, bool modbus, std::string_view text, int line,
               const std::string& where) const {
    const auto serialFrom = [&](std::string_view rest) {
      const size_t q = rest.find('?');
      d.serial.path = std::string(rest.substr(0, q));
      if (d.serial.path.empty()) fail(line, where, "the serial address names no port");
      std::string_view options = q == std::string_view::npos ? "" : rest.substr(q + 1);
      while (!options.empty()) {
        const size_t amp = options.find('&');
        const std::string_view option = options.substr(0, amp);
        options = amp == std::string_view::npos ? "" : options.substr(amp + 1);
        const size_t eq = option.find('=');
        const std::string_view name = option.substr(0, eq);
        const std::string_view value =
            eq == std::string_view::npos ? std::string_view{} : option.substr(eq + 1);
        int n = 0;
        const bool numeric =
            !value.empty() && std::from_chars(value.data(), value.data() + value.size(), n).ptr ==
                                  value.data() + value.size();
        if (name == "baud" && numeric && n > 0) {
          d.serial.baud = n;
        } else if (name == "data" && numeric && n >= 5 && n <= 8) {
          d.serial.dataBits = n;
        } else if (name == "stop" && numeric && (n == 1 || n == 2)) {
          d.serial.stopBits = n;
        } else if (name == "parity" && (value == "N" || value == "E" || value == "O")) {
          d.serial.parity = value[0];
        } else {
          fail(line, where,
               "\"" + std::string(option) +
                   "\" is not a serial setting (baud=N, parity=N|E|O, data=5-8, stop=1|2)");
        }
      }
    };
    if (text.rfind("tcp://", 0) == 0) {
      const std::string_view hostPort = text.substr(6);
      const size_t colon = hostPort.rfind(':');
      int port = 0;
      const std::string_view portText =
          colon == std::string_view::npos ? std::string_view{} : hostPort.substr(colon + 1);
      if (colon == 0 || colon == std::string_view::npos || portText.empty() ||
          std::from_chars(portText.data(), portText.data() + portText.size(), port).ptr !=
              portText.data() + portText.size() ||
          port < 1 || port > 65535) {
        fail(line, where, "\"" + std::string(text) + "\" is not tcp://HOST:PORT");
      }
      d.host = std::string(hostPort.substr(0, colon));
      d.port = static_cast<uint16_t>(port);
      d.protocol = modbus ? MapProtocol::kModbusTcp : MapProtocol::kScpiTcp;
      return;
    }
    const std::string_view serialPrefix = modbus ? "rtu://" : "serial://";
    if (text.rfind(serialPrefix, 0) == 0) {
      serialFrom(text.substr(serialPrefix.size()));
      d.protocol = modbus ? MapProtocol::kModbusRtu : MapProtocol::kScpiSerial;
      return;
    }
    fail(line, where,
         "\"" + std::string(text) + "\" is not " +
             (modbus ? "tcp://HOST:PORT or rtu://PORT?baud=N"
                     : "tcp://HOST:PORT or serial://PORT?baud=N"));
  }

  void channel(MapChannel& c, const toml::table& table, const IoMap& map) const {
    const std::string where = "channel " + c.name;
    const toml::node* deviceNode = table.get("device");
    if (deviceNode == nullptr) fail(c.line, where, "needs \"device\"");
    const std::string deviceName = text(*deviceNode, where, "device");
    bool found = false;
    for (size_t i = 0; i < map.devices.size(); ++i) {
      if (map.devices[i].name == deviceName) {
        c.device = i;
        found = true;
      }
    }
    if (!found) {
      fail(lineOf(*deviceNode), where, "no device \"" + deviceName + "\" in the map");
    }
    const MapDevice& d = map.devices[c.device];
    bool typed = false;
    for (auto&& [key, node] : table) channelKey(c, d, key.str(), node, where, typed);
    checkChannel(c, d, where, typed);
  }

 private:
  // One key of a channel's table; `typed` is set by "type".
  void channelKey(MapChannel& c, const MapDevice& d, std::string_view k, const toml::node& node,
                  const std::string& where, bool& typed) const {
    const int line = lineOf(node);
    const auto modbusOnly = [&] {
      if (!d.isModbus())
        fail(line, where,
             "\"" + std::string(k) + "\" needs a Modbus device; " + d.name + " is SCPI");
    };
    const auto scpiOnly = [&] {
      if (d.isModbus())
        fail(line, where,
             "\"" + std::string(k) + "\" needs an SCPI device; " + d.name + " is Modbus");
    };
    const ModbusTable table = TableOfKey(k);
    if (table != ModbusTable::kNone) {
      modbusOnly();
      if (c.table != ModbusTable::kNone)
        fail(line, where,
             "a channel has one coil, discrete_input, input_register or holding_register");
      c.table = table;
      c.address = static_cast<int>(whole(node, where, k, 0, 65535));
    } else if (k == "device") {
    } else if (k == "type") {
      modbusOnly();
      const std::string t = text(node, where, k);
      typed = true;
      const std::optional<ValueType> type = ValueTypeNamed(t);
      if (!type)
        fail(line, where, "type \"" + t + "\" is not int16, uint16, int32, uint32 or float32");
      c.type = *type;
    } else if (k == "word_order") {
      modbusOnly();
      const std::string t = text(node, where, k);
      if (t != "big" && t != "little")
        fail(line, where, "word_order \"" + t + "\" is not big (high word first) or little");
      c.lowWordFirst = t == "little";
    } else if (k == "read" || k == "write") {
      scpiOnly();
      (k == "read" ? c.readCommand : c.writeCommand) = text(node, where, k);
      if (k == "write" && c.writeCommand.find("{value}") == std::string::npos)
        fail(line, where, "the write command needs \"{value}\" where the value goes");
    } else {
      scaleOrAlarmKey(c, k, node, where);
    }
  }

  // The keys of a channel's scale, limits, units and alarm.
  void scaleOrAlarmKey(MapChannel& c, std::string_view k, const toml::node& node,
                       const std::string& where) const {
    const int line = lineOf(node);
    if (k == "scale") {
      c.scale = number(node, where, k);
      if (c.scale == 0) fail(line, where, "\"scale\" must not be 0");
    } else if (k == "offset") {
      c.offset = number(node, where, k);
    } else if (k == "min") {
      c.min = number(node, where, k);
    } else if (k == "max") {
      c.max = number(node, where, k);
    } else if (k == "high") {
      c.high = number(node, where, k);
    } else if (k == "low") {
      c.low = number(node, where, k);
    } else if (k == "units") {
      c.units = text(node, where, k);
      if (c.units.size() > kChannelNameLength || c.units.find(' ') != std::string::npos)
        fail(line, where, "units are at most 13 characters without blanks");
    } else if (k == "tag") {
      c.tag = text(node, where, k);
      if (c.tag.empty() || c.tag.find_first_of(", ") != std::string::npos)
        fail(line, where, "a tag is a name without blanks or commas");
    } else {
      fail(line, where, "unknown key \"" + std::string(k) + "\"");
    }
  }

  // What a channel's keys must make together.
  void checkChannel(MapChannel& c, const MapDevice& d, const std::string& where, bool typed) const {
    if (d.isModbus()) {
      if (c.table == ModbusTable::kNone) {
        fail(c.line, where,
             "needs one of coil, discrete_input, input_register or holding_register");
      }
      const bool bits = c.table == ModbusTable::kCoil || c.table == ModbusTable::kDiscreteInput;
      if (bits && typed) fail(c.line, where, "a coil or discrete input takes no type");
      if (!bits && !typed) c.type = ValueType::kUint16;
      if (c.address + c.wordCount() - 1 > 65535)
        fail(c.line, where, "the value runs past register 65535");
    } else if (c.readCommand.empty() && c.writeCommand.empty()) {
      fail(c.line, where, "an SCPI channel needs \"read\", \"write\" or both");
    }
    if (c.min && c.max && *c.min > *c.max) fail(c.line, where, "\"min\" is above \"max\"");
    if ((c.min || c.max) && !c.writable())
      fail(c.line, where, "\"min\" and \"max\" limit writes; this channel is read-only");
    if (c.hasAlarm() && !c.readable())
      fail(c.line, where, "an alarm needs a channel that can be read");
    if (!c.tag.empty() && !c.hasAlarm()) fail(c.line, where, "\"tag\" needs \"high\" or \"low\"");
  }
};

bool validName(std::string_view name) {
  if (name.empty() || name.size() > kChannelNameLength) return false;
  for (char c : name) {
    if (c <= ' ' || c == ',' || c == '=' || static_cast<unsigned char>(c) >= 0x7f) return false;
  }
  return true;
}

// A table's entries in the order the file gives them (the table itself
// keeps them sorted by name).
std::vector<std::pair<const toml::key*, const toml::node*>> inFileOrder(const toml::table& table) {
  std::vector<std::pair<const toml::key*, const toml::node*>> entries;
  for (auto&& [key, node] : table) entries.emplace_back(&key, &node);
  std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
    return a.first->source().begin < b.first->source().begin;
  });
  return entries;
}

std::string stem(std::string_view path) {
  const size_t slash = path.find_last_of("/\\");
  if (slash != std::string_view::npos) path = path.substr(slash + 1);
  const size_t dot = path.rfind('.');
  if (dot != std::string_view::npos && dot > 0) path = path.substr(0, dot);
  return std::string(path.substr(0, kSetupNameLength));
}

}  // namespace

std::string MapDevice::address() const {
  switch (protocol) {
    case MapProtocol::kModbusTcp:
    case MapProtocol::kScpiTcp:
      return "tcp://" + host + ":" + std::to_string(port);
    case MapProtocol::kModbusRtu:
    case MapProtocol::kScpiSerial:
      break;
  }
  return serial.path;
}

bool MapChannel::readable() const { return table != ModbusTable::kNone || !readCommand.empty(); }

bool MapChannel::writable() const {
  return table == ModbusTable::kCoil || table == ModbusTable::kHoldingRegister ||
         !writeCommand.empty();
}

int MapChannel::wordCount() const {
  return type == ValueType::kInt32 || type == ValueType::kUint32 || type == ValueType::kFloat32 ? 2
                                                                                                : 1;
}

const MapChannel* IoMap::find(std::string_view name) const {
  const auto it = index_.find(std::string(name));
  return it == index_.end() ? nullptr : &channels[it->second];
}

std::string IoMap::setupName() const { return stem(path); }

std::string IoMap::summary() const {
  std::string text;
  for (const MapDevice& d : devices) {
    for (const MapChannel& c : channels) {
      if (&devices[c.device] != &d) continue;
      text += "  " + std::to_string(d.number) + formatNumber(c.number, "0000");
      const bool digital = c.table == ModbusTable::kCoil || c.table == ModbusTable::kDiscreteInput;
      text += std::string(" E=1 M=") + (digital ? "D" : "A") + " N=" + c.name;
      if (!c.units.empty()) text += " U=" + c.units;
      text += "\r\n";
    }
  }
  return text;
}

bool ParseIoMap(std::string_view text, std::string_view fileName, IoMap& map, std::string* error) {
  map = IoMap{};
  map.path = std::string(fileName);
  Reader reader(fileName);
  try {
    const toml::table root = reader.parse(text);
    for (auto&& [key, node] : root) {
      if (key.str() != "device" && key.str() != "channel") {
        reader.fail(Reader::lineOf(node), "",
                    "unknown table \"" + std::string(key.str()) +
                        "\" (the map has device.NAME "
                        "and channel.NAME tables)");
      }
      if (!node.is_table())
        reader.fail(Reader::lineOf(node), "", "\"" + std::string(key.str()) + "\" must be a table");
    }
    if (const toml::table* devices = root["device"].as_table()) {
      for (auto&& [keyAt, nodeAt] : inFileOrder(*devices)) {
        const toml::key& key = *keyAt;
        const toml::node& node = *nodeAt;
        MapDevice d;
        d.name = std::string(key.str());
        d.line = static_cast<int>(key.source().begin.line);
        if (!validName(d.name))
          reader.fail(d.line, "device " + d.name, "a name has 1-13 characters, no blanks");
        if (!node.is_table()) reader.fail(d.line, "device " + d.name, "must be a table");
        if (static_cast<int>(map.devices.size()) >= kMaxDevices)
          reader.fail(d.line, "device " + d.name, "a map has at most 99 devices");
        reader.device(d, *node.as_table());
        d.number = static_cast<int>(map.devices.size()) + 1;
        map.devices.push_back(std::move(d));
      }
    }
    if (const toml::table* channels = root["channel"].as_table()) {
      std::vector<int> counts(map.devices.size(), 0);
      for (auto&& [keyAt, nodeAt] : inFileOrder(*channels)) {
        const toml::key& key = *keyAt;
        const toml::node& node = *nodeAt;
        MapChannel c;
        c.name = std::string(key.str());
        c.line = static_cast<int>(key.source().begin.line);
        if (!validName(c.name)) {
          reader.fail(c.line, "channel " + c.name,
                      "a channel name has 1-13 characters, no blanks, commas or \"=\"");
        }
        if (!node.is_table()) reader.fail(c.line, "channel " + c.name, "must be a table");
        reader.channel(c, *node.as_table(), map);
        if (++counts[c.device] > kMaxChannelsPerDevice)
          reader.fail(c.line, "channel " + c.name, "a device has at most 9999 channels");
        c.number = counts[c.device];
        map.index_.emplace(c.name, map.channels.size());
        map.channels.push_back(std::move(c));
      }
    }
    if (map.channels.empty()) reader.fail(0, "", "the map names no channel");
  } catch (const TomlFileFault& e) {
    if (error) *error = e.text;
    map = IoMap{};
    return false;
  }
  return true;
}

bool LoadIoMapFile(const FileSystem& files, const std::string& path, IoMap& map,
                   std::string* error) {
  std::string text;
  std::string readError;
  if (!readTextFile(files, path, text, &readError)) {
    if (error) *error = "cannot read the I/O map " + path + ": " + readFailureReason(readError);
    return false;
  }
  return ParseIoMap(text, path, map, error);
}

bool EncodeRegisters(const MapChannel& c, double value, uint16_t words[2], std::string* why) {
  words[0] = words[1] = 0;
  if (c.table == ModbusTable::kCoil || c.table == ModbusTable::kDiscreteInput) {
    words[0] = value != 0 ? 1 : 0;
    return true;
  }
  const double raw = (value - c.offset) / c.scale;
  if (!std::isfinite(raw)) {
    if (why) *why = "the value is not a finite number";
    return false;
  }
  uint32_t bits = 0;
  const auto fits = [&](double low, double high) {
    const double r = std::nearbyint(raw);
    if (r < low || r > high) {
      if (why) *why = "the raw value " + MapNumberText(r) + " does not fit the register's type";
      return false;
    }
    return true;
  };
  switch (c.type) {
    case ValueType::kBit:
      words[0] = raw != 0 ? 1 : 0;
      return true;
    case ValueType::kInt16:
      if (!fits(-32768, 32767)) return false;
      words[0] = static_cast<uint16_t>(static_cast<int16_t>(std::nearbyint(raw)));
      return true;
    case ValueType::kUint16:
      if (!fits(0, 65535)) return false;
      words[0] = static_cast<uint16_t>(std::nearbyint(raw));
      return true;
    case ValueType::kInt32:
      if (!fits(-2147483648.0, 2147483647.0)) return false;
      bits = static_cast<uint32_t>(static_cast<int32_t>(std::nearbyint(raw)));
      break;
    case ValueType::kUint32:
      if (!fits(0, 4294967295.0)) return false;
      bits = static_cast<uint32_t>(std::nearbyint(raw));
      break;
    case ValueType::kFloat32: {
      if (std::fabs(raw) > 3.4028234663852886e38) {
        if (why) *why = "the raw value does not fit a float32";
        return false;
      }
      const float f = static_cast<float>(raw);
      std::memcpy(&bits, &f, sizeof bits);
      break;
    }
  }
  const uint16_t high = static_cast<uint16_t>(bits >> 16);
  const uint16_t low = static_cast<uint16_t>(bits & 0xffff);
  words[0] = c.lowWordFirst ? low : high;
  words[1] = c.lowWordFirst ? high : low;
  return true;
}

double DecodeRegisters(const MapChannel& c, const uint16_t words[2]) {
  double raw = 0;
  const uint32_t bits = c.lowWordFirst ? (uint32_t{words[1]} << 16) | words[0]
                                       : (uint32_t{words[0]} << 16) | words[1];
  switch (c.type) {
    case ValueType::kBit:
      return words[0] != 0 ? 1 : 0;
    case ValueType::kInt16:
      raw = static_cast<int16_t>(words[0]);
      break;
    case ValueType::kUint16:
      raw = words[0];
      break;
    case ValueType::kInt32:
      raw = static_cast<int32_t>(bits);
      break;
    case ValueType::kUint32:
      raw = bits;
      break;
    case ValueType::kFloat32: {
      float f = 0;
      std::memcpy(&f, &bits, sizeof f);
      raw = f;
      break;
    }
  }
  return raw * c.scale + c.offset;
}

std::string MapNumberText(double value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::general, 10);
  return std::string(text, end.ptr);
}

bool WithinLimits(const MapChannel& c, double value, std::string* why) {
  if ((c.min && value < *c.min) || (c.max && value > *c.max)) {
    if (why)
      *why = c.name + ": " + MapNumberText(value) + " is outside the map's range " +
             (c.min ? MapNumberText(*c.min) : "-inf") + " to " +
             (c.max ? MapNumberText(*c.max) : "inf") + "; nothing was written";
    return false;
  }
  return true;
}

std::string FillTemplate(std::string_view command, double value) {
  std::string out;
  const std::string number = MapNumberText(value);
  for (size_t i = 0; i < command.size();) {
    if (command.substr(i, 7) == "{value}") {
      out += number;
      i += 7;
    } else {
      out += command[i++];
    }
  }
  return out;
}

}  // namespace tavrix
