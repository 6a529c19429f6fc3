// What the output commands (ramps, sine and pulse outputs, alarms, load
// maintenance) share when they run as sequence commands: opening the link
// and the number form of the values they write.
#pragma once

#include <string>
#include <string_view>

namespace tavrix {

class Instrument;
class RunContext;

// Opens the link for the first command that needs it; when it cannot be
// opened, reports the link's error (the run ends) and returns false.
bool OutputLinkReady(RunContext& seq, Instrument& instrument);

// In a test socket, an output that runs on its own writes only the socket's
// own channels: for a channel the sockets share, reports a sequence error
// and returns false. Always true outside a station.
bool OutputChannelOwned(RunContext& seq, Instrument& instrument, std::string_view channel);

// Writes a number as the outputs do (a leading blank when not negative) and
// keeps the write's flag as the last output status.
bool WriteOutputValue(Instrument& instrument, std::string_view channel, double value);

}  // namespace tavrix
