// An index file of arbitrary bytes: the next name is issued from it twice
// (each issue rewrites the file, so the second reads what the first wrote).

#include <string>

#include "common/file_system.h"
#include "common/paths.h"
#include "indexing/index_files.h"
#include "testing/memory_file_system.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  // In memory: the fuzzer's runs leave nothing on the disk.
  MemoryFileSystem files;
  const std::string root = files.dataRoot();
  files.put(root + "/runs.idx", std::string(reinterpret_cast<const char*>(data), size));
  PathMap paths(root);
  paths.setDrive('c', root);
  IndexFileTable table(files, paths);
  std::string message, reason;
  table.add("c:\\runs.idx", "C:\\DATA\\RUN???.DAT", 999, &message);
  const Micros now = 1'767'225'600LL * kMicrosPerSecond;
  table.issue(1, now, &message, &reason);
  table.issue(1, now + kMicrosPerSecond, &message, &reason);
  return 0;
}
