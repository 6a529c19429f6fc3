#include "instrument/dll/stand_in_rig.h"

#include <cstring>
#include <mutex>
#include <string>

#include "common/file_system.h"
#include "common/text_file.h"
#include "instrument/dll/dll_link.h"
#include "instrument/simrig/sim_link.h"

namespace tavrix {
namespace {

// One rig for the process, on the machine's clock, with the folder named by
// TAVRIX_RIG_DIR as the library's own directory.
struct Rig {
  SystemClock clock;
  // The library is a program of its own, loaded into its caller without a
  // file system to be handed: the machine's files are its files.
  LocalFileSystem files;
  SimLink link{clock, std::getenv("TAVRIX_RIG_DIR") != nullptr ? std::getenv("TAVRIX_RIG_DIR") : "",
               files};
  std::mutex mutex;
};

Rig& rig() {
  static Rig* instance = new Rig;
  return *instance;
}

// Runs `call` on a copy of the caller's buffer and copies the result back, so
// that the rig sees exactly the buffer the library was given.
template <typename Call>
int16_t withBuffer(char* bytes, int32_t length, Call call) {
  if (bytes == nullptr || length < 0) return static_cast<int16_t>(link_result::kNoMemory);
  std::string buffer(bytes, static_cast<size_t>(length));
  const int32_t result = call(buffer);
  std::memcpy(bytes, buffer.data(), buffer.size());
  return static_cast<int16_t>(result);
}

}  // namespace
}  // namespace tavrix

using namespace tavrix;

extern "C" {

int16_t rig_open(int16_t* handle) {
  std::lock_guard lock(rig().mutex);
  int16_t h = 0;
  const int32_t result = rig().link.openInterface(h);
  if (handle != nullptr) *handle = h;
  return static_cast<int16_t>(result);
}

int16_t rig_close(int16_t handle) {
  std::lock_guard lock(rig().mutex);
  return static_cast<int16_t>(rig().link.closeInterface(handle));
}

int16_t rig_version(int16_t handle, char* text, int32_t length) {
  std::lock_guard lock(rig().mutex);
  return withBuffer(text, length,
                    [&](std::string& b) { return rig().link.interfaceVersion(handle, b); });
}

int16_t rig_send(int16_t handle, int16_t device, char* command, int32_t wait) {
  std::lock_guard lock(rig().mutex);
  const std::string_view text(command,
                              command != nullptr ? strnlen(command, kCommandBufferLength) : 0);
  return static_cast<int16_t>(rig().link.sendCommand(handle, device, text, wait != 0));
}

int16_t rig_reply(int16_t handle, int16_t device, char* reply, int32_t length, int32_t wait) {
  std::lock_guard lock(rig().mutex);
  return withBuffer(reply, length, [&](std::string& b) {
    return rig().link.getReply(handle, device, b, wait != 0);
  });
}

int16_t rig_abort(int16_t handle, int16_t device) {
  std::lock_guard lock(rig().mutex);
  return static_cast<int16_t>(rig().link.abortReply(handle, device));
}

int32_t rig_milliseconds() {
  std::lock_guard lock(rig().mutex);
  return rig().link.millisecondCount();
}

int16_t rig_dir_path(char* path, int32_t length) {
  std::lock_guard lock(rig().mutex);
  std::string dir;
  const int32_t result = rig().link.dirPath(dir);
  return withBuffer(path, length, [&](std::string& b) {
    WriteBuffer(b, dir);
    return result;
  });
}

int16_t rig_setup_version(char* text, int32_t length) {
  std::lock_guard lock(rig().mutex);
  return withBuffer(text, length, [&](std::string& b) { return rig().link.setupLibVersion(b); });
}

int16_t rig_load_setup(char* path, int32_t second, char* setupName) {
  std::lock_guard lock(rig().mutex);
  if (path == nullptr || setupName == nullptr)
    return static_cast<int16_t>(link_result::kSetupFileUnreadable);
  SetupLoad load;
  const int32_t result = rig().link.loadAndLockSetup(path, second, load);
  if (result != link_result::kOk) return static_cast<int16_t>(result);
  // The summary goes where the program reads it; its lines keep their ends.
  std::vector<std::string> lines;
  std::string_view rest = load.summary;
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    std::string line(rest.substr(0, end));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
  }
  if (!writeTextFileAtomically(rig().files, SetupSummaryPath(path), lines, nullptr)) {
    return static_cast<int16_t>(link_result::kSetupFileUnreadable);
  }
  std::memset(setupName, ' ', kSetupNameLength);
  std::memcpy(setupName, load.setupName.data(), std::min(load.setupName.size(), kSetupNameLength));
  return 0;
}

int16_t rig_unlock_setup(char* setupName, int16_t handle) {
  std::lock_guard lock(rig().mutex);
  const std::string_view name(setupName,
                              setupName != nullptr ? strnlen(setupName, kUnlockNameLength) : 0);
  return static_cast<int16_t>(rig().link.unlockSetup(name, handle));
}

int16_t rig_request_monitor(char* setupName, int16_t* device, int16_t* channelNumber) {
  std::lock_guard lock(rig().mutex);
  std::string name(setupName, setupName != nullptr ? strnlen(setupName, kSetupNameLength) : 0);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  MonitorChannelRecord record{*device, *channelNumber};
  const int32_t result = rig().link.requestMonitorChannel(name, record);
  *channelNumber = record.channelNumber;
  return static_cast<int16_t>(result);
}

}  // extern "C"
