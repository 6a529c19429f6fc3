#include "calcchan/calc_ports.h"

#include "common/trace.h"
#include "instrument/link/instrument.h"

namespace tavrix {

bool InstrumentChannelPort::read(std::string_view name, std::string& value) {
  if (!instrument_.ensureOpen() || !instrument_.channels().ReadChannel(name, value)) {
    value = "ERROR " + instrument_.link().lastErrorText();
    return false;
  }
  return true;
}

bool InstrumentChannelPort::write(std::string_view name, std::string_view value) {
  return instrument_.ensureOpen() && instrument_.channels().WriteChannel(name, value);
}

bool InstrumentChannelPort::read(std::string_view name, std::string& value, ChannelRef& ref) {
  if (!instrument_.ensureOpen() || !instrument_.channels().ReadChannel(name, value, &ref)) {
    value = "ERROR " + instrument_.link().lastErrorText();
    return false;
  }
  return true;
}

bool InstrumentChannelPort::readInto(std::string_view name, ChannelReading& reading,
                                     ChannelRef* ref) {
  if (!instrument_.ensureOpen() || !instrument_.channels().ReadChannel(name, reading, ref)) {
    reading.isNumber = false;
    reading.text = "ERROR " + instrument_.link().lastErrorText();
    return false;
  }
  return true;
}

bool InstrumentChannelPort::read(std::string_view name, ChannelReading& reading, ChannelRef& ref) {
  return readInto(name, reading, &ref);
}

bool InstrumentChannelPort::read(std::string_view name, ChannelReading& reading) {
  return readInto(name, reading, nullptr);
}

bool InstrumentChannelPort::write(std::string_view name, std::string_view value, ChannelRef& ref) {
  return instrument_.ensureOpen() && instrument_.channels().WriteChannel(name, value, &ref);
}

CompanionExecute TracingCompanion(Trace& trace) {
  return
      [&trace](std::string_view topic, std::string_view item, std::string_view text, std::string*) {
        if (trace.enabled()) {
          trace.event("companion")
              .field("kind", "execute")
              .field("topic", topic)
              .field("item", item)
              .field("text", text);
        }
        return true;
      };
}

}  // namespace tavrix
