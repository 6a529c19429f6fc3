#include <cstring>
#include <vector>

#include "common/file_system.h"
#include "common/text_file.h"
#include "instrument/dll/dll_link.h"
#include "platform/shared_library.h"

namespace tavrix {

namespace {

// The libraries' calling convention: every function is __stdcall, results
// are 16-bit, flags and lengths 32-bit, handles and device numbers 16-bit.
using OpenIMLInterface = int16_t(__stdcall*)(int16_t* handle);
using CloseIMLInterface = int16_t(__stdcall*)(int16_t handle);
using GetIMLInterfaceVersion = int16_t(__stdcall*)(int16_t handle, char* text, int32_t length);
using SendIMLCommand = int16_t(__stdcall*)(int16_t handle, int16_t device, char* command,
                                           int32_t wait);
using GetIMLReply = int16_t(__stdcall*)(int16_t handle, int16_t device, char* reply, int32_t length,
                                        int32_t wait);
using AbortIMLReply = int16_t(__stdcall*)(int16_t handle, int16_t device);
using GetIMLMillisecondCount = int32_t(__stdcall*)();
using GetIMLDirPath = int16_t(__stdcall*)(char* path, int32_t length);
using IMSLibVersion = int16_t(__stdcall*)(char* text, int32_t length);
using IMSLoadAndLockSetup = int16_t(__stdcall*)(char* path, int32_t second, char* setupName);
using IMSUnlockSetup = int16_t(__stdcall*)(char* setupName, int16_t handle);
struct MonitorRecord {
  int16_t device;
  int16_t channelNumber;
};
using IMSRequestMonitorChannel = int16_t(__stdcall*)(char* setupName, MonitorRecord* record);

// The flag value the libraries take for "wait".
constexpr int32_t kTrue = 1;

// The length of the buffer the directory query fills.
constexpr size_t kDirPathLength = 260;

class DllLink final : public LinkLibrary {
 public:
  explicit DllLink(const FileSystem& files) : files_(files) {}

  int32_t openInterface(int16_t& handle) override { return open_(&handle); }
  int32_t closeInterface(int16_t handle) override { return close_(handle); }
  int32_t interfaceVersion(int16_t handle, std::string& text) override {
    return version_(handle, text.data(), static_cast<int32_t>(text.size()));
  }
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command,
                      bool wait) override {
    // The library gets the program's buffer as it is, with a NUL after it
    // for a command that fills it.
    std::string buffer(command);
    return send_(handle, device, buffer.data(), wait ? kTrue : 0);
  }
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override {
    return reply_(handle, device, buffer.data(), static_cast<int32_t>(buffer.size()),
                  wait ? kTrue : 0);
  }
  int32_t abortReply(int16_t handle, int16_t device) override { return abort_(handle, device); }
  int32_t millisecondCount() override { return milliseconds_(); }
  int32_t dirPath(std::string& path) override {
    std::string buffer(kDirPathLength, '\0');
    const int32_t result = dirPath_(buffer.data(), static_cast<int32_t>(buffer.size()));
    path = std::string(BufferText(buffer));
    return result;
  }
  int32_t setupLibVersion(std::string& text) override {
    return imsVersion_(text.data(), static_cast<int32_t>(text.size()));
  }
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override {
    std::string file = path;
    std::string name(kSetupNameLength, ' ');
    const int32_t result = load_(file.data(), second, name.data());
    if (result != link_result::kOk) return result;
    name = std::string(BufferText(name));
    while (!name.empty() && name.back() == ' ') name.pop_back();
    load.setupName = name;
    const std::string summary = SetupSummaryPath(path);
    std::string error;
    if (!readTextFile(files_, summary, load.summary, &error)) {
      load.message = error;
      return link_result::kSetupFileUnreadable;
    }
    return result;
  }
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override {
    std::string name(setupName);
    name.resize(kUnlockNameLength, ' ');
    return unlock_(name.data(), handle);
  }
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override {
    std::string name(setupName);
    name.resize(kSetupNameLength, ' ');
    MonitorRecord raw{record.device, record.channelNumber};
    const int32_t result = monitor_(name.data(), &raw);
    record.channelNumber = raw.channelNumber;
    return result;
  }

  // Resolves every function; false with a message naming the missing one.
  bool resolve(std::string* error) {
    return find(comms_, commsFile_, "_OpenIMLInterface@4", open_, error) &&
           find(comms_, commsFile_, "_CloseIMLInterface@4", close_, error) &&
           find(comms_, commsFile_, "_GetIMLInterfaceVersion@12", version_, error) &&
           find(comms_, commsFile_, "_SendIMLCommand@16", send_, error) &&
           find(comms_, commsFile_, "_GetIMLReply@20", reply_, error) &&
           find(comms_, commsFile_, "_AbortIMLReply@8", abort_, error) &&
           find(comms_, commsFile_, "_GetIMLMillisecondCount@0", milliseconds_, error) &&
           find(comms_, commsFile_, "_GetIMLDirPath@8", dirPath_, error) &&
           find(ims_, imsFile_, "_IMSLibVersion@8", imsVersion_, error) &&
           find(ims_, imsFile_, "_IMSLoadAndLockSetup@12", load_, error) &&
           find(ims_, imsFile_, "_IMSUnlockSetup@8", unlock_, error) &&
           find(ims_, imsFile_, "_IMSRequestMonitorChannel@8", monitor_, error);
  }

  const FileSystem& files_;
  std::unique_ptr<platform::SharedLibrary> comms_;
  std::unique_ptr<platform::SharedLibrary> ims_;
  std::string commsFile_;
  std::string imsFile_;

 private:
  template <typename F>
  static bool find(const std::unique_ptr<platform::SharedLibrary>& library, const std::string& file,
                   const char* name, F& function, std::string* error) {
    function = reinterpret_cast<F>(library->function(name));
    if (function == nullptr && error) *error = file + " has no function " + name;
    return function != nullptr;
  }

  OpenIMLInterface open_ = nullptr;
  CloseIMLInterface close_ = nullptr;
  GetIMLInterfaceVersion version_ = nullptr;
  SendIMLCommand send_ = nullptr;
  GetIMLReply reply_ = nullptr;
  AbortIMLReply abort_ = nullptr;
  GetIMLMillisecondCount milliseconds_ = nullptr;
  GetIMLDirPath dirPath_ = nullptr;
  IMSLibVersion imsVersion_ = nullptr;
  IMSLoadAndLockSetup load_ = nullptr;
  IMSUnlockSetup unlock_ = nullptr;
  IMSRequestMonitorChannel monitor_ = nullptr;
};

std::string inFolder(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  const char last = folder.back();
  return last == '\\' || last == '/' ? folder + name : folder + "\\" + name;
}

}  // namespace

std::unique_ptr<LinkLibrary> MakeDllLink(const InstrumentSettings& settings,
                                         const FileSystem& files, std::string* error) {
  auto link = std::make_unique<DllLink>(files);
  link->commsFile_ = inFolder(settings.libraryFolder, settings.linkLibraryName);
  link->imsFile_ = inFolder(settings.libraryFolder, settings.setupLibraryName);
  std::string why;
  link->comms_ = platform::SharedLibrary::open(link->commsFile_, &why);
  if (!link->comms_) {
    if (error) *error = "cannot load the link library " + link->commsFile_ + ": " + why;
    return nullptr;
  }
  link->ims_ = platform::SharedLibrary::open(link->imsFile_, &why);
  if (!link->ims_) {
    if (error) *error = "cannot load the setup library " + link->imsFile_ + ": " + why;
    return nullptr;
  }
  if (!link->resolve(error)) return nullptr;
  return link;
}

}  // namespace tavrix
