// The string helpers of module VBTAVRIX. File paths pass through them before
// files are opened and after they are closed, so that real encryption could
// be switched on here without touching a call site. They return their input
// unchanged.
#pragma once

#include <string>
#include <string_view>

namespace tavrix::vbtavrix {

// The helpers' key when the caller gives none.
inline constexpr std::string_view kDefaultKey = "VELDRAN";

// The key the helpers work with: `key` when it is not empty, else kDefaultKey.
std::string helperKey(std::string_view key);

// Pass-through: both return `text` unchanged, whatever the key.
std::string EncryptString(std::string_view text, std::string_view key = {});
std::string DecryptString(std::string_view text, std::string_view key = {});

}  // namespace tavrix::vbtavrix
