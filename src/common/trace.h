// The run's trace: one JSON object a line (UTF-8), each with "t" (seconds since the
// run started, on the run's clock, three decimals) and "ev". Writes nothing
// until an output is set, and then costs nothing for events not asked for.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/file_system.h"

namespace tavrix {

class Trace {
 public:
  explicit Trace(const Clock& clock) : clock_(clock) {}
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // Writes to `out`; nullptr turns the trace off.
  void setOutput(std::unique_ptr<OutputFile> out);
  // Writes every line to `record` as well (the run's own record in the data
  // root), whether or not an output is set; nullptr ends that.
  void setRecord(std::unique_ptr<OutputFile> record);
  bool enabled() const { return out_ != nullptr || record_ != nullptr; }
  // Lines that could not be written, and why the first one could not.
  int64_t linesLost() const { return linesLost_; }
  const std::string& firstWriteError() const { return firstError_; }
  // Called once, with the reason, when the first line is lost.
  void onFirstLoss(std::function<void(const std::string&)> report) { onFirstLoss_ = std::move(report); }
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
  std::unique_ptr<OutputFile> out_;
  std::unique_ptr<OutputFile> record_;
  Micros origin_ = 0;
  int64_t linesLost_ = 0;
  std::string firstError_;
  std::function<void(const std::string&)> onFirstLoss_;
};

// `text` as UTF-8: valid UTF-8 sequences stay, every other byte is taken as
// a character of the Windows-1252 code page that sequence files are usually
// written in (its five unassigned bytes as the C1 control of that value).
std::string utf8FromSequenceText(std::string_view text);

// `text` fit to print on a terminal, as it came from a peer, a store or a
// file: converted as utf8FromSequenceText does, and every control character
// (C0, DEL and C1; tab, line end and escape included) written as "\xNN"
// so that it can neither move the cursor nor forge a line.
std::string visibleText(std::string_view text);

// JSON string literal of `text` (quotes included), converted to UTF-8 as
// utf8FromSequenceText does, so that every line is valid UTF-8 JSON.
std::string jsonString(std::string_view text);

}  // namespace tavrix
