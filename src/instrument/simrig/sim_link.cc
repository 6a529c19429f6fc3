#include "instrument/simrig/sim_link.h"

#include "common/text_conventions.h"

namespace tavrix {

SimLink::SimLink(const Clock& clock, std::string dirPath, const FileSystem& files)
    : clock_(clock), files_(files), dirPath_(std::move(dirPath)) {}

int32_t SimLink::openInterface(int16_t& handle) {
  open_ = true;
  handle = 1;
  return link_result::kOk;
}

int32_t SimLink::closeInterface(int16_t /*handle*/) {
  open_ = false;
  return link_result::kOk;
}

int32_t SimLink::interfaceVersion(int16_t /*handle*/, std::string& text) {
  WriteBuffer(text, kRigInterfaceVersion);
  return link_result::kOk;
}

int32_t SimLink::sendCommand(int16_t /*handle*/, int16_t device, std::string_view command,
                             bool /*wait*/) {
  if (!open_) return link_result::kNotOpen;
  return model_.send(device, BufferText(command), clock_.now());
}

int32_t SimLink::getReply(int16_t /*handle*/, int16_t device, std::string& buffer, bool /*wait*/) {
  if (!open_) return link_result::kNotOpen;
  const int32_t result = model_.reply(device, clock_.now(), reply_);
  if (result == link_result::kOk) WriteBuffer(buffer, reply_);
  return result;
}

bool SimLink::readNumber(int16_t device, std::string_view name, DirectHint& hint, double& value,
                         std::string* text) {
  double raw = 0;
  if (!model_.readNow(device, name, hint, clock_.now(), raw, value)) return false;
  lastRead_ = raw;
  if (text != nullptr) *text = RigNumberText(raw);
  return true;
}

bool SimLink::writeChecked(int16_t device, std::string_view name, std::string_view value,
                           DirectHint& hint) {
  return model_.writeNow(device, name, value, hint, clock_.now());
}

std::string SimLink::lastReadText() const { return RigNumberText(lastRead_); }

int32_t SimLink::abortReply(int16_t /*handle*/, int16_t device) {
  model_.abort(device);
  return link_result::kOk;
}

int32_t SimLink::millisecondCount() { return static_cast<int32_t>(clock_.milliseconds()); }

int32_t SimLink::dirPath(std::string& path) {
  path = dirPath_;
  return link_result::kOk;
}

int32_t SimLink::setupLibVersion(std::string& text) {
  WriteBuffer(text, kRigSetupLibVersion);
  return kRigSetupLibVersionNumber;
}

int32_t SimLink::loadAndLockSetup(const std::string& path, int32_t /*second*/, SetupLoad& load) {
  RigSetup setup;
  if (!LoadRigSetupFile(files_, path, setup, &load.message)) {
    const bool unreadable = load.message.rfind("cannot read the setup file", 0) == 0;
    return unreadable ? link_result::kSetupFileUnreadable : link_result::kSetupFileBadLine;
  }
  load.setupName = setup.name;
  load.summary = setup.summary;
  model_.load(std::move(setup));
  return link_result::kOk;
}

int32_t SimLink::unlockSetup(std::string_view /*setupName*/, int16_t /*handle*/) {
  return link_result::kOk;
}

int32_t SimLink::requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) {
  return model_.requestMonitor(setupName, record.device, record.channelNumber);
}

}  // namespace tavrix
