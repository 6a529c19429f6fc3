#include "instrument/outputs/output_support.h"

#include "common/text_conventions.h"
#include "instrument/link/instrument.h"
#include "sequencer/sequencer.h"

namespace tavrix {

bool OutputLinkReady(RunContext& seq, Instrument& instrument) {
  if (instrument.ensureOpen()) return true;
  seq.reportSequenceError(instrument.link().lastErrorText());
  return false;
}

bool OutputChannelOwned(RunContext& seq, Instrument& instrument, std::string_view channel) {
  if (instrument.channels().ownChannel(channel)) return true;
  seq.reportSequenceError("Channel " + std::string(channel) + std::string(kTextSharedOutput));
  return false;
}

bool WriteOutputValue(Instrument& instrument, std::string_view channel, double value) {
  return instrument.writeOutput(channel, numberText(value));
}

}  // namespace tavrix
