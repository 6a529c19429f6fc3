// The sequence commands that act on channels:
//
//   IMSFILESPEC [file]          load and lock a hardware setup; without a file
//                               the operator chooses one ("Select IMS File")
//   SEND channel, value         write a value
//   SENDSMC channel, command    write a controller command, hexadecimal coded
//   IMLDEF channel, settings    define a channel ("DEF channel settings")
//   IMLESC channel, settings    escape to a channel ("ESC channel settings")
//   MONITOR device, name, settings   create a monitor channel on a device
//   KILLMONITOR name            clear a monitor channel
//   REZERO channel              make the channel read zero where it stands
//   CHECKIMS                    read the check channel of the settings
//   CHECK channel op value, label    jump to the label unless the condition holds
//   WAIT channel op value       hold until the condition holds
//
// Channel names are taken with blanks around them removed. A failed channel
// operation ends the run with a sequence error showing the link's last error
// text. WAIT reads its channel every waitPollInterval (settings, 100 ms by
// default) through the event loop.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sequencer/flow_control.h"
#include "sequencer/keyword.h"

namespace tavrix {

class Instrument;
class Sequencer;

std::vector<KeywordEntry> InstrumentKeywords();

// INCREMENTLOOPCOUNT's writes to a channel go to the attached instrument;
// the link is opened for the first, and a failure shows the link's last
// error text.
class InstrumentLoopCountOutput : public LoopCountOutput {
 public:
  void attach(Instrument* instrument) { instrument_ = instrument; }
  bool available() const override { return instrument_ != nullptr; }
  void write(Sequencer& sequencer, std::string_view channel, int32_t count) override;

 private:
  Instrument* instrument_ = nullptr;
};
void RegisterInstrumentCommands(Sequencer& sequencer, Instrument& instrument);

// A channel condition of CHECK and WAIT: channel, operator and value,
// separated by blanks.
struct ChannelCondition {
  std::string channel;
  std::string op;
  double value = 0;
};
std::optional<ChannelCondition> ParseChannelCondition(std::string_view text);
// Compares reading (left) with value by op; std::nullopt for an operator
// other than "=", ">", "<" and "<>".
std::optional<bool> CompareReading(double reading, std::string_view op, double value);

inline constexpr std::string_view kTextCannotParseCondition = "Cannot parse Wait condition - ";
inline constexpr std::string_view kTextSelectImsTitle = "Select IMS File";
inline constexpr std::string_view kTextImsFilter = "IML setup files (*.ims)|*.ims";
inline constexpr std::string_view kTextCheckImsFailed = "Failed in Check IMS procedure - Error =";

}  // namespace tavrix
