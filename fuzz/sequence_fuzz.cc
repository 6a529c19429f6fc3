// A sequence file of arbitrary bytes through the reader, the splitter and the
// dispatcher with every command registered, in virtual time with no hardware.

#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "engine/engine.h"
#include "fuzz_support.h"
#include "machine_door.h"

// Sequences may copy, write and delete files (COPYFILE, LOGONCE, FILEDELETE,
// INDEXINIT...): run them in a folder of their own, with the data root there
// too, so that nothing outside it can be touched.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string& folder = tavrix::fuzz::ScratchFolder();
  if (chdir(folder.c_str()) != 0) std::abort();
  setenv("TAVRIX_HOME", folder.c_str(), 1);
  setenv("HOME", folder.c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  const std::string path = fuzz::ScratchFile(data, size, ".wts");
  fuzz::FuzzOperator op;
  EngineConfig config;
  config.clock = std::make_unique<VirtualClock>(1'767'225'600LL * kMicrosPerSecond);
  config.files = std::make_unique<LocalFileSystem>(defaultDataRoot());
  config.op = &op;
  const auto engine = BuildEngine(std::move(config));
  Sequencer& seq = engine->sequencer();
  op.watch(seq.runEvents());
  op.onTooManyLines = [&seq] { seq.requestAbort(); };
  std::string error;
  if (seq.prepareFile(path, &error)) seq.start();
  return 0;
}
