// The stand-in hardware setup library: the exported __stdcall functions, each
// passing its call to the simulated rig.
#include "instrument/dll/stand_in_rig.h"

extern "C" {

int16_t __stdcall IMSLibVersion(char* text, int32_t length) {
  return rig_setup_version(text, length);
}
int16_t __stdcall IMSLoadAndLockSetup(char* path, int32_t second, char* setupName) {
  return rig_load_setup(path, second, setupName);
}
int16_t __stdcall IMSUnlockSetup(char* setupName, int16_t handle) {
  return rig_unlock_setup(setupName, handle);
}
struct MonitorRecord {
  int16_t device;
  int16_t channelNumber;
};
int16_t __stdcall IMSRequestMonitorChannel(char* setupName, MonitorRecord* record) {
  return rig_request_monitor(setupName, &record->device, &record->channelNumber);
}

}  // extern "C"
