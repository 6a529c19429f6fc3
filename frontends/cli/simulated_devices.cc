#include "simulated_devices.h"

#include <chrono>
#include <memory>
#include <thread>

#include "common/clock.h"
#include "instrument/simdevices/scpi_instrument_server.h"
#include "instrument/tcp/rig_protocol.h"
#include "platform/console.h"
#include "platform/sockets.h"
#ifndef _WIN32
#include "instrument/simdevices/modbus_oven_server.h"
#endif

namespace tavrix {

int ServeSimulatedDevice(const std::string& kind, const std::string& listen, std::FILE* out,
                         std::FILE* err, const std::atomic<bool>* stop) {
  const auto fail = [err](const std::string& text) {
    std::fprintf(err, "tavrix-cli rig: %s\n", text.c_str());
    return 2;
  };
  std::string host;
  uint16_t port = 0;
  if (!ParseHostPort(listen, host, port)) {
    return fail("the address \"" + listen + "\" is not HOST:PORT");
  }
  // A simulated device takes no key: it is for this computer only.
  if (!platform::isLoopbackAddress(host)) {
    return fail("a simulated device listens on a loopback address (127.x.x.x) only, not " + host);
  }
  std::string error;
  SystemClock clock;
  std::atomic<bool> stopped{false};
  const platform::StopRequests stopRequests([&stopped](int) { stopped = true; });
  std::unique_ptr<ScpiInstrumentServer> scpi;
#ifndef _WIN32
  std::unique_ptr<ModbusOvenServer> oven;
#endif
  std::string what;
  if (kind == "scpi") {
    scpi = std::make_unique<ScpiInstrumentServer>();
    if (!scpi->start(host, port, &error)) return fail(error);
    port = scpi->port();
    what = "a simulated SCPI power supply";
  } else {
#ifdef _WIN32
    return fail(
        "this build has no Modbus support (libmodbus is left out of the Windows builds); "
        "use the Linux build to simulate a Modbus device");
#else
    oven = std::make_unique<ModbusOvenServer>(clock);
    if (!oven->start(host, port, &error)) return fail(error);
    port = oven->port();
    what = "a simulated Modbus oven";
#endif
  }
  std::fprintf(out, "tavrix-cli rig: serving %s on %s:%u\n", what.c_str(), host.c_str(), port);
  std::fflush(out);
  while (!stopped && (stop == nullptr || !*stop)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return 0;
}

}  // namespace tavrix
