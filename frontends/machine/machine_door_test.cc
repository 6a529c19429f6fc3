#include "machine_door.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "platform/files.h"

namespace tavrix {
namespace {

// Sets an environment variable for the life of the object and restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(DefaultDataRoot, PrefersTavrixHomeThenTheUsersHome) {
  {
    ScopedEnv tavrix("TAVRIX_HOME", "/opt/tavrix-data");
    ScopedEnv home("HOME", "/home/op");
    EXPECT_EQ(defaultDataRoot(), "/opt/tavrix-data");
  }
  // Without it: on Windows the rig PC's data folder, elsewhere the user's.
  {
    ScopedEnv tavrix("TAVRIX_HOME", "");
    ScopedEnv home("HOME", "/home/op");
    EXPECT_EQ(defaultDataRoot(), platform::hasDriveLetters() ? "c:/corvane" : "/home/op/.tavrix");
  }
  {
    ScopedEnv tavrix("TAVRIX_HOME", nullptr);
    ScopedEnv home("HOME", nullptr);
    EXPECT_EQ(defaultDataRoot(), platform::hasDriveLetters() ? "c:/corvane" : "/tmp/tavrix");
  }
}

}  // namespace
}  // namespace tavrix
