#include "indexing/indexing_commands.h"

#include <memory>
#include <nlohmann/json.hpp>

#include "common/text_conventions.h"
#include "indexing/index_files.h"
#include "sequencer/companion.h"
#include "sequencer/sequencer.h"

namespace tavrix {

namespace {

constexpr std::string_view kLoggerNameFailed = "New Logger data filename could not be created";
constexpr std::string_view kLoggerNameIsFolder =
    "New Logger data filespec is not a valid file specification";
constexpr std::string_view kFolderNameFailed = "New 580 data directory name could not be created";
constexpr std::string_view kFolderNameIsFile =
    "Indexed filespec for IndexSave580 is not a valid directory name";
// The logger's menu keys: the D menu, its N item, delete the proposed name;
// the new name follows, then Enter.
constexpr std::string_view kLoggerKeysBefore = "%D%N{DEL}";
constexpr std::string_view kLoggerKeysAfter = "~";
constexpr int kRecorderChannels = 16;

int IndexNumber(std::string_view text) {
  if (trim(text).empty()) return 1;
  const auto number = roundToInt16(leadingNumber(text));
  return number ? *number : 0;
}

// IssueIndexedName: the name, or empty text after any message it shows.
std::string Issue(IndexFileTable& table, Sequencer& seq, std::string_view number) {
  std::string message;
  std::string reason;
  const std::string name = table.issue(IndexNumber(number), seq.clock().now(), &message, &reason,
                                       [&seq] { seq.processPendingEvents(); });
  // A number taken is never to be taken again by a run that goes on after
  // an abrupt end: the line's end is checkpointed.
  if (!name.empty()) seq.wantCheckpoint();
  if (!message.empty()) seq.showMessage(message);
  if (name.empty() && seq.trace().enabled()) seq.trace().event("index").field("error", reason);
  if (!name.empty() && seq.trace().enabled()) seq.trace().event("index").field("name", name);
  return name;
}

bool EndsWithSeparator(std::string_view name) {
  return !name.empty() && (name.back() == '\\' || name.back() == '/');
}

void IndexInit(IndexFileTable& table, Sequencer& seq, const CommandLine& cmd) {
  const auto limit = roundToInt16(leadingNumber(cmd.arg3));
  std::string message;
  if (!table.add(cmd.arg1, cmd.arg2, limit.value_or(0), &message)) seq.showMessage(message);
}

void IndexLoggerFile(IndexFileTable& table, Companion& companion, Sequencer& seq,
                     const CommandLine& cmd) {
  const std::string name = Issue(table, seq, cmd.arg2);
  if (name.empty()) {
    seq.showMessage(kLoggerNameFailed);
    return;
  }
  if (EndsWithSeparator(name)) {
    seq.showMessage(kLoggerNameIsFolder);
    return;
  }
  std::string error;
  const std::string keys = std::string(kLoggerKeysBefore) + name + std::string(kLoggerKeysAfter);
  if (!companion.sendKeys(trim(cmd.arg1), keys, &error)) {
    seq.reportSequenceError("IndexLoggerFile - " + error);
  }
}

void IndexSave580(IndexFileTable& table, Sequencer& seq, const CommandLine& cmd) {
  const std::string name = Issue(table, seq, cmd.arg3);
  if (name.empty()) {
    seq.showMessage(kFolderNameFailed);
    return;
  }
  if (!EndsWithSeparator(name)) {
    seq.showMessage(kFolderNameIsFile);
    return;
  }
  FileSystem& files = seq.files();
  const std::string folder = seq.paths().toLocal(std::string_view(name).substr(0, name.size() - 1));
  std::string error;
  if (!files.makeFolders(folder, &error)) {
    const size_t why = error.rfind("\": ");
    seq.showMessage("Cannot create the folder " + name + ": " +
                    (why == std::string::npos ? error : error.substr(why + 3)));
    return;
  }
  const std::string extension(trim(cmd.arg2));
  const std::string suffix = "." + extension;
  // Old channel files in the folder go first; failures are ignored.
  std::vector<std::string> names;
  if (files.list(folder, names, nullptr)) {
    for (const auto& file : names) {
      if (file.size() >= suffix.size() &&
          file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0) {
        files.remove(join(folder, file), nullptr);
      }
    }
  }
  const std::string source = seq.paths().toLocal(trim(cmd.arg1));
  for (int channel = 0; channel < kRecorderChannels; ++channel) {
    const std::string file = "chn" + std::to_string(channel) + suffix;
    std::string bytes;  // a missing channel file is skipped
    if (files.readFile(join(source, file), bytes, nullptr))
      files.writeAtomically(join(folder, file), bytes, nullptr);
  }
}

constexpr std::string_view kFamily = "src/indexing/indexing_commands.cc";
const Keyword<CommandLine> kIndexInit{"INDEXINIT", kFamily, AsWritten};
const Keyword<CommandLine> kIndexLoggerFile{"INDEXLOGGERFILE", kFamily, AsWritten};
const Keyword<CommandLine> kIndexSave580{"INDEXSAVE580", kFamily, AsWritten};

}  // namespace

std::vector<KeywordEntry> IndexingKeywords() {
  return {Entry(kIndexInit), Entry(kIndexLoggerFile), Entry(kIndexSave580)};
}

void RegisterIndexingCommands(Sequencer& seq, Companion& companion) {
  auto table = std::make_shared<IndexFileTable>(seq.files(), seq.paths());
  Companion* port = &companion;
  auto& d = seq.dispatcher();
  d.bind(kIndexInit, [table](Sequencer& s, const CommandLine& c) { IndexInit(*table, s, c); });
  d.bind(kIndexLoggerFile, [table, port](Sequencer& s, const CommandLine& c) {
    IndexLoggerFile(*table, *port, s, c);
  });
  d.bind(kIndexSave580,
         [table](Sequencer& s, const CommandLine& c) { IndexSave580(*table, s, c); });
  seq.addPrepareHook([table] { table->clear(); });
  seq.addStopHook([table] { table->clear(); });
  // The slots of the index files set up go on in a resumed run; the files
  // themselves hold their numbers.
  seq.addStatePart(
      "indexFiles", [table](nlohmann::json& part) { part["specs"] = table->specs(); },
      [table](const nlohmann::json& part, std::string*) {
        table->setSpecs(part.at("specs").get<std::vector<std::string>>());
        return true;
      });
}

}  // namespace tavrix
