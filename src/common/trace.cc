#include "common/trace.h"

#include <cinttypes>

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
  return n;
}

}  // namespace

std::string jsonString(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  char buf[8];
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7F) {
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else if (c < 0x80) {
          out += static_cast<char>(c);
        } else if (size_t n = utf8Length(text, i)) {
          out.append(text.substr(i, n));
          i += n - 1;
        } else {
          // A byte of the 8-bit character set: shown as that code point.
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        }
    }
  }
  out += '"';
  return out;
}

Trace::~Trace() { setOutput(nullptr, false); }

void Trace::setOutput(std::FILE* file, bool owned) {
  if (out_ != nullptr) {
    std::fflush(out_);
    if (owned_) std::fclose(out_);
  }
  out_ = file;
  owned_ = owned;
}

void Trace::write(const std::string& line) {
  if (out_ == nullptr) return;
  std::fwrite(line.data(), 1, line.size(), out_);
  std::fflush(out_);
}

Trace::Event::Event(Trace& trace, std::string_view ev) : trace_(trace) {
  const Micros t = trace.clock_.now() - trace.origin_;
  char buf[48];
  // Three decimals of seconds, rounded to the nearest millisecond.
  const int64_t ms = (t >= 0 ? t + 500 : t - 500) / 1000;
  std::snprintf(buf, sizeof buf, "{\"t\":%s%" PRId64 ".%03" PRId64, ms < 0 ? "-" : "",
                (ms < 0 ? -ms : ms) / 1000, (ms < 0 ? -ms : ms) % 1000);
  line_ = buf;
  line_ += ",\"ev\":";
  line_ += jsonString(ev);
}

Trace::Event::~Event() {
  line_ += "}\n";
  trace_.write(line_);
}

void Trace::Event::key(std::string_view name) {
  line_ += ',';
  line_ += jsonString(name);
  line_ += ':';
}

Trace::Event& Trace::Event::field(std::string_view name, std::string_view text) {
  key(name);
  line_ += jsonString(text);
  return *this;
}

Trace::Event& Trace::Event::field(std::string_view name, int64_t number) {
  key(name);
  line_ += std::to_string(number);
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

}  // namespace tavrix
