// The stand-in instrument link library: the exported __stdcall functions,
// each passing its call to the simulated rig.
#include "instrument/dll/stand_in_rig.h"

extern "C" {

int16_t __stdcall OpenIMLInterface(int16_t* handle) { return rig_open(handle); }
int16_t __stdcall CloseIMLInterface(int16_t handle) { return rig_close(handle); }
int16_t __stdcall GetIMLInterfaceVersion(int16_t handle, char* text, int32_t length) {
  return rig_version(handle, text, length);
}
int16_t __stdcall SendIMLCommand(int16_t handle, int16_t device, char* command, int32_t wait) {
  return rig_send(handle, device, command, wait);
}
int16_t __stdcall GetIMLReply(int16_t handle, int16_t device, char* reply, int32_t length,
                              int32_t wait) {
  return rig_reply(handle, device, reply, length, wait);
}
int16_t __stdcall AbortIMLReply(int16_t handle, int16_t device) {
  return rig_abort(handle, device);
}
int32_t __stdcall GetIMLMillisecondCount() { return rig_milliseconds(); }
int16_t __stdcall GetIMLDirPath(char* path, int32_t length) { return rig_dir_path(path, length); }

}  // extern "C"
