// The trace's own writer for a line's event gives the bytes the general
// writer gives (the event built field by field, the text's literal as the
// JSON library writes it) for any text: quotes, backslashes, control
// characters, DEL, valid UTF-8, and bytes that are not UTF-8, at every place
// of the eight-byte words it reads; to the output, to the record, and to
// both. Lines that a run's clock spreads over its waits are not written one
// wait at a time but a few times a second of real time, which is read once
// every few lines; a run at real pace writes its lines each quarter second. A record whose file may
// be written from another thread gets its lines from a thread of its own, in order, with every
// other event on the disk when it returns and a failed write counted.
#include "common/trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace tavrix {
namespace {

class Captured final : public OutputFile {
 public:
  Captured(std::string& bytes, int& writes) : bytes_(bytes), writes_(writes) {}
  bool write(std::string_view bytes, std::string*) override {
    bytes_.append(bytes);
    ++writes_;
    return true;
  }

 private:
  std::string& bytes_;
  int& writes_;
};

std::vector<std::string> Texts() {
  const std::vector<std::string> specials = {"\"",
                                             "\\",
                                             std::string(1, '\0'),
                                             "\x01",
                                             "\t",
                                             "\n",
                                             "\x1F",
                                             "\x7F",
                                             "\x80",
                                             "\x9D",
                                             "\xC3\xA9",
                                             "\xE2\x82\xAC",
                                             "\xF0\x9F\x98\x80",
                                             "\xC3",
                                             "\xE2\x82",
                                             "\xED\xA0\x80",
                                             "\xC0\xAF",
                                             "\xFF",
                                             " ",
                                             "~",
                                             "/"};
  std::vector<std::string> texts = {"", "SEND OUT, 1", "LABEL12345:", "REMARK line 17"};
  // Each special byte (or sequence) at every place of texts up to three
  // words long, so that it falls in each byte of a word and in the last,
  // overlapping word.
  for (const std::string& special : specials) {
    for (size_t length = 0; length <= 24; ++length) {
      for (size_t at = 0; at <= length; ++at) {
        std::string text(length, 'a');
        text.insert(at, special);
        texts.push_back(text);
      }
    }
  }
  std::mt19937 random(32);
  for (int i = 0; i < 2000; ++i) {
    std::string text(random() % 40, ' ');
    // Mostly printable, sometimes anything.
    for (char& c : text)
      c = static_cast<char>(random() % 8 == 0 ? random() % 256 : 0x20 + random() % 0x5F);
    texts.push_back(text);
  }
  return texts;
}

TEST(Trace, ALinesEventIsWhatTheGeneralWriterWritesForAnyText) {
  const std::vector<std::string> texts = Texts();
  // Lines one after the other (their digits counted up, carries and all),
  // the same line again, and numbers anywhere.
  const std::vector<int> numbers = {
      0,     1,         9,          10,         99,          100,   999,   1000,  9999,
      10000, 54321,     99999,      100000,     123456,      65535, 12345, 12345, -1,
      0,     -99999999, 2147483646, 2147483647, -2147483647, -2,    -1};
  // Instants about the origin, rounded to the millisecond either way; in
  // order, as a clock gives them.
  const std::vector<Micros> instants = {-1500, -500, -499,       0,          499,
                                        500,   1500, 61'234'567, 999'999'999};
  const auto instant = [&](size_t i) { return instants[i * instants.size() / texts.size()]; };
  std::string general;
  {
    // The general writer: the event built field by field.
    VirtualClock clock(instants.front());
    Trace trace(clock);
    int writes = 0;
    trace.setOutput(std::make_unique<Captured>(general, writes));
    for (size_t i = 0; i < texts.size(); ++i) {
      const int n = numbers[i % numbers.size()];
      clock.advanceTo(instant(i));
      trace.event("line").field("n", n).field("text", texts[i]);
      // Its text is the literal the JSON library writes.
      const std::string literal = nlohmann::json(utf8FromSequenceText(texts[i])).dump();
      const std::string tail =
          ",\"ev\":\"line\",\"n\":" + std::to_string(n) + ",\"text\":" + literal + "}\n";
      ASSERT_GE(general.size(), tail.size());
      EXPECT_EQ(general.substr(general.size() - tail.size()), tail) << i;
    }
  }
  for (const int where : {0, 1, 2}) {  // the output, the record, both
    VirtualClock clock(instants.front());
    Trace trace(clock);
    std::string out;
    std::string record;
    int writes = 0;
    if (where != 1) trace.setOutput(std::make_unique<Captured>(out, writes));
    if (where != 0) trace.setRecord(std::make_unique<Captured>(record, writes));
    for (size_t i = 0; i < texts.size(); ++i)
      trace.line(instant(i), numbers[i % numbers.size()], texts[i]);
    trace.setRecord(nullptr);
    EXPECT_EQ(out, where != 1 ? general : "") << where;
    EXPECT_EQ(record, where != 0 ? general : "") << where;
  }
}

// Real time as a test sets it, counting how often it is read.
class RealTime final : public Clock {
 public:
  Micros now() const override {
    ++reads;
    return at;
  }
  bool isVirtual() const override { return true; }
  bool idleUntil(Micros, std::condition_variable&, std::unique_lock<std::mutex>&,
                 const std::function<bool()>&, bool) override {
    return false;
  }
  Micros at = 0;
  mutable int reads = 0;
};

// A record's file that notes the real time of each write.
class Timed final : public OutputFile {
 public:
  Timed(std::string& bytes, std::vector<Micros>& instants, const RealTime& real)
      : bytes_(bytes), instants_(instants), real_(real) {}
  bool write(std::string_view bytes, std::string*) override {
    bytes_.append(bytes);
    instants_.push_back(real_.at);
    return true;
  }

 private:
  std::string& bytes_;
  std::vector<Micros>& instants_;
  const RealTime& real_;
};

// A trace on a virtual clock and a virtual real time, writing its record to
// a file that notes the real time of each write.
struct PacedRecord {
  PacedRecord() {
    trace.setRealTime(real);
    trace.setRecord(std::make_unique<Timed>(record, writes, real));
  }
  VirtualClock clock{0};
  RealTime real;
  Trace trace{clock};
  std::string record;
  std::vector<Micros> writes;
};

TEST(Trace, ARunWhoseClockJumpsItsWaitsWritesItsLinesAFewTimesASecondOfRealTime) {
  constexpr Micros kQuarter = 250 * 1000;
  constexpr Micros kMs = 1000;
  {
    // A soak on the virtual clock: a minute of the run between lines, a
    // millisecond of real time.
    PacedRecord paced;
    auto& [clock, real, trace, record, writes] = paced;
    constexpr int kTurns = 3000;
    for (int i = 0; i < kTurns; ++i) {
      real.at = i * kMs;
      trace.line(static_cast<Micros>(i) * 60 * kMicrosPerSecond, i, "WAITSECONDS 60");
    }
    const int reads = real.reads;
    // The lines wait for a quarter second of real time (or 64 KiB) however
    // far the run's clock goes, and real time is read once every few lines:
    // a write comes at most 32 lines (32 ms here) after its quarter.
    const int bySize = static_cast<int>(record.size() / (64 * 1024));
    ASSERT_GE(writes.size(), size_t{3 * 4});
    EXPECT_LE(writes.size(), size_t(2 + 3 * 4 + bySize));
    for (size_t w = 1; w < writes.size(); ++w)
      EXPECT_LE(writes[w] - writes[w - 1], kQuarter + 32 * kMs) << w;
    EXPECT_LE(reads, kTurns / 32 + 2 * static_cast<int>(writes.size()) + 2);
    trace.setRecord(nullptr);
    EXPECT_EQ(std::count(record.begin(), record.end(), '\n'), kTurns);
    EXPECT_EQ(record.substr(record.rfind('{')),
              "{\"t\":179940.000,\"ev\":\"line\",\"n\":2999,\"text\":\"WAITSECONDS 60\"}\n");
  }
  {
    // A run at real pace, ten milliseconds a line: its lines go out on the
    // line that completes each quarter second.
    PacedRecord paced;
    auto& [clock, real, trace, record, writes] = paced;
    for (int i = 0; i <= 100; ++i) {
      real.at = i * 10 * kMs;
      clock.advanceTo(real.at);
      trace.line(clock.now(), i, "WAITMS 10");
    }
    EXPECT_EQ(writes, (std::vector<Micros>{kQuarter, 2 * kQuarter, 3 * kQuarter, 4 * kQuarter}));
    trace.setRecord(nullptr);
    EXPECT_EQ(std::count(record.begin(), record.end(), '\n'), 101);
  }
}

// A record's file that other threads may write: it notes what was written
// and on which thread, and fails the writes it is told to.
class ThreadedFile final : public OutputFile {
 public:
  struct Seen {
    std::mutex mutex;
    std::string bytes;
    std::vector<std::thread::id> threads;
    int failNext = 0;  // writes to fail from now on
  };
  explicit ThreadedFile(Seen& seen) : seen_(seen) {}
  bool write(std::string_view bytes, std::string* error) override {
    std::lock_guard guard(seen_.mutex);
    seen_.threads.push_back(std::this_thread::get_id());
    if (seen_.failNext > 0) {
      --seen_.failNext;
      if (error) *error = "Cannot write record: disk full";
      return false;
    }
    seen_.bytes.append(bytes);
    return true;
  }
  bool writableFromAnyThread() const override { return true; }

 private:
  Seen& seen_;
};

TEST(Trace, ARecordWrittenOnAThreadOfItsOwnKeepsItsOrderItsEventsAndItsLosses) {
  // Lines of one instant, enough for a few batches; then an event
  // that goes out at once; then more lines; the same through a record
  // written on the run's thread.
  const auto run = [](Trace& trace, VirtualClock& clock) {
    for (int i = 0; i < 20000; ++i)
      trace.line(clock.now(), i, "REMARK a line of the soak " + std::to_string(i));
    clock.advanceTo(clock.now() + 1000);
    trace.event("hold").field("line", 17);
  };
  std::string expected;
  {
    VirtualClock clock(0);
    Trace trace(clock);
    int writes = 0;
    trace.setRecord(std::make_unique<Captured>(expected, writes));
    run(trace, clock);
    trace.setRecord(nullptr);
  }
  ThreadedFile::Seen seen;
  VirtualClock clock(0);
  Trace trace(clock);
  std::vector<std::string> reported;
  trace.onFirstLoss([&](const std::string& error) { reported.push_back(error); });
  trace.setRecord(std::make_unique<ThreadedFile>(seen));
  run(trace, clock);
  {
    // The held event is on the disk as it returns, after all the lines.
    std::lock_guard guard(seen.mutex);
    EXPECT_EQ(seen.bytes, expected);
    ASSERT_GE(seen.threads.size(), 3u);
    EXPECT_NE(seen.threads.front(), std::this_thread::get_id());
    EXPECT_EQ(seen.threads.back(), std::this_thread::get_id());
  }
  // Two batches of lines that cannot be written: each is a loss, counted
  // by the time the record ends, and told once.
  {
    std::lock_guard guard(seen.mutex);
    seen.failNext = 2;
  }
  for (int i = 0; i < 20000; ++i) trace.line(clock.now(), i, "REMARK lines the disk refuses");
  trace.setRecord(nullptr);
  EXPECT_EQ(trace.linesLost(), 2);
  EXPECT_EQ(trace.firstWriteError(), "Cannot write record: disk full");
  EXPECT_EQ(reported, std::vector<std::string>{"Cannot write record: disk full"});
  // The batches after them were written, the last lines last.
  std::lock_guard guard(seen.mutex);
  EXPECT_EQ(seen.failNext, 0);
  const std::string last = "\"n\":19999,\"text\":\"REMARK lines the disk refuses\"}\n";
  ASSERT_GE(seen.bytes.size(), expected.size() + last.size());
  EXPECT_EQ(seen.bytes.substr(seen.bytes.size() - last.size()), last);
  size_t kept = 0;
  for (size_t at = expected.size(); (at = seen.bytes.find("disk refuses", at)) != std::string::npos;
       ++at)
    ++kept;
  EXPECT_GT(kept, 0u);
  EXPECT_LT(kept, 20000u);
}

}  // namespace
}  // namespace tavrix
