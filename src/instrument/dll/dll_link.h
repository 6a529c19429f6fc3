// The rig PC's own link libraries behind the link library port: the
// instrument link library and the hardware setup library, loaded at start-up
// and called through their decorated __stdcall names. Only a Windows build
// has them; elsewhere MakeDllLink says so.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "instrument/link/instrument_settings.h"
#include "instrument/link/link_library.h"

namespace tavrix {

class FileSystem;

inline constexpr std::string_view kLinkDll = "dll";

// The setup summary the setup library produces for a setup: beside the
// setup file, with the extension ".sum".
std::string SetupSummaryPath(std::string_view setupFile);

// Loads both libraries named by `settings` (library_folder, link_library,
// setup_library) and resolves every function the program calls. nullptr and
// a message naming the file, and the function when one is missing, when
// that cannot be done. The setup summaries the setup library writes are
// read from `files`.
std::unique_ptr<LinkLibrary> MakeDllLink(const InstrumentSettings& settings,
                                         const FileSystem& files, std::string* error);

}  // namespace tavrix
