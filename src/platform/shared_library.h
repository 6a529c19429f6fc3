// A library loaded into the process at run time, and the functions it
// exports by name.
#pragma once

#include <memory>
#include <string>

namespace tavrix::platform {

class SharedLibrary {
 public:
  // Loads the library at `path` (a bare name is looked for where the system
  // looks for libraries); nullptr with the system's reason in `error`.
  static std::unique_ptr<SharedLibrary> open(const std::string& path, std::string* error);
  ~SharedLibrary();
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  // The exported function of exactly this name, or nullptr.
  void* function(const std::string& name) const;

 private:
  explicit SharedLibrary(void* handle) : handle_(handle) {}
  void* handle_;
};

}  // namespace tavrix::platform
