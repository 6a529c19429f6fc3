#include "instrument/tcp/library_service.h"

#include <charconv>

#include "common/file_system.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_protocol.h"
#include "platform/files.h"

namespace tavrix {
namespace {

std::string_view nextWord(std::string_view& rest) {
  const size_t blank = rest.find(' ');
  const std::string_view word = rest.substr(0, blank);
  rest = blank == std::string_view::npos ? std::string_view{} : rest.substr(blank + 1);
  return word;
}

bool toDevice(std::string_view text, int16_t& device) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), device);
  return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

// The file name of a client's setup path (either kind of separator), kept to
// characters every file system takes.
std::string setupFileName(std::string_view clientPath) {
  const size_t slash = clientPath.find_last_of("/\\:");
  std::string name(slash == std::string_view::npos ? clientPath : clientPath.substr(slash + 1));
  for (char& c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    if (!plain) c = '_';
  }
  if (name.empty() || name.find_first_not_of('.') == std::string::npos) name = "setup.ims";
  return name;
}

}  // namespace

LibraryService::LibraryService(std::unique_ptr<LinkLibrary> library, FileSystem& files)
    : library_(std::move(library)), files_(files) {}

LibraryService::~LibraryService() {
  if (open_) {
    if (!setupName_.empty()) {
      std::string name = setupName_;
      name.resize(kUnlockNameLength, ' ');
      library_->unlockSetup(name, handle_);
    }
    library_->closeInterface(handle_);
  }
  if (!setupFolder_.empty()) removeTree(setupFolder_);
}

bool LibraryService::open(std::string* error) {
  const int32_t code = library_->openInterface(handle_);
  if (code != link_result::kOk) {
    const std::string problem = library_->connectionProblem();
    if (error)
      *error = "the link library does not open (" + std::to_string(code) + ")" +
               (problem.empty() ? "" : ": " + problem);
    return false;
  }
  open_ = true;
  return true;
}

LibraryService::Answer LibraryService::loadSetup(std::string_view clientPath,
                                                 std::string_view text) {
  FileSystem& files = files_;
  std::string failed;
  if (setupFolder_.empty()) {
    const std::string folder =
        platform::tempFolder() + "/tavrix-bridge-" + NewNonce().substr(0, 16);
    if (!files.makeFolders(folder, &failed)) {
      return {link_result::kSetupFileUnreadable,
              "the bridge cannot make a folder for the setup: " + failed};
    }
    setupFolder_ = folder;
  }
  const std::string file = setupFolder_ + "/" + setupFileName(clientPath);
  if (!files.writeAtomically(file, text, &failed)) {
    return {link_result::kSetupFileUnreadable, "the bridge cannot write the setup: " + failed};
  }
  SetupLoad load;
  int32_t code = library_->loadAndLockSetup(file, 0, load);
  // A busy library is asked again, as the link asks a library of its own.
  for (int tries = 0; code == link_result::kSetupBusy && tries < 100; ++tries) {
    code = library_->loadAndLockSetup(file, 0, load);
  }
  if (code != link_result::kOk) return {code, load.message};
  setupName_ = load.setupName;
  return {link_result::kOk, load.setupName + "\n" + load.summary};
}

std::optional<LibraryService::Answer> LibraryService::answer(std::string_view verb,
                                                             std::string_view rest) {
  int16_t device = 0;
  if (verb == "VERSION") {
    std::string text(kVersionBufferLength, ' ');
    const int32_t code = library_->interfaceVersion(handle_, text);
    return Answer{code, std::string(BufferText(text))};
  }
  if (verb == "IMSVERSION") {
    std::string text(kVersionBufferLength, ' ');
    const int32_t number = library_->setupLibVersion(text);
    return Answer{number, std::string(BufferText(text))};
  }
  if (verb == "DIRPATH") {
    std::string path;
    const int32_t code = library_->dirPath(path);
    return Answer{code, std::string(BufferText(path))};
  }
  if (verb == "UNLOCK") {
    std::string name = setupName_;
    name.resize(kUnlockNameLength, ' ');
    setupName_.clear();
    return Answer{library_->unlockSetup(name, handle_), std::nullopt};
  }
  const bool sendReply = verb == "SENDREPLY";
  if ((verb == "SEND" || sendReply) && toDevice(nextWord(rest), device)) {
    nextWord(rest);  // the client's time
    std::string buffer = UnescapeField(rest).substr(0, kCommandBufferLength);
    if (buffer.size() < kCommandBufferLength) buffer += '\0';
    buffer.resize(kCommandBufferLength, ' ');
    // Only the calls the client makes reach the library: a library may
    // count its polls. A client sends SENDREPLY only for a command whose
    // reply it polls for next, so the first poll is made here at once and
    // its result is the client's first poll.
    const int32_t code = library_->sendCommand(handle_, device, buffer, true);
    if (!sendReply || code != link_result::kOk) return Answer{code, std::nullopt};
    std::string reply(kReplyBufferLength, ' ');
    const int32_t replyCode = library_->getReply(handle_, device, reply, true);
    return Answer{code, SendReplyText(replyCode, BufferText(reply))};
  }
  if (verb == "REPLY" && toDevice(nextWord(rest), device)) {
    std::string buffer(kReplyBufferLength, ' ');
    const int32_t code = library_->getReply(handle_, device, buffer, true);
    if (code != link_result::kOk) return Answer{code, std::nullopt};
    return Answer{code, std::string(BufferText(buffer))};
  }
  if (verb == "ABORT" && toDevice(nextWord(rest), device)) {
    return Answer{library_->abortReply(handle_, device), std::nullopt};
  }
  if (verb == "MONITOR" && toDevice(nextWord(rest), device) && rest.substr(0, 1) == "=") {
    const std::string name = UnescapeField(rest.substr(1));
    MonitorChannelRecord record;
    record.device = device;
    const int32_t code = library_->requestMonitorChannel(name, record);
    if (code != link_result::kOk) return Answer{code, std::nullopt};
    return Answer{code, std::to_string(record.channelNumber)};
  }
  if (verb == "SETUP" && rest.substr(0, 1) == "=") {
    const size_t tab = rest.find('\t');
    if (tab != std::string_view::npos) {
      return loadSetup(UnescapeField(rest.substr(1, tab - 1)), UnescapeField(rest.substr(tab + 1)));
    }
  }
  return std::nullopt;
}

}  // namespace tavrix
