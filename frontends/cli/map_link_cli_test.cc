// tavrix-cli with I/O maps: runs over a map (from the command line and from
// the settings file), the map served to another run through a rig server
// with a key, lint against a map, and the simulated devices' options.
#include <atomic>
#include <thread>

#include "cli_test_support.h"
#include "common/clock.h"
#include "instrument/backends/link_backends.h"
#include "instrument/simdevices/modbus_oven_server.h"
#include "instrument/simdevices/scpi_instrument_server.h"
#include "instrument/tcp/library_service.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_server.h"
#include "simulated_devices.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

class MapCliTest : public CliTestBase {
 protected:
  MapCliTest() {
    std::string error;
    EXPECT_TRUE(oven_.start("127.0.0.1", 0, &error)) << error;
    EXPECT_TRUE(psu_.start("127.0.0.1", 0, &error)) << error;
    map_ = File("oven rig.toml",
                "[device.io1]\nmodbus = \"tcp://127.0.0.1:" + std::to_string(oven_.port()) +
                    "\"\n[device.psu]\nscpi = \"tcp://127.0.0.1:" + std::to_string(psu_.port()) +
                    "\"\n"
                    "[channel.OVEN]\ndevice = \"io1\"\ninput_register = 3\ntype = \"int16\"\n"
                    "scale = 0.1\n"
                    "[channel.HEATER]\ndevice = \"io1\"\nholding_register = 10\n"
                    "type = \"float32\"\nword_order = \"little\"\nmin = 0\nmax = 100\n"
                    "[channel.V]\ndevice = \"psu\"\nwrite = \"VOLT {value}\"\n"
                    "read = \"MEAS:VOLT?\"\n");
    sequence_ = File("heat.wts",
                     "SEND HEATER, 40\r\nSEND V, 9\r\nCHECK OVEN < 25, HOT\r\n"
                     "SEND HEATER, 140\r\nHOT:\r\n");
  }

  SystemClock clock_;
  ModbusOvenServer oven_{clock_};
  ScpiInstrumentServer psu_;
  std::string map_;
  std::string sequence_;
};

TEST_F(MapCliTest, ARunOverAMapFromTheCommandLineOrTheSettingsFile) {
  const std::string error = "HEATER: 140 is outside the map's range 0 to 100; nothing was written";
  EXPECT_EQ(Cli({"run", "--virtual-time", "--link", "map:" + map_, "--trace", "-", sequence_}),
            kExitSequenceError);
  EXPECT_NE(err_.find(error), std::string::npos) << err_;
  EXPECT_NE(out_.find(R"("ev":"iml","dev":1,"cmd":"WRI HEATER 40","reply":null})"),
            std::string::npos)
      << out_;
  EXPECT_NE(out_.find(R"("name":"psu","dev":2,)"), std::string::npos) << out_;
  EXPECT_EQ(oven_.heater(), 40);
  EXPECT_EQ(psu_.voltage(), 9);

  const std::string settings = File("map.cfg", "link = map\nio_map = " + map_ + "\n");
  EXPECT_EQ(Cli({"run", "--virtual-time", "--instrument-settings", settings, sequence_}),
            kExitSequenceError);
  EXPECT_NE(err_.find(error), std::string::npos) << err_;

  // A map with a mistake, a map that is not there, a device that is not there.
  EXPECT_EQ(
      Cli({"run", "--link", "map:" + File("bad.toml", "[device.x]\nmodbus = 1\n"), sequence_}),
      kExitUsage);
  EXPECT_NE(err_.find("bad.toml line 2: device x: \"modbus\" must be a text"), std::string::npos)
      << err_;
  EXPECT_EQ(Cli({"run", "--link", "map", sequence_}), kExitUsage);
  EXPECT_NE(err_.find("the map link needs a map file"), std::string::npos) << err_;
  const uint16_t psuPort = psu_.port();
  psu_.stop();
  EXPECT_EQ(Cli({"run", "--link", "map:" + map_, sequence_}), kExitUsage);
  EXPECT_NE(err_.find("(psu (tcp://127.0.0.1:" + std::to_string(psuPort) +
                      "): connection refused: 127.0.0.1:" + std::to_string(psuPort) + ")"),
            std::string::npos)
      << err_;
}

TEST_F(MapCliTest, AMapServedThroughAKeyedRigServer) {
  const std::string key = Path("link.key");
  std::string error;
  ASSERT_TRUE(WriteNewLinkKey(key, &error)) << error;
  std::string keyBytes;
  ASSERT_TRUE(LoadLinkKey(testFiles(), key, keyBytes, &error)) << error;
  RigServer server;
  server.requireKey(keyBytes);
  auto library = MakeLinkLibrary("map:" + map_, clock_, InstrumentSettings{}, testFiles(), &error);
  ASSERT_NE(library, nullptr) << error;
  auto service = std::make_unique<LibraryService>(std::move(library), testFiles());
  ASSERT_TRUE(service->open(&error)) << error;
  server.serveLibrary(std::move(service));
  ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
  std::atomic<bool> stop{false};
  std::thread serving([&] { server.serve(stop); });
  EXPECT_EQ(
      Cli({"run", "--virtual-time", "--link", "tcp://127.0.0.1:" + std::to_string(server.port()),
           "--link-key", key, "--setup", map_, sequence_}),
      kExitSequenceError);
  EXPECT_NE(err_.find("HEATER: 140 is outside the map's range 0 to 100; nothing was written"),
            std::string::npos)
      << err_;
  EXPECT_EQ(oven_.heater(), 40);
  stop = true;
  serving.join();
}

TEST_F(MapCliTest, LintNamesChannelsTheMapLacksAndWritesItCannotMake) {
  const std::string lines =
      File("lint.wts",
           "SEND OVEN, 3\r\nWAIT TEMP9 > 3\r\nRAMP HEATER, 0 TO 5 OVER 10 IN 10\r\n"
           "CHECK V > 1, X\r\nX:\r\n"
           "MT_RAMP 20 TO 30 OVER 10 IN 5 AT OVEN USING OVEN WITH RATE 1\r\n");
  EXPECT_EQ(Cli({"lint", "--link", "map:" + map_, lines}), 1);
  EXPECT_EQ(out_, lines + ":1: error: SEND writes OVEN, which the I/O map makes read-only\n" +
                      lines + ":2: error: Channel TEMP9 is not in the I/O map " + map_ + "\n" +
                      lines +
                      ":6: error: MT_RAMP writes OVEN, which the I/O map makes read-only\n");
  EXPECT_EQ(Cli({"lint", lines}), 0);
  EXPECT_EQ(Cli({"lint", "--link", "tcp://127.0.0.1:1", lines}), 2);
  EXPECT_NE(err_.find("--link map:FILE"), std::string::npos) << err_;
  EXPECT_EQ(Cli({"lint", "--link", "map:" + Path("none.toml"), lines}), 2);
  EXPECT_NE(err_.find("cannot read the I/O map"), std::string::npos) << err_;
}

// The shell on a map: its channel table starts with the devices, each with
// what it said it is when the link opened; lines typed reach the device.
TEST_F(MapCliTest, TheShellShowsEachDeviceAndWhatItSaidItIs) {
  EXPECT_EQ(
      Cli({"shell", "--virtual-time", "--link", "map:" + map_}, ".channels\nSEND V, 7\n.read V\n"),
      0)
      << err_;
  const std::string port = std::to_string(psu_.port());
  EXPECT_NE(out_.find("device psu (tcp://127.0.0.1:" + port + "): TAVRIX,SIM-PSU,0,1.0\n"),
            std::string::npos)
      << out_;
  EXPECT_NE(out_.find("device io1 (tcp://127.0.0.1:" + std::to_string(oven_.port()) + ")\n"),
            std::string::npos)
      << out_;
  EXPECT_LT(out_.find("device psu"), out_.find("HEATER ")) << out_;
  // The supply's output is off, so it measures no volts whatever it is set to.
  EXPECT_NE(out_.find("\nV = 0\n"), std::string::npos) << out_;
  EXPECT_EQ(psu_.voltage(), 7);
}

TEST_F(MapCliTest, SimulatedDevicesListenOnLoopbackOnly) {
  EXPECT_EQ(Cli({"rig", "--simulate", "modbus", "--listen", "10.1.2.3:1502"}), kExitUsage);
  EXPECT_EQ(err_,
            "tavrix-cli rig: a simulated device listens on a loopback address (127.x.x.x) only, "
            "not 10.1.2.3\n");
  EXPECT_EQ(Cli({"rig", "--simulate", "plc"}), kExitUsage);
  // A simulated device that is told to stop at once.
  const std::atomic<bool> stop{true};
  Captured out;
  Captured err;
  EXPECT_EQ(ServeSimulatedDevice("scpi", "127.0.0.1:0", out.stream(), err.stream(), &stop), 0);
  EXPECT_EQ(
      out.take().rfind("tavrix-cli rig: serving a simulated SCPI power supply on 127.0.0.1:", 0),
      0u);
}

}  // namespace
}  // namespace tavrix
