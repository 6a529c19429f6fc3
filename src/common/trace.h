// The run's trace: one JSON object a line, each with "t" (seconds since the
// run started, on the run's clock, three decimals) and "ev". Writes nothing
// until an output is set, and then costs nothing for events not asked for.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"

namespace tavrix {

class Trace {
 public:
  explicit Trace(const Clock& clock) : clock_(clock) {}
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // Writes to `file` (not owned unless `owned`); nullptr turns the trace off.
  void setOutput(std::FILE* file, bool owned);
  bool enabled() const { return out_ != nullptr; }
  // The instant that "t" counts from.
  void setOrigin(Micros origin) { origin_ = origin; }

  // Collects the fields of one event and writes the line when it goes out of
  // scope. Build one only when enabled() is true.
  class Event {
   public:
    Event(Trace& trace, std::string_view ev);
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    Event& field(std::string_view name, std::string_view text);
    Event& field(std::string_view name, const char* text) { return field(name, std::string_view(text)); }
    Event& field(std::string_view name, int64_t number);
    Event& field(std::string_view name, int number) { return field(name, static_cast<int64_t>(number)); }
    Event& field(std::string_view name, bool value);
    Event& field(std::string_view name, std::nullopt_t);

   private:
    void key(std::string_view name);
    Trace& trace_;
    std::string line_;
  };

  Event event(std::string_view ev) { return Event(*this, ev); }

 private:
  void write(const std::string& line);

  const Clock& clock_;
  std::FILE* out_ = nullptr;
  bool owned_ = false;
  Micros origin_ = 0;
};

// JSON string literal of `text` (quotes included). Bytes that are not valid
// UTF-8 are written as \u00XX so that every line stays valid JSON.
std::string jsonString(std::string_view text);

}  // namespace tavrix
