// Files that only their owner may read, such as a shared key.
#pragma once

#include <string>
#include <string_view>

namespace tavrix::platform {

// True when users other than the owner may read or write the file at `path`
// (POSIX permission bits). Windows keeps a file in a user's own folders
// private through its folder's access list, so there it is always false.
bool othersMayAccess(const std::string& path);

// Writes `content` to a new file at `path` that only its owner may read
// and write. An existing file is left alone and is an error. Empty on
// success, else the system's reason.
std::string writeNewPrivateFile(const std::string& path, std::string_view content);

}  // namespace tavrix::platform
