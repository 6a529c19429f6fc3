// The command dispatcher's keyword table: the 66 keywords in their order of
// comparison, each bound to the handler that its subsystem registers, and
// the words outside that table that a subsystem adds (load maintenance). The
// dispatcher knows no subsystem.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "sequencer/keyword.h"
#include "sequencer/line_splitter.h"

namespace tavrix {

class Sequencer;

using CommandHandler = std::function<void(Sequencer&, const CommandLine&)>;

constexpr size_t kKeywordCount = 66;
extern const std::array<std::string_view, kKeywordCount> kKeywords;

// Ends the run with the message of a line whose arguments do not parse.
void ReportParseFailure(Sequencer& sequencer, const std::string& message);

class Dispatcher {
 public:
  Dispatcher();

  // Binds a keyword to the handler that executes its parsed command: the run
  // parses the line first, and a line that does not parse ends the run with
  // the parse's message. A keyword outside the table of 66 is tried only for
  // words that match none of them. Binding a keyword twice throws
  // std::logic_error: each keyword has one handler.
  template <class Command>
  void bind(const Keyword<Command>& keyword,
            std::type_identity_t<std::function<void(Sequencer&, const Command&)>> execute) {
    if constexpr (std::is_same_v<Command, CommandLine>) {
      if (keyword.parse == &AsWritten) {
        add(Entry(keyword), std::move(execute));
        return;
      }
    }
    add(Entry(keyword), [parse = keyword.parse, execute = std::move(execute)](
                            Sequencer& seq, const CommandLine& line) {
      const auto parsed = parse(line);
      if (!parsed.ok()) {
        ReportParseFailure(seq, parsed.message());
        return;
      }
      execute(seq, *parsed);
    });
  }

  bool hasHandler(std::string_view keyword) const;
  // The bound keywords, in the order they were bound.
  const std::vector<KeywordEntry>& entries() const { return entries_; }

  // Runs the handler of `command.word`. A keyword of the table without a
  // handler ends the run with a sequence error that names it; any other word
  // without a handler is ignored.
  void run(Sequencer& sequencer, const CommandLine& command) const;

  // The message for a keyword whose subsystem is not part of this program.
  static std::string notAvailableText(std::string_view keyword);

 private:
  void add(KeywordEntry entry, CommandHandler handler);

  std::array<CommandHandler, kKeywordCount> handlers_;
  // Words outside the table, tried in the order bound.
  std::vector<std::pair<std::string, CommandHandler>> others_;
  std::vector<KeywordEntry> entries_;
};

}  // namespace tavrix
