// Channel reads and writes by name, as the commands of the sequencer core
// (ENTERSEND, DOWITHSHOW, MANUALADJUST) need them. Abstract so that the core
// does not depend on the instrument link; the engine plugs in the channel
// operations, and tests a table of values.
#pragma once

#include <string>
#include <string_view>

namespace tavrix {

class ChannelAccess {
 public:
  virtual ~ChannelAccess() = default;
  // The channel's reading as text. False, with the link's error text, when
  // the read fails.
  virtual bool read(std::string_view channel, std::string& value, std::string* error) = 0;
  // Writes a value given as text. False, with the error text, on failure.
  virtual bool write(std::string_view channel, std::string_view value, std::string* error) = 0;
};

}  // namespace tavrix
