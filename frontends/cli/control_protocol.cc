#include "control_protocol.h"

#include <cstdio>

#include "common/trace.h"

namespace tavrix {

namespace {

// A small reader for the requests: objects, arrays of strings and strings.
class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : text_(text) {}

  void blanks() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\r' || text_[pos_] == '\n'))
      ++pos_;
  }
  bool take(char c) {
    blanks();
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }
  bool peek(char c) {
    blanks();
    return pos_ < text_.size() && text_[pos_] == c;
  }
  bool atEnd() {
    blanks();
    return pos_ >= text_.size();
  }
  std::optional<std::string> string() {
    if (!take('"')) return std::nullopt;
    std::string out;
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == '"') return out;
      if (static_cast<unsigned char>(c) < 0x20) return std::nullopt;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ >= text_.size()) return std::nullopt;
      const char e = text_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out += e;
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          if (pos_ + 4 > text_.size()) return std::nullopt;
          unsigned code = 0;
          for (int i = 0; i < 4; ++i) {
            const char h = text_[pos_++];
            code <<= 4;
            if (h >= '0' && h <= '9') {
              code |= static_cast<unsigned>(h - '0');
            } else if (h >= 'a' && h <= 'f') {
              code |= static_cast<unsigned>(h - 'a' + 10);
            } else if (h >= 'A' && h <= 'F') {
              code |= static_cast<unsigned>(h - 'A' + 10);
            } else {
              return std::nullopt;
            }
          }
          if (code < 0x80) {
            out += static_cast<char>(code);
          } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
          } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
          }
          break;
        }
        default:
          return std::nullopt;
      }
    }
    return std::nullopt;
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

}  // namespace

std::optional<ControlRequest> ParseControlRequest(std::string_view line, std::string* error) {
  const std::string_view want =
      "a request is one JSON object {\"cmd\": \"...\", \"args\": [\"...\"]} a line";
  JsonReader reader(line);
  ControlRequest request;
  bool hasCmd = false;
  if (!reader.take('{')) {
    *error = "not JSON: " + std::string(want);
    return std::nullopt;
  }
  if (!reader.take('}')) {
    do {
      const auto key = reader.string();
      if (!key || !reader.take(':')) {
        *error = "not JSON: " + std::string(want);
        return std::nullopt;
      }
      if (*key == "cmd") {
        const auto value = reader.string();
        if (!value) {
          *error = "\"cmd\" must be a string";
          return std::nullopt;
        }
        request.cmd = *value;
        hasCmd = true;
      } else if (*key == "args") {
        if (!reader.take('[')) {
          *error = "\"args\" must be an array of strings";
          return std::nullopt;
        }
        if (!reader.take(']')) {
          do {
            const auto value = reader.string();
            if (!value) {
              *error = "\"args\" must be an array of strings";
              return std::nullopt;
            }
            request.args.push_back(*value);
          } while (reader.take(','));
          if (!reader.take(']')) {
            *error = "not JSON: " + std::string(want);
            return std::nullopt;
          }
        }
      } else {
        *error = "unknown field \"" + *key + "\": " + std::string(want);
        return std::nullopt;
      }
    } while (reader.take(','));
    if (!reader.take('}')) {
      *error = "not JSON: " + std::string(want);
      return std::nullopt;
    }
  }
  if (!reader.atEnd()) {
    *error = "not JSON: " + std::string(want);
    return std::nullopt;
  }
  if (!hasCmd) {
    *error = "no \"cmd\": " + std::string(want);
    return std::nullopt;
  }
  return request;
}

std::string ControlRequestJson(const ControlRequest& request) {
  std::string line = "{\"cmd\":" + jsonString(request.cmd);
  if (!request.args.empty()) {
    line += ",\"args\":[";
    for (size_t i = 0; i < request.args.size(); ++i) {
      if (i > 0) line += ',';
      line += jsonString(request.args[i]);
    }
    line += ']';
  }
  return line + "}";
}

std::string RunEventJson(const RunEvent& event, int64_t origin) {
  char t[48];
  const int64_t micros = event.time - origin;
  std::snprintf(t, sizeof t, "%.3f", static_cast<double>(micros) / 1e6);
  std::string line = std::string("{\"t\":") + t + ",\"ev\":";
  const auto add = [&line](const char* key, const std::string& value) {
    line += std::string(",\"") + key + "\":" + value;
  };
  switch (event.kind) {
    // The events the trace records, as it records them.
    case RunEventKind::kLine:
      line += "\"line\"";
      add("n", std::to_string(event.line));
      add("text", jsonString(event.text));
      break;
    case RunEventKind::kStatus:
      line += "\"status\"";
      add("text", jsonString(event.text));
      break;
    case RunEventKind::kMessage:
      line += "\"message\"";
      add("title", jsonString(event.title));
      add("text", jsonString(event.text));
      if (!event.flag) add("shown", "false");
      break;
    case RunEventKind::kAnswer:
      line += "\"prompt\"";
      add("kind", jsonString(event.title));
      add("text", jsonString(event.text));
      add("answer", event.answer ? jsonString(*event.answer) : "null");
      break;
    case RunEventKind::kHold:
      line += "\"hold\"";
      add("n", std::to_string(event.line));
      add("reason", jsonString(event.title));
      if (event.title == "break") add("id", std::to_string(event.number));
      break;
    case RunEventKind::kRelease:
      line += "\"resume\"";
      add("by", jsonString(event.text));
      break;
    default: {
      line += jsonString(RunEventKindName(event.kind));
      if (event.line != 0) add("n", std::to_string(event.line));
      if (event.number != 0) add("number", std::to_string(event.number));
      if (event.kind == RunEventKind::kStarted || event.kind == RunEventKind::kUut ||
          event.kind == RunEventKind::kStopped || event.kind == RunEventKind::kStopAllowed)
        add("flag", event.flag ? "true" : "false");
      if (!event.title.empty()) add("title", jsonString(event.title));
      if (!event.text.empty()) add("text", jsonString(event.text));
      if (!event.items.empty()) {
        std::string items = "[";
        for (size_t i = 0; i < event.items.size(); ++i) {
          if (i > 0) items += ',';
          items += jsonString(event.items[i]);
        }
        add("items", items + "]");
      }
      break;
    }
  }
  return line + "}";
}

std::optional<std::string> JsonStringField(std::string_view line, std::string_view key) {
  const std::string needle = "\"" + std::string(key) + "\":";
  const size_t at = line.find(needle);
  if (at == std::string_view::npos) return std::nullopt;
  JsonReader reader(line.substr(at + needle.size()));
  return reader.string();
}

}  // namespace tavrix
