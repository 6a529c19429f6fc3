// The real disk for tests that work in scratch folders of their own. Test
// programs link the tests' support library for it; production code never
// does, and is handed the file system it works with instead.
#pragma once

#include <string>

#include "common/file_system.h"

namespace tavrix {

// The machine's file system without a data root.
FileSystem& testFiles();

// The data root the programs would take from this process's environment
// ($TAVRIX_HOME, else the user's).
std::string testDataRoot();

}  // namespace tavrix
