// The messages of the control socket: one JSON object a line each way. A
// client sends {"cmd":"pause"} or {"cmd":"break","args":["120:3"]}; the run
// answers {"ok":true,...} or {"ok":false,"error":"..."}; after "events" it
// streams the run's events as JSON lines in the trace's layout ("t", "ev"
// and the event's fields) until the run ends.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sequencer/run_events.h"

namespace tavrix {

// A message longer than this (without its line end) is refused.
constexpr size_t kControlMessageLimit = 64 * 1024;

struct ControlRequest {
  std::string cmd;
  std::vector<std::string> args;
};

// Parses one request line: a JSON object with "cmd" (a string) and
// optionally "args" (an array of strings); nothing else. std::nullopt with
// a message for anything else.
std::optional<ControlRequest> ParseControlRequest(std::string_view line, std::string* error);
// The request as one JSON line (without the line end).
std::string ControlRequestJson(const ControlRequest& request);

// A run event as one JSON line (without the line end), "t" counted from
// `origin`: the trace's fields for the events the trace records, the
// event's filled fields for the others.
std::string RunEventJson(const RunEvent& event, int64_t origin);

// The string value of `key` in a flat JSON object line, if it has one
// (enough for a client to read replies).
std::optional<std::string> JsonStringField(std::string_view line, std::string_view key);

}  // namespace tavrix
