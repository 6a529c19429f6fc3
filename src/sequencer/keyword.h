// A keyword of the command language as one entry: its name, the source file
// of its family, and the parse that turns the line's three argument strings
// into the command its handler executes, or into the message the run gives
// for the line. The run parses a line and then executes it; `tavrix-cli lint`
// calls the same parse, so a line fails lint exactly when its arguments fail
// the run.
//
// A parse checks only the text of the arguments. What a handler can know
// only at run time (a channel's reading, a label, the state of the run)
// stays in the handler. When the run gives an argument error only after such
// a check, the command carries it as `lateError`: the handler reports it
// where the run reaches it, and lint reports it like any other.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "sequencer/line_splitter.h"

namespace tavrix {

// A line whose arguments do not parse, with the message the run reports.
struct ParseFailure {
  std::string message;
};

// The outcome of a parse: the typed command or the failure.
template <class Command>
class Parsed {
 public:
  Parsed(Command command) : value_(std::move(command)) {}  // NOLINT(google-explicit-constructor)
  Parsed(ParseFailure failure)
      : value_(std::move(failure)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return std::holds_alternative<Command>(value_); }
  const Command& operator*() const { return std::get<Command>(value_); }
  const Command* operator->() const { return &std::get<Command>(value_); }
  const std::string& message() const { return std::get<ParseFailure>(value_).message; }

 private:
  std::variant<Command, ParseFailure> value_;
};

template <class Command>
struct Keyword {
  std::string_view name;
  std::string_view family;  // the family's source file, from the top of the tree
  Parsed<Command> (*parse)(const CommandLine&);
};

// The parse of a keyword whose handler checks nothing in the text of its
// arguments: the command is the line as split.
inline Parsed<CommandLine> AsWritten(const CommandLine& line) { return line; }

// The message of an argument error, whether the parse fails or the command
// carries a late error; std::nullopt when the arguments are good.
template <class Command>
std::optional<std::string> ArgumentError(const Parsed<Command>& parsed) {
  if (!parsed.ok()) return parsed.message();
  if constexpr (requires(const Command& c) { c.lateError; }) return parsed->lateError;
  return std::nullopt;
}

// A keyword with its command type erased: what the keyword table holds.
struct KeywordEntry {
  std::string name;
  std::string family;
  // The keyword's parse, giving only its argument error.
  std::function<std::optional<std::string>(const CommandLine&)> check;
};

template <class Command>
KeywordEntry Entry(const Keyword<Command>& keyword) {
  return {std::string(keyword.name), std::string(keyword.family),
          [parse = keyword.parse](const CommandLine& line) { return ArgumentError(parse(line)); }};
}

}  // namespace tavrix
