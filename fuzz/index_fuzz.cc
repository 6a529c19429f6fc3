// An index file of arbitrary bytes: the next name is issued from it twice
// (each issue rewrites the file, so the second reads what the first wrote).

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "common/paths.h"
#include "indexing/index_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  static const std::string root = [] {
    std::string dir = "/tmp/tavrix-fuzz-index-" + std::to_string(getpid());
    mkdir(dir.c_str(), 0700);
    return dir;
  }();
  std::ofstream(root + "/runs.idx", std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  PathMap paths(root);
  paths.setDrive('c', root);
  IndexFileTable table(paths);
  std::string message, reason;
  table.add("c:\\runs.idx", "C:\\DATA\\RUN???.DAT", 999, &message);
  const Micros now = 1'767'225'600LL * kMicrosPerSecond;
  table.issue(1, now, &message, &reason);
  table.issue(1, now + kMicrosPerSecond, &message, &reason);
  return 0;
}
