// What a program's entry point hands the parts that work on a person's
// behalf: the machine's file system, for the files a person names, and the
// data root the runs keep their data under. Nothing else reaches the disk
// or decides the data root.
#pragma once

#include <string>

namespace tavrix {

class FileSystem;

struct Host {
  FileSystem& files;
  std::string dataRoot;
};

}  // namespace tavrix
