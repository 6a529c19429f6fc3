// The output command families of the instrument subsystem, registered
// together: ramps, sine and pulse outputs, alarms and load maintenance.
#pragma once

#include "instrument/outputs/alarms.h"
#include "instrument/outputs/load_maintenance.h"
#include "instrument/outputs/pulse_sine.h"
#include "instrument/outputs/ramps.h"

namespace tavrix {

inline void RegisterOutputCommands(Sequencer& seq, Instrument& instrument) {
  RegisterRampCommands(seq, instrument);
  RegisterPulseSineCommands(seq, instrument);
  RegisterAlarmCommands(seq, instrument);
  RegisterLoadMaintenance(seq, instrument);
}

}  // namespace tavrix
