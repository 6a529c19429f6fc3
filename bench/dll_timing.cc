// The exchange rate through the vendor link library backend, measured
// against the stand-in libraries (Windows builds only): a command and its
// reply, through the __stdcall functions, many times over.

#include <string>

#include "instrument/dll/dll_link.h"
#include "instrument/link/instrument_settings.h"
#include "machine_door.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

const RegisterTiming kDllExchangeRate("dll_exchange", [] {
  InstrumentSettings settings;
  settings.libraryFolder = TAVRIX_STAND_IN_FOLDER;
  std::string error;
  auto link = MakeDllLink(settings, localFiles(), &error);
  if (!link) return Rows{{"exchanges through DllLink", error}};
  int16_t handle = 0;
  link->openInterface(handle);
  std::string reply(1999, '\0');
  constexpr int kExchanges = 20000;
  const double start = WallSeconds();
  for (int i = 0; i < kExchanges; ++i) {
    link->sendCommand(handle, 1, "VER", true);
    link->getReply(handle, 1, reply, true);
  }
  const double took = WallSeconds() - start;
  link->closeInterface(handle);
  return Rows{{"exchanges through DllLink (stand-ins)", Fixed(kExchanges / took, "/s", 0)}};
});

}  // namespace
}  // namespace tavrix::bench
