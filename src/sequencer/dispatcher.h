// The command dispatcher's keyword table: the 66 keywords in their order of
// comparison, each bound to the handler that its subsystem registers. The
// dispatcher knows no subsystem.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sequencer/line_splitter.h"

namespace tavrix {

class Sequencer;

using CommandHandler = std::function<void(Sequencer&, const CommandLine&)>;
// Called for a word that is no keyword; returns true when it handled it.
using CommandExtension = std::function<bool(Sequencer&, const CommandLine&)>;

constexpr size_t kKeywordCount = 66;
extern const std::array<std::string_view, kKeywordCount> kKeywords;

class Dispatcher {
 public:
  Dispatcher();

  // Binds a keyword of the table to its handler; returns false (and binds
  // nothing) for a word that is not in the table.
  bool registerHandler(std::string_view keyword, CommandHandler handler);
  bool hasHandler(std::string_view keyword) const;

  // Extensions see the words that match no keyword, in the order added.
  void addExtension(CommandExtension extension);

  // Runs the handler of `command.word`. A keyword without a handler ends the
  // run with a sequence error that names it; a word that is no keyword (and
  // that no extension takes) is ignored.
  void run(Sequencer& sequencer, const CommandLine& command) const;

  // The message for a keyword whose subsystem is not part of this program.
  static std::string notAvailableText(std::string_view keyword);

 private:
  std::array<CommandHandler, kKeywordCount> handlers_;
  std::vector<CommandExtension> extensions_;
};

}  // namespace tavrix
