#include "instrument/tcp/rig_protocol.h"

#include <charconv>

namespace tavrix {

std::string EscapeField(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\0':
        out += "\\0";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string UnescapeField(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    switch (text[++i]) {
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case '0':
        out += '\0';
        break;
      default:
        out += text[i];
    }
  }
  return out;
}

bool ParseRigResponse(std::string_view line, RigResponse& response) {
  const char* begin = line.data();
  const char* end = begin + line.size();
  auto [p, ec] = std::from_chars(begin, end, response.id);
  if (ec != std::errc() || p == end || *p != ' ') return false;
  ++p;
  auto [q, ec2] = std::from_chars(p, end, response.code);
  if (ec2 != std::errc()) return false;
  response.text.reset();
  if (q == end) return true;
  if (end - q < 2 || q[0] != ' ' || q[1] != '=') return false;
  response.text = UnescapeField(std::string_view(q + 2, static_cast<size_t>(end - q - 2)));
  return true;
}

std::string SendReplyText(int32_t replyCode, std::string_view reply) {
  if (replyCode != 0) return std::to_string(replyCode);
  std::string out = "0:";
  out += reply;
  return out;
}

bool ParseSendReplyText(std::string_view text, int32_t& replyCode, std::string& reply) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  auto [p, ec] = std::from_chars(begin, end, replyCode);
  if (ec != std::errc() || p == begin) return false;
  reply.clear();
  if (p == end) return replyCode != 0;
  if (*p != ':' || replyCode != 0) return false;
  reply.assign(p + 1, end);
  return true;
}

bool ParseHostPort(std::string_view text, std::string& host, uint16_t& port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return false;
  host = std::string(text.substr(0, colon));
  if (host.empty()) host = "127.0.0.1";
  const std::string_view digits = text.substr(colon + 1);
  unsigned value = 0;
  auto [p, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || p != digits.data() + digits.size() || digits.empty() || value > 65535) {
    return false;
  }
  port = static_cast<uint16_t>(value);
  return true;
}

}  // namespace tavrix
