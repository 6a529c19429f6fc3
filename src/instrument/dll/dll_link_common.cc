#include "instrument/dll/dll_link.h"

namespace tavrix {

std::string SetupSummaryPath(std::string_view setupFile) {
  const size_t name = setupFile.find_last_of("/\\");
  const size_t dot = setupFile.rfind('.');
  const bool hasExtension =
      dot != std::string_view::npos && (name == std::string_view::npos || dot > name);
  return std::string(hasExtension ? setupFile.substr(0, dot) : setupFile) + ".sum";
}

}  // namespace tavrix
