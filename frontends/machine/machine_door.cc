#include "machine_door.h"

#include <cstdlib>

#include "common/file_system.h"
#include "common/paths.h"
#include "platform/files.h"

namespace tavrix {

namespace {

std::string nonEmptyEnv(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

FileSystem& localFiles() {
  static LocalFileSystem files;
  return files;
}

std::string defaultDataRoot() {
  const std::string home = nonEmptyEnv("TAVRIX_HOME");
  if (!home.empty()) return home;
  // A rig PC keeps its data where the rig's software always has.
  if (platform::hasDriveLetters()) return "c:/corvane";
  const std::string user = nonEmptyEnv("HOME");
  if (!user.empty()) return join(user, ".tavrix");
  return "/tmp/tavrix";
}

}  // namespace tavrix
