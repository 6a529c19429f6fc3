#include "platform/companion_programs.h"

namespace tavrix::platform {

namespace {

constexpr const char* kWindowsOnly = "other programs are reached only on Windows";

}  // namespace

bool hasCompanionPrograms() { return false; }

struct DdeClient::Instance {};

DdeClient::DdeClient(int timeoutMs) : timeoutMs_(timeoutMs) {}
DdeClient::~DdeClient() = default;

bool DdeClient::execute(std::string_view, std::string_view, std::string_view, std::string* error) {
  if (error) *error = kWindowsOnly;
  return false;
}

bool DdeClient::poke(std::string_view, std::string_view, std::string_view, std::string_view,
                     std::string* error) {
  if (error) *error = kWindowsOnly;
  return false;
}

std::optional<std::string> DdeClient::request(std::string_view, std::string_view, std::string_view,
                                              std::string* error) {
  if (error) *error = kWindowsOnly;
  return std::nullopt;
}

bool sendKeysToWindow(std::string_view, std::string_view, std::string* error) {
  if (error) *error = kWindowsOnly;
  return false;
}

bool startProgram(std::string_view, std::string* error) {
  if (error) *error = kWindowsOnly;
  return false;
}

}  // namespace tavrix::platform
