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

inline constexpr std::string_view kRigGreeting = "TAVRIX-RIG 1";

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

// "HOST:PORT" (the host may be empty: 127.0.0.1).
bool ParseHostPort(std::string_view text, std::string& host, uint16_t& port);

}  // namespace tavrix
