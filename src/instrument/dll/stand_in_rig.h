// The simulated rig as a library of plain C functions, shared by the
// stand-in link library and setup library (commslib.dll, imslib.dll) so that
// both work on one rig, as the real pair works on one instrument. Buffers
// belong to the caller.
#pragma once

#include <cstdint>

extern "C" {
int16_t rig_open(int16_t* handle);
int16_t rig_close(int16_t handle);
int16_t rig_version(int16_t handle, char* text, int32_t length);
int16_t rig_send(int16_t handle, int16_t device, char* command, int32_t wait);
int16_t rig_reply(int16_t handle, int16_t device, char* reply, int32_t length, int32_t wait);
int16_t rig_abort(int16_t handle, int16_t device);
int32_t rig_milliseconds();
int16_t rig_dir_path(char* path, int32_t length);
int16_t rig_setup_version(char* text, int32_t length);
int16_t rig_load_setup(char* path, int32_t second, char* setupName);
int16_t rig_unlock_setup(char* setupName, int16_t handle);
int16_t rig_request_monitor(char* setupName, int16_t* device, int16_t* channelNumber);
}
