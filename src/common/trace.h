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
  explicit Trace(const Clock& clock);
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // Writes to `out`; nullptr turns the trace off.
  void setOutput(std::unique_ptr<OutputFile> out);
  // Writes every line to `record` as well (the run's own record in the data
  // root), whether or not an output is set; nullptr ends that, after the
  // lines gathered for it are written. A line's event waits there with
  // others (at most 64 KiB, or 512 KiB for a record written by a thread of
  // its own, and no longer than a quarter of a second: the
  // next event after that writes it); every other event is written at once
  // together with the lines before it, so that a hold, a question, a message
  // or the end is on the disk as it happens, while a free-running sequence
  // costs little. Lines alone are written at most four times a second of
  // real time (or 64 KiB at a time), however fast the run's clock goes;
  // where the file may be written from another thread, a thread of the
  // record's own writes them while the run goes on (an event that goes out
  // at once waits for it).
  void setRecord(std::unique_ptr<OutputFile> record);
  bool enabled() const { return out_ != nullptr || record_ != nullptr; }
  // Lines that could not be written, and why the first one could not.
  int64_t linesLost() const { return linesLost_; }
  const std::string& firstWriteError() const { return firstError_; }
  // Called once, with the reason, when the first line is lost.
  void onFirstLoss(std::function<void(const std::string&)> report) {
    onFirstLoss_ = std::move(report);
  }
  // The instant that "t" counts from.
  void setOrigin(Micros origin) { origin_ = origin; }
  // The real time that paces the record's writes: the machine's, unless a
  // test gives a clock of its own. It is read once every few lines.
  void setRealTime(const Clock& clock) { realTime_ = &clock; }

  // Collects the fields of one event and writes the line when it goes out of
  // scope. Build one only when enabled() is true.
  class Event {
   public:
    Event(Trace& trace, std::string_view ev);
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    Event& field(std::string_view name, std::string_view text);
    Event& field(std::string_view name, const char* text) {
      return field(name, std::string_view(text));
    }
    Event& field(std::string_view name, int64_t number);
    Event& field(std::string_view name, int number) {
      return field(name, static_cast<int64_t>(number));
    }
    Event& field(std::string_view name, bool value);
    Event& field(std::string_view name, std::nullopt_t);

   private:
    void key(std::string_view name);
    Trace& trace_;
    Micros at_;
    bool aLine_;
    // The trace's own buffer, or `own_` while another event holds that.
    std::string* line_;
    std::string own_;
  };

  Event event(std::string_view ev) { return Event(*this, ev); }

  // A line's event, {"t":..,"ev":"line","n":..,"text":..}, at `at` on the
  // run's clock (when the line was dispatched). Call only when enabled().
  void line(Micros at, int number, std::string_view text);

 private:
  // The start of a line, {"t":<seconds since the origin>.
  std::string_view start(Micros at);
  // `at`: the event's instant on the run's clock; `aLine`: a line's event,
  // which may wait in the record's gathered lines.
  void write(std::string_view line, bool aLine, Micros at);
  // After a line was written to the output (`written`: it was, or `error`
  // says why not) and added to the record's gathered lines: writes those
  // unless they may wait, and counts a line that was lost.
  void recordGathered(bool aLine, Micros at, bool written, std::string error);
  bool mayWait(Micros at);
  // Writes the gathered lines: handed to the record's writing thread when
  // they are lines alone and the record has one, else written here once
  // that thread has written what it has. False (with the reason) when the
  // write made here failed.
  bool flushRecord(Micros at, bool linesOnly, std::string* error);
  // Counts the writes of the record's thread that failed since last asked.
  void countWriterFailures();
  void countLoss(const std::string& error);

  class RecordWriter;

  const Clock& clock_;
  SystemClock machineClock_;
  const Clock* realTime_ = &machineClock_;
  std::unique_ptr<OutputFile> out_;
  std::unique_ptr<OutputFile> record_;
  // Writes the record's lines while the run goes on, where its file allows.
  std::unique_ptr<RecordWriter> writer_;
  // The record's gathered lines, when they were last written (on the run's
  // clock and in real time), and the lines gathered since real time was
  // last read.
  // (Its size is its room; the lines are its first `gatheredUsed_` bytes.)
  std::string gathered_;
  size_t gatheredUsed_ = 0;
  // How much may be gathered before it is written.
  size_t gatherLimit_ = 0;
  Micros gatheredSince_ = 0;
  Micros gatheredSinceReal_ = 0;
  // When waiting lines were last written for their time alone (real time;
  // long before any run at first).
  Micros linesWrittenReal_ = INT64_MIN / 2;
  int linesUnclocked_ = 0;
  // The run's clock had gone a quarter second since the last write, and
  // real time had not, at the last reading of real time.
  bool runAhead_ = false;
  // The event being put together, kept from one event to the next, and the
  // room for a line's event that goes to the output.
  std::string building_;
  std::string lineBuffer_;
  bool buildingInUse_ = false;
  // The digits of the last line's number (a line's number is usually the
  // last one's plus one: its digits are counted up).
  char numberText_[16] = {};
  int numberLength_ = 0;
  int64_t lastNumber_ = INT64_MIN;
  // Line `number`'s digits as one word (numberLength_ of them; none when it
  // has more than eight or is out of the usual range), kept for the next.
  uint64_t numberDigits(int number);
  // The start of the last line, {"t":..., for the millisecond `startMs_`.
  char start_[40] = {};
  size_t startLength_ = 0;
  int64_t startMs_ = 0;
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
