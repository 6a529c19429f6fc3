#include "testdb/test_database.h"

#include <system_error>

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

TestDatabase::TestDatabase(Sequencer& sequencer, const PathMap& paths)
    : seq_(sequencer), paths_(paths) {}

namespace {

constexpr std::string_view kFamily = "src/testdb/test_database.cc";

// DB_STAGECHECK step: a step number in the 16-bit range.
Parsed<int16_t> ParseStageCheck(const CommandLine& cmd) {
  const auto step = roundToInt16(leadingNumber(cmd.arg1));
  if (!step) return ParseFailure{"Stage step number out of range: " + cmd.arg1};
  return *step;
}

const Keyword<CommandLine> kDataEntry{"DB_DATAENTRY", kFamily, AsWritten};
const Keyword<int16_t> kStageCheck{"DB_STAGECHECK", kFamily, ParseStageCheck};

}  // namespace

std::vector<KeywordEntry> TestDatabaseKeywords() { return {Entry(kDataEntry), Entry(kStageCheck)}; }

void TestDatabase::registerCommands() {
  auto& d = seq_.dispatcher();
  // DB_DATAENTRY details-file [label]: Cancel jumps to the label, or ends the
  // run as STOP does when there is none.
  d.bind(kDataEntry, [this](Sequencer& seq, const CommandLine& cmd) {
    FinishUut();
    if (seq.endRequested()) return;
    const bool accepted = OpenTestDatabase(std::string(trim(cmd.arg1)));
    if (accepted || seq.runEnding()) return;
    if (!cmd.arg2.empty()) {
      seq.searchLabel(cmd.arg2);
    } else {
      seq.requestEnd(EndReason::kStop);
    }
  });
  // DB_STAGECHECK step
  d.bind(kStageCheck, [this](Sequencer&, const int16_t& step) { RunStageCheck(step); });
  seq_.addRunEndHook([this] { EndRun(); });
}

void TestDatabase::showPlainMessage(const std::string& text) {
  if (seq_.trace().enabled()) seq_.trace().event("message").field("title", "").field("text", text);
  seq_.operatorPort().showMessage("", text);
}

bool TestDatabase::askDataEntry(DataEntry& entry) {
  const Micros now = seq_.clock().now();
  Question question;
  question.kind = kDataEntryKind;
  question.title = kDataEntryTitle;
  question.text = "Serial Number, " + std::string(kDateLabel) + " " +
                  formatDate(now, "dd-mm-yyyy") + ", Operator(s), Description";
  question.choices = {std::string(kAccept), std::string(kCancel)};
  question.fieldsAfterChoice = true;
  for (;;) {
    const Answer answer = seq_.ask(question);
    if (!answer) return false;
    const DataEntryAnswer parsed = ParseDataEntryAnswer(*answer, now);
    if (parsed.cancelled) return false;
    if (parsed.accepted) {
      entry = parsed.entry;
      return true;
    }
    // The window stays open after its message.
    showPlainMessage(parsed.message);
    if (seq_.runEnding()) return false;
    if (!seq_.mayAskAgain(question, "the window refuses it: " + parsed.message)) return false;
  }
}

bool TestDatabase::OpenTestDatabase(const std::string& detailsPath) {
  accepted_ = false;
  DataEntry entry;
  if (askDataEntry(entry)) {
    entry_ = entry;
    accepted_ = true;
  }
  if (seq_.runEnding()) return false;

  if (!loaded_) {
    definition_ = TestDefinition{};
    DefinitionReadOptions options;
    options.paths = &paths_;
    options.files = &seq_.files();
    options.currentDirectory = currentDirectory;
    if (options.currentDirectory.empty()) options.currentDirectory = seq_.files().currentFolder();
    options.showMessage = [this](const std::string& text) { showPlainMessage(text); };
    if (ReadTestDefinitionFiles(detailsPath, options, definition_)) {
      loaded_ = true;
      detailsPath_ = detailsPath;
    } else {
      seq_.reportSequenceError(std::string(kMsgUnableToOpen) + detailsPath);
    }
  }

  // Cancel stores nothing, so no record is started for it.
  if (loaded_ && accepted_) {
    uut_ = UutRecord{};
    uut_.started = seq_.clock().now();
    uut_.serialNumber = entry_.serialNumber;
    uut_.testDate = entry_.testDate;
    uut_.operators = entry_.operators;
    uut_.description = entry_.description;
    uut_.entryStatus = 1;
    uut_.testVersion = definition_.details.version;
    uutOpen_ = true;
    if (seq_.trace().enabled()) {
      seq_.trace().event("uut").field("serial", uut_.serialNumber).field("state", "started");
    }
  }
  stageRow_ = 0;
  return accepted_;
}

void TestDatabase::FinishUut() {
  if (!uutOpen_) return;
  uutOpen_ = false;
  ++uutsFinished_;
  if (!uut_.passed) anyUutFailed_ = true;
  if (seq_.trace().enabled()) {
    seq_.trace()
        .event("uut")
        .field("serial", uut_.serialNumber)
        .field("state", uut_.passed ? "pass" : "fail");
  }
  std::string error;
  const Micros now = seq_.clock().now();
  std::vector<std::string> files;
  if (!WriteTestResults(seq_.files(), definition_.details, uut_, results, paths_, now, &error)) {
    seq_.reportSequenceError("Unable to write the results of UUT " + uut_.serialNumber + ": " +
                             error);
  } else if (results.writeResults) {
    const ResultsNames names = BuildResultsNames(definition_.details, uut_, results, now);
    files = {paths_.toLocal(names.summary), paths_.toLocal(names.details)};
  }
  for (auto& hook : finishedHooks_) hook(uut_, files);
  if (uutEnded) uutEnded(definition_, detailsPath_, uut_, now);
  seq_.processPendingEvents();
}

void TestDatabase::EndRun() {
  FinishUut();
  loaded_ = false;
  definition_ = TestDefinition{};
}

}  // namespace tavrix
