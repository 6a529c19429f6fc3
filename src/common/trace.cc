#include "common/trace.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace tavrix {

namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0.
size_t utf8Length(std::string_view s, size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  size_t n = 0;
  if (c >= 0xC2 && c <= 0xDF) n = 2;
  else if (c >= 0xE0 && c <= 0xEF) n = 3;
  else if (c >= 0xF0 && c <= 0xF4) n = 4;
  else return 0;
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

// Appends the JSON string literal of `text` to `out`.
void appendJsonString(std::string& out, std::string_view text) {
  // Most texts are printable ASCII with nothing to escape: they go as they are.
  for (const char c : text) {
    if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') {
      out += nlohmann::json(utf8FromSequenceText(text)).dump();
      return;
    }
  }
  out += '"';
  out.append(text);
  out += '"';
}

}  // namespace

std::string jsonString(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  appendJsonString(out, text);
  return out;
}

Trace::~Trace() = default;

void Trace::setOutput(std::unique_ptr<OutputFile> out) { out_ = std::move(out); }
void Trace::setRecord(std::unique_ptr<OutputFile> record) { record_ = std::move(record); }

void Trace::write(const std::string& line) {
  std::string error;
  bool written = true;
  if (out_ != nullptr && !out_->write(line, &error)) written = false;
  if (record_ != nullptr && !record_->write(line, written ? &error : nullptr)) written = false;
  if (written) return;
  if (linesLost_++ == 0) {
    firstError_ = error;
    if (onFirstLoss_) onFirstLoss_(error);
  }
}

Trace::Event::Event(Trace& trace, std::string_view ev) : trace_(trace) {
  const Micros t = trace.clock_.now() - trace.origin_;
  // Three decimals of seconds, rounded to the nearest millisecond.
  const int64_t ms = (t >= 0 ? t + 500 : t - 500) / 1000;
  const int64_t whole = (ms < 0 ? -ms : ms) / 1000;
  const int64_t thousandths = (ms < 0 ? -ms : ms) % 1000;
  char buf[48];
  char* at = buf;
  for (const char c : std::string_view("{\"t\":")) *at++ = c;
  if (ms < 0) *at++ = '-';
  at = std::to_chars(at, buf + sizeof buf, whole).ptr;
  *at++ = '.';
  *at++ = static_cast<char>('0' + thousandths / 100);
  *at++ = static_cast<char>('0' + thousandths / 10 % 10);
  *at++ = static_cast<char>('0' + thousandths % 10);
  line_.reserve(96);
  line_.assign(buf, at);
  line_ += ",\"ev\":";
  appendJsonString(line_, ev);
}

Trace::Event::~Event() {
  line_ += "}\n";
  trace_.write(line_);
}

void Trace::Event::key(std::string_view name) {
  line_ += ',';
  appendJsonString(line_, name);
  line_ += ':';
}

Trace::Event& Trace::Event::field(std::string_view name, std::string_view text) {
  key(name);
  appendJsonString(line_, text);
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, int64_t number) {
  key(name);
  char digits[24];
  line_.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, bool value) {
  key(name);
  line_ += value ? "true" : "false";
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, std::nullopt_t) {
  key(name);
  line_ += "null";
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
