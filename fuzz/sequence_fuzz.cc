// A sequence file of arbitrary bytes through the reader, the splitter and the
// dispatcher with every command registered, in virtual time with no hardware.

#include <memory>

#include "engine/engine.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  const std::string path = fuzz::ScratchFile(data, size, ".wts");
  fuzz::FuzzOperator op;
  Engine engine(std::make_unique<VirtualClock>(1'767'225'600LL * kMicrosPerSecond), op);
  Sequencer& seq = engine.sequencer();
  op.onTooManyLines = [&seq] { seq.requestAbort(); };
  std::string error;
  if (seq.prepareFile(path, &error)) seq.pressRun();
  return 0;
}
