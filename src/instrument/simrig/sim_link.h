// The in-process simulated rig: the rig model (rig_model.h) behind the link
// library port, on the run's clock.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/file_system.h"
#include "instrument/link/link_library.h"
#include "instrument/simrig/rig_model.h"

namespace tavrix {

class SimLink final : public LinkLibrary, public DirectExchanges {
 public:
  // `files` holds the setup files and the data folder `dirPath`.
  SimLink(const Clock& clock, std::string dirPath, const FileSystem& files);
  RigModel& model() { return model_; }

  int32_t openInterface(int16_t& handle) override;
  int32_t closeInterface(int16_t handle) override;
  int32_t interfaceVersion(int16_t handle, std::string& text) override;
  int32_t sendCommand(int16_t handle, int16_t device, std::string_view command, bool wait) override;
  int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) override;
  bool writesOnlyTheReply() const override { return true; }
  DirectExchanges* direct() override { return open_ ? this : nullptr; }
  bool readNumber(int16_t device, std::string_view name, DirectHint& hint, double& value,
                  std::string* text) override;
  bool writeChecked(int16_t device, std::string_view name, std::string_view value,
                    DirectHint& hint) override;
  std::string lastReadText() const override;
  int32_t abortReply(int16_t handle, int16_t device) override;
  int32_t millisecondCount() override;
  int32_t dirPath(std::string& path) override;
  int32_t setupLibVersion(std::string& text) override;
  int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) override;
  int32_t unlockSetup(std::string_view setupName, int16_t handle) override;
  int32_t requestMonitorChannel(std::string_view setupName, MonitorChannelRecord& record) override;

 private:
  const Clock& clock_;
  const FileSystem& files_;
  std::string dirPath_;
  RigModel model_;
  bool open_ = false;
  std::string reply_;
  double lastRead_ = 0;  // the raw reading of the last readNumber
};

}  // namespace tavrix
