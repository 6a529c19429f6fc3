// UTF-8 <-> UTF-16 for the wide Windows functions.
#pragma once

#include <string>

namespace tavrix::platform {

std::wstring widen(const std::string& utf8);
std::string narrow(const std::wstring& utf16);
// Maps the thread's last Windows error to the nearest errno value.
int lastErrorNumber();

}  // namespace tavrix::platform
