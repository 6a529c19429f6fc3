// CHAIN and RETURN: a sequence continues in another file and comes back.
//   CHAIN file[, label]   goes on in `file`, from its start or behind the
//                         label; remembers the calling file and line
//   RETURN                goes on in the calling file behind its CHAIN line
// A file name may be written the Windows way (drive map); a relative name is
// taken from the folder of the file that holds the CHAIN line. Chains nest
// up to kMaxChainDepth files; every run starts again in the prepared file
// with an empty call stack.

#include "sequencer/chain.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/text_conventions.h"
#include "platform/files.h"
#include "sequencer/command_family.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr size_t kMaxChainDepth = 16;

struct ReturnPosition {
  std::string file;
  int16_t line = 0;
};

// Where each RETURN goes back to.
struct ChainFamily final : CommandFamily {
  std::vector<ReturnPosition> stack;
};

std::string ChainPath(Sequencer& seq, std::string_view written) {
  std::string local = seq.paths().toLocal(trim(written));
  if (!local.empty() && !isAbsolutePath(local)) {
    const std::string& current = seq.sequenceFileName();
    const size_t slash = current.find_last_of(platform::pathSeparators());
    if (slash != std::string::npos) local = join(current.substr(0, slash), local);
  }
  return local;
}

// CHAIN file[, label]
struct ChainCommand {
  std::string file;  // as written
  std::string label;
};

Parsed<ChainCommand> ParseChain(const CommandLine& cmd) {
  ChainCommand chain{std::string(trim(cmd.arg1)), cmd.arg2};
  if (chain.file.empty()) return ParseFailure{"Chain - no sequence file given"};
  return chain;
}

void Chain(ChainFamily& state, Sequencer& seq, const ChainCommand& cmd) {
  const std::string_view written = cmd.file;
  if (state.stack.size() >= kMaxChainDepth) {
    seq.reportSequenceError("Chain - more than " + std::to_string(kMaxChainDepth) +
                            " nested Chain commands: " + std::string(written));
    return;
  }
  const ReturnPosition back{seq.sequenceFileName(), seq.lineNumber()};
  std::string error;
  if (!seq.continueInFile(ChainPath(seq, written), 0, &error)) {
    seq.reportSequenceError("Chain - " + error);
    return;
  }
  state.stack.push_back(back);
  if (seq.trace().enabled()) seq.trace().event("chain").field("file", seq.sequenceFileName());
  if (!trim(cmd.label).empty()) seq.searchLabel(cmd.label);
}

void Return(ChainFamily& state, Sequencer& seq, const CommandLine&) {
  if (state.stack.empty()) {
    seq.reportSequenceError("Return - there is no Chain command to return to");
    return;
  }
  const ReturnPosition back = state.stack.back();
  state.stack.pop_back();
  std::string error;
  if (!seq.continueInFile(back.file, back.line, &error)) {
    seq.reportSequenceError("Return - " + error);
    return;
  }
  if (seq.trace().enabled())
    seq.trace().event("return").field("file", back.file).field("line", back.line);
}

constexpr std::string_view kFamily = "src/sequencer/chain.cc";
const Keyword<ChainCommand> kChain{"CHAIN", kFamily, ParseChain};
const Keyword<CommandLine> kReturn{"RETURN", kFamily, AsWritten};

const FamilyTable<ChainFamily>& ChainTable() {
  static const FamilyTable<ChainFamily> table{Handles(kChain, Chain), Handles(kReturn, Return)};
  return table;
}

}  // namespace

std::vector<KeywordEntry> ChainKeywords() { return EntriesOf(ChainTable()); }

void RegisterChainCommands(Sequencer& seq) {
  ChainFamily* state = &seq.addFamily(std::make_unique<ChainFamily>());
  BindAll(seq.dispatcher(), *state, ChainTable());
  seq.addPrepareHook([state] { state->stack.clear(); });
  seq.addStopHook([state] { state->stack.clear(); });
  // Where each RETURN goes back to, for a run that goes on in a chained file.
  seq.addStatePart(
      "chain",
      [state](nlohmann::json& part) {
        auto stack = nlohmann::json::array();
        for (const auto& at : state->stack) stack.push_back({at.file, at.line});
        part["stack"] = std::move(stack);
      },
      [state](const nlohmann::json& part, std::string*) {
        state->stack.clear();
        for (const auto& at : part.at("stack"))
          state->stack.push_back({at.at(0).get<std::string>(), at.at(1).get<int16_t>()});
        return true;
      });
}

}  // namespace tavrix
