// A family of keywords that keeps state between lines: one class that owns
// that state, and one static table of its keywords, each with the handler
// that executes its parsed command on the family's state. Binding the
// family, lint's catalogue and the dispatcher all walk that table, so a
// keyword of the family is declared once, in its family's source file.
//
//   class WaitFamily final : public CommandFamily {
//     static const FamilyTable<WaitFamily>& Table();   // {keyword, handler}...
//   };
//   std::vector<KeywordEntry> WaitKeywords() { return EntriesOf(WaitFamily::Table()); }
//   void RegisterWaitCommands(Sequencer& seq) { seq.addFamily(std::make_unique<WaitFamily>(seq)); }
//
// The sequencer owns the families of its engine: two engines share no state.
#pragma once

#include <functional>
#include <vector>

#include "sequencer/dispatcher.h"
#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;

// What the sequencer holds of a family: it lives as long as the sequencer.
class CommandFamily {
 public:
  virtual ~CommandFamily() = default;
};

// One keyword of a family's table: what lint checks, and how the keyword's
// handler is bound to one family object.
template <class Family>
struct FamilyKeyword {
  KeywordEntry entry;
  std::function<void(Dispatcher&, Family&)> bind;
};

template <class Family>
using FamilyTable = std::vector<FamilyKeyword<Family>>;

// A keyword and its handler, a function of the family's object, the run
// (the sequencer or the narrower run context) and the parsed command.
template <class Family, class Context, class Command>
FamilyKeyword<Family> Handles(const Keyword<Command>& keyword,
                              void (*execute)(Family&, Context&, const Command&)) {
  return {Entry(keyword), [keyword, execute](Dispatcher& dispatcher, Family& family) {
            dispatcher.bind(keyword, [&family, execute](Sequencer& run, const Command& command) {
              execute(family, run, command);
            });
          }};
}

template <class Family>
std::vector<KeywordEntry> EntriesOf(const FamilyTable<Family>& table) {
  std::vector<KeywordEntry> entries;
  entries.reserve(table.size());
  for (const auto& keyword : table) entries.push_back(keyword.entry);
  return entries;
}

template <class Family>
void BindAll(Dispatcher& dispatcher, Family& family, const FamilyTable<Family>& table) {
  for (const auto& keyword : table) keyword.bind(dispatcher, family);
}

}  // namespace tavrix
