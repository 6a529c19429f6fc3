#include "instrument/iomap/io_map.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace tavrix {
namespace {

constexpr std::string_view kMap = R"(# a rig of common parts
[device.io1]
modbus = "tcp://127.0.0.1:1502"
unit = 3
[device.psu]
scpi = "tcp://127.0.0.1:5025"
timeout_ms = 250
[device.dmm]
scpi = "serial:///dev/ttyUSB0?baud=115200&parity=E"

[channel.OVEN]
device = "io1"
input_register = 3
type = "int16"
scale = 0.1
units = "degC"
high = 95
tag = "OVENHOT"

[channel.HEATER]
device = "io1"
holding_register = 10
type = "float32"
word_order = "little"
min = 0
max = 100

[channel.DOOR]
device = "io1"
discrete_input = 4

[channel.PSU_V]
device = "psu"
write = "VOLT {value}"
read = "MEAS:VOLT?"
units = "V"

[channel.AMPS]
device = "dmm"
read = "MEAS:CURR?"
)";

TEST(IoMap, ReadsDevicesAndChannelsInFileOrderAndMakesTheChannelTable) {
  IoMap map;
  std::string error;
  ASSERT_TRUE(ParseIoMap(kMap, "/rigs/oven rig.toml", map, &error)) << error;
  ASSERT_EQ(map.devices.size(), 3u);
  EXPECT_EQ(map.devices[0].name, "io1");
  EXPECT_EQ(map.devices[0].number, 1);
  EXPECT_EQ(map.devices[0].unit, 3);
  EXPECT_EQ(map.devices[0].address(), "tcp://127.0.0.1:1502");
  EXPECT_EQ(map.devices[1].name, "psu");
  EXPECT_EQ(map.devices[1].timeoutMs, 250);
  EXPECT_EQ(map.devices[2].protocol, MapProtocol::kScpiSerial);
  EXPECT_EQ(map.devices[2].serial.path, "/dev/ttyUSB0");
  EXPECT_EQ(map.devices[2].serial.baud, 115200);
  EXPECT_EQ(map.devices[2].serial.parity, 'E');

  const MapChannel* heater = map.find("HEATER");
  ASSERT_NE(heater, nullptr);
  EXPECT_EQ(heater->table, ModbusTable::kHoldingRegister);
  EXPECT_EQ(heater->address, 10);
  EXPECT_EQ(heater->type, ValueType::kFloat32);
  EXPECT_TRUE(heater->lowWordFirst);
  EXPECT_TRUE(heater->writable());
  EXPECT_EQ(heater->number, 2);
  const MapChannel* oven = map.find("OVEN");
  ASSERT_NE(oven, nullptr);
  EXPECT_FALSE(oven->writable());
  EXPECT_EQ(oven->alarmName(), "OVENHOT");
  EXPECT_FALSE(map.find("DOOR")->writable());
  EXPECT_EQ(map.find("DOOR")->type, ValueType::kBit);
  EXPECT_TRUE(map.find("PSU_V")->writable());
  EXPECT_FALSE(map.find("AMPS")->writable());
  EXPECT_EQ(map.find("oven"), nullptr);

  EXPECT_EQ(map.setupName(), "oven rig");
  EXPECT_EQ(map.summary(),
            "  10001 E=1 M=A N=OVEN U=degC\r\n"
            "  10002 E=1 M=A N=HEATER\r\n"
            "  10003 E=1 M=D N=DOOR\r\n"
            "  20001 E=1 M=A N=PSU_V U=V\r\n"
            "  30001 E=1 M=A N=AMPS\r\n");
}

TEST(IoMap, MistakesNameTheFileTheLineAndTheKey) {
  const std::string device = "[device.io1]\nmodbus = \"tcp://127.0.0.1:1502\"\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {device + "[channel.A]\ndevice = \"io1\"\nholding_register = 1\ntyp = \"int16\"\n",
       "m.toml line 6: channel A: unknown key \"typ\""},
      {device + "[channel.A]\ndevice = \"io1\"\nholding_register = 1\ntype = \"int8\"\n",
       "m.toml line 6: channel A: type \"int8\" is not int16, uint16, int32, uint32 or float32"},
      {device + "[channel.A]\ndevice = \"io2\"\ncoil = 1\n",
       "m.toml line 4: channel A: no device \"io2\" in the map"},
      {device + "[channel.A]\ncoil = 1\n", "m.toml line 3: channel A: needs \"device\""},
      {device + "[channel.A]\ndevice = \"io1\"\n",
       "m.toml line 3: channel A: needs one of coil, discrete_input, input_register or "
       "holding_register"},
      {device + "[channel.A]\ndevice = \"io1\"\ninput_register = 1\nmax = 5\n",
       "m.toml line 3: channel A: \"min\" and \"max\" limit writes; this channel is read-only"},
      {device + "[channel.A]\ndevice = \"io1\"\ncoil = 70000\n",
       "m.toml line 5: channel A: \"coil\" must be a whole number from 0 to 65535"},
      {device + "[channel.A]\ndevice = \"io1\"\nholding_register = 1\nscale = 0\n",
       "m.toml line 6: channel A: \"scale\" must not be 0"},
      {device + "[channel.A]\ndevice = \"io1\"\nholding_register = 1\nread = \"X?\"\n",
       "m.toml line 6: channel A: \"read\" needs an SCPI device; io1 is Modbus"},
      {device + "[channel.TOO_LONG_A_NAME]\ndevice = \"io1\"\ncoil = 1\n",
       "m.toml line 3: channel TOO_LONG_A_NAME: a channel name has 1-13 characters, no blanks, "
       "commas or \"=\""},
      {"[device.psu]\nscpi = \"tcp://127.0.0.1\"\n",
       "m.toml line 2: device psu: \"tcp://127.0.0.1\" is not tcp://HOST:PORT"},
      {"[device.psu]\nscpi = \"tcp://127.0.0.1:5025\"\n[channel.V]\ndevice = \"psu\"\n"
       "write = \"VOLT\"\n",
       "m.toml line 5: channel V: the write command needs \"{value}\" where the value goes"},
      {"[device.psu]\nunit = 1\n",
       "m.toml line 1: device psu: needs a \"modbus\" or \"scpi\" address"},
      {"[device.io1]\nmodbus = \"tcp://127.0.0.1:1502\"\nmodbus = \"x\"\n",
       "m.toml line 3: Error while parsing key-value pair: cannot redefine existing string "
       "'modbus'"},
      {"[devices.io1]\n",
       "m.toml line 1: unknown table \"devices\" (the map has device.NAME and "
       "channel.NAME tables)"},
      {device, "m.toml: the map names no channel"},
  };
  for (const auto& [text, expected] : cases) {
    IoMap map;
    std::string error;
    EXPECT_FALSE(ParseIoMap(text, "m.toml", map, &error)) << text;
    EXPECT_EQ(error, expected) << text;
    EXPECT_TRUE(map.channels.empty());
  }
}

MapChannel Register(ValueType type, bool lowWordFirst = false, double scale = 1,
                    double offset = 0) {
  MapChannel c;
  c.name = "R";
  c.table = ModbusTable::kHoldingRegister;
  c.type = type;
  c.lowWordFirst = lowWordFirst;
  c.scale = scale;
  c.offset = offset;
  return c;
}

TEST(IoMap, ValuesTakeTheirWireFormAndBack) {
  struct Case {
    MapChannel channel;
    double value;
    uint16_t words[2];
  };
  const std::vector<Case> cases = {
      {Register(ValueType::kInt16, false, 0.1), -12.3, {0xff85, 0}},
      {Register(ValueType::kUint16, false, 1, -40), 0, {40, 0}},
      {Register(ValueType::kInt32), -2, {0xffff, 0xfffe}},
      {Register(ValueType::kInt32, true), 0x12345, {0x2345, 0x0001}},
      {Register(ValueType::kUint32), 4000000000.0, {0xee6b, 0x2800}},
      {Register(ValueType::kFloat32), 1.5, {0x3fc0, 0x0000}},
      {Register(ValueType::kFloat32, true), -2.25, {0x0000, 0xc010}},
  };
  for (const auto& c : cases) {
    uint16_t words[2] = {1, 1};
    std::string why;
    ASSERT_TRUE(EncodeRegisters(c.channel, c.value, words, &why)) << c.value << why;
    EXPECT_EQ(words[0], c.words[0]) << c.value;
    EXPECT_EQ(words[1], c.words[1]) << c.value;
    EXPECT_NEAR(DecodeRegisters(c.channel, words), c.value, 1e-9) << c.value;
  }
  uint16_t words[2];
  std::string why;
  EXPECT_FALSE(EncodeRegisters(Register(ValueType::kUint16), -1, words, &why));
  EXPECT_EQ(why, "the raw value -1 does not fit the register's type");
  EXPECT_FALSE(EncodeRegisters(Register(ValueType::kInt16, false, 0.1), 3276.8, words, &why));
  EXPECT_TRUE(EncodeRegisters(Register(ValueType::kInt16, false, 0.1), 3276.7, words, &why));
  EXPECT_FALSE(EncodeRegisters(Register(ValueType::kFloat32), 1e39, words, &why));

  MapChannel coil;
  coil.table = ModbusTable::kCoil;
  ASSERT_TRUE(EncodeRegisters(coil, 0.2, words, &why));
  EXPECT_EQ(words[0], 1);
  EXPECT_EQ(DecodeRegisters(coil, words), 1);

  MapChannel limited = Register(ValueType::kFloat32);
  limited.name = "HEATER";
  limited.min = 0;
  limited.max = 100;
  EXPECT_TRUE(WithinLimits(limited, 100, &why));
  EXPECT_FALSE(WithinLimits(limited, 100.5, &why));
  EXPECT_EQ(why, "HEATER: 100.5 is outside the map's range 0 to 100; nothing was written");
  EXPECT_EQ(FillTemplate("SOUR:VOLT {value};:OUTP ON", 12.5), "SOUR:VOLT 12.5;:OUTP ON");
}

}  // namespace
}  // namespace tavrix
