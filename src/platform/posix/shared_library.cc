#include "platform/shared_library.h"

#include <dlfcn.h>

namespace tavrix::platform {

std::unique_ptr<SharedLibrary> SharedLibrary::open(const std::string& path, std::string* error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    if (error) *error = why != nullptr ? why : "cannot load";
    return nullptr;
  }
  return std::unique_ptr<SharedLibrary>(new SharedLibrary(handle));
}

SharedLibrary::~SharedLibrary() { dlclose(handle_); }

void* SharedLibrary::function(const std::string& name) const {
  return dlsym(handle_, name.c_str());
}

}  // namespace tavrix::platform
