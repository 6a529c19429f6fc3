// The line protocol between a rig server and its TCP link clients, described
// in docs/simulated-rig.md. Every request is one line "<id> <VERB> ..." and
// gets one response line "<id> <code>" or "<id> <code> =<text>". Text fields
// are escaped so that a line never holds a line end or a tab.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix {

// The greeting of the first protocol, which answers a bare "HELLO": a
// client that knows no more accepts nothing else.
inline constexpr std::string_view kRigGreeting = "TAVRIX-RIG 1";
// A client that knows the second protocol says "HELLO 2"; a server that
// knows it too answers with this greeting, one that does not with the
// first. The second protocol adds SENDREPLY: a command and the first poll
// of its reply in one request.
inline constexpr std::string_view kRigGreeting2 = "TAVRIX-RIG 2";
inline constexpr std::string_view kRigHello2 = "HELLO 2";

// Reply codes of the server's own refusals, sent with request id 0: a
// request line too long, a connection beyond the server's means, and a
// connection dropped after an hour without a request (a link that gets the
// last one may connect again).
inline constexpr int32_t kRigRequestTooLong = 36;
inline constexpr int32_t kRigTooManyClients = 37;
inline constexpr int32_t kRigIdleClosed = 38;
// The key check failed (or a client without a key came to a server that
// needs one); the server closes the connection after it.
inline constexpr int32_t kRigKeyRefused = 39;

// "\" -> "\\", LF -> "\n", CR -> "\r", TAB -> "\t", NUL -> "\0".
std::string EscapeField(std::string_view text);
std::string UnescapeField(std::string_view text);

struct RigResponse {
  uint64_t id = 0;
  int32_t code = 0;
  std::optional<std::string> text;  // unescaped
};
// Reads "<id> <code>[ =<text>]"; false for anything else.
bool ParseRigResponse(std::string_view line, RigResponse& response);

// The text of a SENDREPLY response whose command was taken: the result of
// the reply poll made at once, "<code>" or "0:<reply>".
std::string SendReplyText(int32_t replyCode, std::string_view reply);
// Reads such a text; false for anything else.
bool ParseSendReplyText(std::string_view text, int32_t& replyCode, std::string& reply);

// "HOST:PORT" (the host may be empty: 127.0.0.1).
bool ParseHostPort(std::string_view text, std::string& host, uint16_t& port);

}  // namespace tavrix
