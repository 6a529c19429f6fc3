#include "testing/test_files.h"

#include "machine_door.h"

namespace tavrix {

FileSystem& testFiles() { return localFiles(); }

std::string testDataRoot() { return defaultDataRoot(); }

}  // namespace tavrix
