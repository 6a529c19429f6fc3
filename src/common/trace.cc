#include "common/trace.h"

#include <array>
#include <bit>
#include <charconv>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

namespace tavrix {

namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0.
size_t utf8Length(std::string_view s, size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  size_t n = 0;
  if (c >= 0xC2 && c <= 0xDF)
    n = 2;
  else if (c >= 0xE0 && c <= 0xEF)
    n = 3;
  else if (c >= 0xF0 && c <= 0xF4)
    n = 4;
  else
    return 0;
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
  }
  const auto c1 = static_cast<unsigned char>(s[i + 1]);
  // Overlong forms, UTF-16 surrogates and code points above U+10FFFF.
  if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 >= 0xA0) || (c == 0xF0 && c1 < 0x90) ||
      (c == 0xF4 && c1 >= 0x90)) {
    return 0;
  }
  return n;
}

// The code points of Windows-1252 bytes 0x80..0x9F; the others are Latin-1.
constexpr char16_t kCp1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

std::string utf8FromSequenceText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (const size_t n = utf8Length(text, i)) {
      out.append(text.substr(i, n));
      i += n - 1;
    } else {
      appendUtf8(out, c < 0xA0 ? kCp1252High[c - 0x80] : c);
    }
  }
  return out;
}

namespace {

// The bytes that a JSON string takes as they are: printable ASCII but the
// quote and the backslash.
constexpr auto kPlainBytes = [] {
  std::array<bool, 256> plain{};
  for (int c = 0x20; c <= 0x7E; ++c) plain[c] = c != '"' && c != '\\';
  return plain;
}();

// Whether `text` goes into a JSON string as it is. Eight bytes at a time
// first: a word without a control character, DEL, a byte above 0x7F, a quote
// or a backslash needs no closer look.
bool plainJson(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHigh = 0x8080808080808080ULL;
  const size_t n = text.size();
  if (n < 8) {
    for (const char c : text) {
      if (!kPlainBytes[static_cast<unsigned char>(c)]) return false;
    }
    return true;
  }
  // The last word overlaps the one before it rather than leave a tail.
  for (size_t i = 0;; i += 8) {
    if (i > n - 8) i = n - 8;
    uint64_t w;
    std::memcpy(&w, text.data() + i, 8);
    const uint64_t quote = w ^ (kOnes * '"');
    const uint64_t backslash = w ^ (kOnes * '\\');
    const uint64_t del = w ^ (kOnes * 0x7F);
    // A byte below 0x20 (or a zero byte of the others) borrows into its top bit.
    const uint64_t found = (((w - kOnes * 0x20) & ~w) | ((quote - kOnes) & ~quote) |
                            ((backslash - kOnes) & ~backslash) | ((del - kOnes) & ~del) | w) &
                           kHigh;
    if (found != 0) break;
    if (i == n - 8) return true;
  }
  for (const char c : text) {
    if (!kPlainBytes[static_cast<unsigned char>(c)]) return false;
  }
  return true;
}

// Copies `text` to `to` and says whether it goes into a JSON string as it
// is, reading each byte once: eight bytes at a time (the last word
// overlapping the one before), the word test as plainJson's.
bool copyPlainJson(char* to, std::string_view text) {
  const size_t n = text.size();
  const char* const from = text.data();
  if (n < 8) {
    bool plain = true;
    for (size_t i = 0; i < n; ++i) {
      to[i] = from[i];
      plain &= kPlainBytes[static_cast<unsigned char>(from[i])];
    }
    return plain;
  }
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHigh = 0x8080808080808080ULL;
  uint64_t found = 0;
  for (size_t i = 0;; i += 8) {
    if (i > n - 8) i = n - 8;
    uint64_t w;
    std::memcpy(&w, from + i, 8);
    std::memcpy(to + i, &w, 8);
    const uint64_t quote = w ^ (kOnes * '"');
    const uint64_t backslash = w ^ (kOnes * '\\');
    // A byte below 0x20, a quote or a backslash borrows into its top bit; a
    // DEL carries into it; a byte above 0x7F has it (any carry it makes
    // goes past a byte already found).
    found |= ((w - kOnes * 0x20) & ~w) | ((quote - kOnes) & ~quote) |
             ((backslash - kOnes) & ~backslash) | (w + kOnes) | w;
    if (i == n - 8) break;
  }
  if ((found & kHigh) == 0) return true;
  for (size_t i = 0; i < n; ++i) {
    if (!kPlainBytes[static_cast<unsigned char>(from[i])]) return false;
  }
  return true;
}

// A number 0..99999 in decimal, two digits at a time from a table.
constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

char* putSmallNumber(char* p, int number) {
  const int digits = number < 10      ? 1
                     : number < 100   ? 2
                     : number < 1000  ? 3
                     : number < 10000 ? 4
                                      : 5;
  char* at = p + digits;
  while (number >= 100) {
    const int pair = number % 100;
    number /= 100;
    at -= 2;
    std::memcpy(at, kDigitPairs + 2 * pair, 2);
  }
  if (number >= 10) {
    std::memcpy(at - 2, kDigitPairs + 2 * number, 2);
  } else {
    at[-1] = static_cast<char>('0' + number);
  }
  return p + digits;
}

// Appends the JSON string literal of `text` to `out`.
void appendJsonString(std::string& out, std::string_view text) {
  // Most texts are printable ASCII with nothing to escape: they go as they are.
  if (!plainJson(text)) {
    out += nlohmann::json(utf8FromSequenceText(text)).dump();
    return;
  }
  out += '"';
  out.append(text);
  out += '"';
}

// Room for `n` more bytes after the first `used` of `buffer`, whose size is
// its room, not its content.
char* room(std::string& buffer, size_t used, size_t n) {
  if (used + n > buffer.size()) buffer.resize(std::max(buffer.size() * 2, used + n));
  return buffer.data() + used;
}

char* put(char* at, std::string_view bytes) {
  if (!bytes.empty()) std::memcpy(at, bytes.data(), bytes.size());
  return at + bytes.size();
}

}  // namespace

std::string jsonString(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  appendJsonString(out, text);
  return out;
}

namespace {

// Lines gathered for the record before they are written together.
constexpr size_t kGatherBytes = 64 * 1024;
// With a thread of the record's own, a batch is larger: handing one over
// wakes that thread, which costs the run about what writing 64 KiB would.
constexpr size_t kGatherBytesThreaded = 512 * 1024;
// No gathered line waits longer than this (written by the next event).
constexpr Micros kGatherAtMost = 250 * 1000;
// A run on a virtual clock may dispatch many lines in an instant of its
// clock: real time is read as well, once every so many lines.
constexpr int kLinesPerRealReading = 32;

}  // namespace

// Writes batches of the record's lines on a thread of its own, one batch
// at a time: the run's thread hands a batch over and goes on gathering the
// next in the buffer it gets back, and waits only when the batch before is
// still being written.
class Trace::RecordWriter {
 public:
  RecordWriter(OutputFile& file, size_t room) : file_(file), thread_([this] { writeBatches(); }) {
    batch_.resize(room);
  }
  ~RecordWriter() {
    {
      std::lock_guard guard(mutex_);
      ending_ = true;
    }
    work_.notify_one();
    thread_.join();
  }
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  // Takes the first `used` bytes of `batch` to write, and leaves in
  // `batch` the buffer of the batch before.
  void post(std::string& batch, size_t used) {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return !busy_; });
    batch_.swap(batch);
    used_ = used;
    busy_ = true;
    lock.unlock();
    work_.notify_one();
  }
  // Returns once nothing is being written.
  void wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return !busy_; });
  }
  // The batches that could not be written since the last call, and why the
  // first of them could not.
  int takeFailures(std::string& error) {
    std::lock_guard guard(mutex_);
    const int failures = failures_;
    failures_ = 0;
    error = std::move(firstError_);
    firstError_.clear();
    return failures;
  }

 private:
  void writeBatches() {
    std::unique_lock lock(mutex_);
    for (;;) {
      work_.wait(lock, [this] { return busy_ || ending_; });
      if (!busy_) return;
      lock.unlock();
      std::string error;
      const bool ok = file_.write(std::string_view(batch_.data(), used_), &error);
      lock.lock();
      if (!ok && failures_++ == 0) firstError_ = std::move(error);
      busy_ = false;
      done_.notify_one();
    }
  }

  OutputFile& file_;
  std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable done_;
  std::string batch_;
  size_t used_ = 0;
  bool busy_ = false;
  bool ending_ = false;
  int failures_ = 0;
  std::string firstError_;
  std::thread thread_;
};

Trace::Trace(const Clock& clock) : clock_(clock) {}

Trace::~Trace() {
  flushRecord(gatheredSince_, false, nullptr);
  writer_.reset();
}

void Trace::setOutput(std::unique_ptr<OutputFile> out) { out_ = std::move(out); }

void Trace::setRecord(std::unique_ptr<OutputFile> record) {
  const Micros now = clock_.now();
  flushRecord(now, false, nullptr);
  countWriterFailures();
  writer_.reset();
  record_ = std::move(record);
  if (record_ == nullptr) return;
  const bool threaded = record_->writableFromAnyThread();
  gatherLimit_ = threaded ? kGatherBytesThreaded : kGatherBytes;
  if (gathered_.size() < gatherLimit_ + 4096) gathered_.resize(gatherLimit_ + 4096);
  if (threaded) writer_ = std::make_unique<RecordWriter>(*record_, gathered_.size());
}

bool Trace::flushRecord(Micros at, bool linesOnly, std::string* error) {
  gatheredSince_ = at;
  gatheredSinceReal_ = realTime_->now();
  linesUnclocked_ = 0;
  runAhead_ = false;
  if (gatheredUsed_ == 0 || record_ == nullptr) {
    gatheredUsed_ = 0;
    return true;
  }
  bool ok = true;
  if (writer_ != nullptr && linesOnly) {
    writer_->post(gathered_, gatheredUsed_);
  } else {
    if (writer_ != nullptr) writer_->wait();
    ok = record_->write(std::string_view(gathered_.data(), gatheredUsed_), error);
  }
  gatheredUsed_ = 0;
  return ok;
}

void Trace::countWriterFailures() {
  if (writer_ == nullptr) return;
  std::string error;
  for (int failures = writer_->takeFailures(error); failures > 0; --failures) countLoss(error);
}

void Trace::countLoss(const std::string& error) {
  if (linesLost_++ == 0) {
    firstError_ = error;
    if (onFirstLoss_) onFirstLoss_(error);
  }
}

bool Trace::mayWait(Micros at) {
  if (gatheredUsed_ >= gatherLimit_) return false;
  // (A clock set back counts as a quarter second gone.)
  const bool runQuarter = at - gatheredSince_ >= kGatherAtMost || at < gatheredSince_;
  // Real time is read once every so many lines while the run's clock has
  // not gone a quarter second, or has but was ahead of real time at the
  // last reading.
  if ((!runQuarter || runAhead_) && ++linesUnclocked_ < kLinesPerRealReading) return true;
  linesUnclocked_ = 0;
  const Micros now = realTime_->now();
  // A quarter second of real time since the last write; or of the run's
  // time, unless lines alone were written less than a real quarter second
  // ago: a run whose clock goes ahead of real time (a dry run skipping its
  // waits) writes its lines four times a second, not at every wait.
  const bool realQuarter = now - gatheredSinceReal_ >= kGatherAtMost;
  if (!realQuarter && !(runQuarter && now - linesWrittenReal_ >= kGatherAtMost)) {
    runAhead_ = runQuarter;
    return true;
  }
  linesWrittenReal_ = now;
  return false;
}

void Trace::write(std::string_view line, bool aLine, Micros at) {
  std::string error;
  bool written = true;
  if (out_ != nullptr && !out_->write(line, &error)) written = false;
  if (record_ != nullptr) {
    put(room(gathered_, gatheredUsed_, line.size()), line);
    gatheredUsed_ += line.size();
  }
  recordGathered(aLine, at, written, std::move(error));
}

void Trace::recordGathered(bool aLine, Micros at, bool written, std::string error) {
  if (record_ != nullptr && !(aLine && mayWait(at))) {
    if (!flushRecord(at, aLine, written ? &error : nullptr)) written = false;
    countWriterFailures();
  }
  if (!written) countLoss(error);
}

std::string_view Trace::start(Micros at) {
  const Micros t = at - origin_;
  // Three decimals of seconds, rounded to the nearest millisecond. Lines
  // come many to a millisecond: the text of the last one is kept.
  const int64_t ms = (t >= 0 ? t + 500 : t - 500) / 1000;
  if (ms != startMs_ || startLength_ == 0) {
    const int64_t whole = (ms < 0 ? -ms : ms) / 1000;
    const int64_t thousandths = (ms < 0 ? -ms : ms) % 1000;
    char* p = put(start_, "{\"t\":");
    if (ms < 0) *p++ = '-';
    p = std::to_chars(p, start_ + sizeof start_, whole).ptr;
    *p++ = '.';
    *p++ = static_cast<char>('0' + thousandths / 100);
    *p++ = static_cast<char>('0' + thousandths / 10 % 10);
    *p++ = static_cast<char>('0' + thousandths % 10);
    startMs_ = ms;
    startLength_ = static_cast<size_t>(p - start_);
  }
  return std::string_view(start_, startLength_);
}

uint64_t Trace::numberDigits(int number) {
  // The digits are kept as one word (when there are at most eight of them)
  // and counted up in a register: a word read back right after bytes were
  // stored into it would wait for those stores.
  uint64_t digits;
  std::memcpy(&digits, numberText_, sizeof digits);
  if (number == lastNumber_) return digits;
  if (number == lastNumber_ + 1 && number > 0 && numberLength_ > 0) {
    // (The place of the i-th character in the word.)
    constexpr bool kLittle = std::endian::native == std::endian::little;
    const auto shift = [](int i) { return kLittle ? 8 * i : 56 - 8 * i; };
    int i = numberLength_ - 1;
    while (i >= 0 && ((digits >> shift(i)) & 0xFF) == '9') {
      digits -= uint64_t{9} << shift(i);  // '9' to '0'
      --i;
    }
    if (i >= 0) {
      digits += uint64_t{1} << shift(i);
    } else if (numberLength_ < 8) {
      digits = kLittle ? (digits << 8) | '1' : (digits >> 8) | (uint64_t{'1'} << 56);
      ++numberLength_;
    } else {
      numberLength_ = 0;
    }
  } else {
    numberLength_ = 0;
  }
  if (numberLength_ == 0 && number >= 0 && number < 100000) {
    char text[8] = {};
    numberLength_ = static_cast<int>(putSmallNumber(text, number) - text);
    std::memcpy(&digits, text, sizeof digits);
  }
  std::memcpy(numberText_, &digits, sizeof digits);
  lastNumber_ = number;
  return digits;
}

void Trace::line(Micros at, int number, std::string_view text) {
  // The kept start of the line when the millisecond is the last one's.
  const Micros t = at - origin_;
  const int64_t ms = (t >= 0 ? t + 500 : t - 500) / 1000;
  if (ms != startMs_ || startLength_ == 0) start(at);
  // With the record alone (no --trace output) the line is put together
  // where it waits to be written.
  const bool gathered = out_ == nullptr && record_ != nullptr;
  std::string& buffer = gathered ? gathered_ : lineBuffer_;
  const size_t used = gathered ? gatheredUsed_ : 0;
  // Room for the whole kept start (copied whole, then cut to its length),
  // the fixed parts, the number and the text as it is plus a word.
  char* const first = room(buffer, used, sizeof start_ + 64 + text.size());
  std::memcpy(first, start_, sizeof start_);
  char* p = first + startLength_;
  p = put(p, ",\"ev\":\"line\",\"n\":");
  const uint64_t digits = numberDigits(number);
  if (numberLength_ > 0) {
    std::memcpy(p, &digits, sizeof digits);
    p += numberLength_;
  } else {
    p = std::to_chars(p, p + 16, number).ptr;
  }
  p = put(p, ",\"text\":\"");
  size_t length;
  if (copyPlainJson(p, text)) {
    p += text.size();
    p = put(p, "\"}\n");
    length = static_cast<size_t>(p - first);
  } else {
    // The text needs escaping or converting: the general writer's literal
    // in place of the copy (the buffer may move to make room for it).
    const size_t head = static_cast<size_t>(p - first) - 1;
    const std::string literal = nlohmann::json(utf8FromSequenceText(text)).dump();
    char* const again = room(buffer, used, head + literal.size() + 2);
    p = put(again + head, literal);
    p = put(p, "}\n");
    length = static_cast<size_t>(p - again);
  }
  if (gathered) {
    gatheredUsed_ += length;
    // What mayWait decides, for the usual line without a call.
    if (gatheredUsed_ < gatherLimit_ && at >= gatheredSince_ &&
        (at - gatheredSince_ < kGatherAtMost || runAhead_) &&
        linesUnclocked_ + 1 < kLinesPerRealReading) {
      ++linesUnclocked_;
      return;
    }
    recordGathered(true, at, true, std::string());
  } else {
    write(std::string_view(lineBuffer_.data(), length), true, at);
  }
}

Trace::Event::Event(Trace& trace, std::string_view ev)
    : trace_(trace), at_(trace.clock_.now()), aLine_(ev == "line"), line_(&own_) {
  if (!trace.buildingInUse_) {
    trace.buildingInUse_ = true;
    line_ = &trace.building_;
    line_->clear();
  } else {
    own_.reserve(96);
  }
  line_->append(trace.start(at_));
  line_->append(",\"ev\":");
  appendJsonString(*line_, ev);
}

Trace::Event::~Event() {
  *line_ += "}\n";
  trace_.write(*line_, aLine_, at_);
  if (line_ == &trace_.building_) trace_.buildingInUse_ = false;
}

void Trace::Event::key(std::string_view name) {
  *line_ += ',';
  appendJsonString(*line_, name);
  *line_ += ':';
}

Trace::Event& Trace::Event::field(std::string_view name, std::string_view text) {
  key(name);
  appendJsonString(*line_, text);
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, int64_t number) {
  key(name);
  char digits[24];
  line_->append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, bool value) {
  key(name);
  *line_ += value ? "true" : "false";
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, std::nullopt_t) {
  key(name);
  *line_ += "null";
  return *this;
}

std::string visibleText(std::string_view raw) {
  const std::string text = utf8FromSequenceText(raw);
  std::string out;
  out.reserve(text.size());
  auto escape = [&](unsigned value) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\x%02X", value);
    out += buf;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7F) {
      escape(c);
    } else if (c == 0xC2 && i + 1 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
               static_cast<unsigned char>(text[i + 1]) <= 0x9F) {
      escape(static_cast<unsigned char>(text[++i]));  // a C1 control
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace tavrix
