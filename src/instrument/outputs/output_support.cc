#include "instrument/outputs/output_support.h"

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "sequencer/sequencer.h"

namespace tavrix {

bool OutputLinkReady(Sequencer& seq, Instrument& instrument) {
  if (instrument.ensureOpen()) return true;
  seq.reportSequenceError(instrument.link().lastErrorText);
  return false;
}

bool OutputChannelsExist(Sequencer& seq, Instrument& instrument,
                         std::initializer_list<std::string_view> names) {
  if (instrument.link().noHardware) return true;
  for (const std::string_view name : names) {
    int16_t device = 0;
    if (!instrument.channels().FindEnabledChannel(name, device)) {
      seq.reportSequenceError(std::string(kTextChannelNamePrefix) + std::string(name) +
                              std::string(kTextChannelNameSuffix));
      return false;
    }
  }
  return true;
}

bool WriteOutputValue(Instrument& instrument, std::string_view channel, double value) {
  instrument.lastOutputStatus = instrument.channels().WriteChannel(channel, numberText(value));
  return instrument.lastOutputStatus;
}

}  // namespace tavrix
