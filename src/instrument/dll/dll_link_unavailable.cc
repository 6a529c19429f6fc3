#include "instrument/dll/dll_link.h"

namespace tavrix {

std::unique_ptr<LinkLibrary> MakeDllLink(const InstrumentSettings& /*settings*/,
                                         const FileSystem& /*files*/, std::string* error) {
  if (error)
    *error =
        "the dll link loads the rig PC's link libraries and exists only in the Windows build; "
        "reach a rig PC through tcp://HOST:PORT";
  return nullptr;
}

}  // namespace tavrix
