#include "instrument/backends/link_backends.h"

#include <gtest/gtest.h>

#include "common/civil_time.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

TEST(LinkBackends, LinkSpecsNameTheBackend) {
  VirtualClock clock(1'767'225'600LL * kMicrosPerSecond);  // 2026-01-01 00:00:00
  EventLoop events(clock);
  Trace trace(clock);
  MemoryFileSystem files;
  PathMap paths(files.dataRoot());
  std::string error;
  EXPECT_NE(MakeInstrument(events, trace, {}, "sim", files, paths, &error), nullptr);
  EXPECT_NE(MakeInstrument(events, trace, {}, "", files, paths, &error), nullptr);
  EXPECT_NE(MakeInstrument(events, trace, {}, "tcp://127.0.0.1:5025", files, paths, &error),
            nullptr);
  EXPECT_EQ(MakeInstrument(events, trace, {}, "tcp://nohost", files, paths, &error), nullptr);
  EXPECT_EQ(error, "the link \"tcp://nohost\" is not tcp://HOST:PORT");
  EXPECT_EQ(MakeInstrument(events, trace, {}, "serial:1", files, paths, &error), nullptr);
  EXPECT_EQ(error, "unknown link \"serial:1\": use sim, dll, tcp://HOST:PORT or map:FILE");
}

}  // namespace
}  // namespace tavrix
