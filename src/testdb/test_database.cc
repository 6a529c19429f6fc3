#include "testdb/test_database.h"

#include <nlohmann/json.hpp>
#include <system_error>

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"

namespace tavrix {

TestDatabase::TestDatabase(Sequencer& sequencer, const PathMap& paths, ResultsSettings results)
    : seq_(sequencer), paths_(paths), results_(std::move(results)) {}

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
  seq_.addStatePart(
      "testDatabase", [this](nlohmann::json& part) { saveState(part); },
      [this](const nlohmann::json& part, std::string* error) { return restoreState(part, error); });
}

void TestDatabase::saveState(nlohmann::json& part) const {
  using nlohmann::json;
  part["loaded"] = loaded_;
  part["detailsPath"] = detailsPath_;
  part["entry"] = {entry_.serialNumber, entry_.testDate, entry_.operators, entry_.description};
  part["accepted"] = accepted_;
  part["uutOpen"] = uutOpen_;
  part["anyUutFailed"] = anyUutFailed_;
  part["uutsFinished"] = uutsFinished_;
  part["step"] = step_;
  part["stageRow"] = stageRow_;
  part["continue"] = continue_;
  part["verdict"] = verdict_;
  part["repeat"] = repeat_;
  part["lastAlert"] = lastAlert_;
  if (!uutOpen_) return;
  json uut;
  uut["started"] = uut_.started;
  uut["serial"] = uut_.serialNumber;
  uut["testDate"] = uut_.testDate;
  uut["operators"] = uut_.operators;
  uut["description"] = uut_.description;
  uut["entryStatus"] = uut_.entryStatus;
  uut["testVersion"] = uut_.testVersion;
  uut["passed"] = uut_.passed;
  json failures = json::array();
  for (const auto& f : uut_.failures)
    failures.push_back({f.stage, f.parameter, f.message, f.value});
  uut["failures"] = std::move(failures);
  json checks = json::array();
  for (size_t i = 0; i < uut_.checks.size(); ++i) {
    const CheckEntry& c = uut_.checks[i];
    const UutRecord::CheckOrigin origin =
        i < uut_.checkOrigins.size() ? uut_.checkOrigins[i] : UutRecord::CheckOrigin{};
    checks.push_back({c.parameter, c.channel, c.value, c.units, c.lower, c.upper, c.stage, c.passed,
                      c.failureText, origin.row, origin.kind});
  }
  uut["checks"] = std::move(checks);
  uut["resumeNotes"] = uut_.resumeNotes;
  part["uut"] = std::move(uut);
}

bool TestDatabase::restoreState(const nlohmann::json& part, std::string* error) {
  loaded_ = false;
  definition_ = TestDefinition{};
  detailsPath_ = part.at("detailsPath").get<std::string>();
  if (part.at("loaded").get<bool>()) {
    // The definition is read again from its files, as the run read it.
    DefinitionReadOptions options;
    options.paths = &paths_;
    options.files = &seq_.files();
    options.currentDirectory = seq_.files().currentFolder();
    options.showMessage = [this](const std::string& text) { showPlainMessage(text); };
    if (!ReadTestDefinitionFiles(detailsPath_, options, definition_)) {
      if (error) *error = std::string(kMsgUnableToOpen) + detailsPath_;
      return false;
    }
    loaded_ = true;
  }
  const auto& entry = part.at("entry");
  entry_.serialNumber = entry.at(0).get<std::string>();
  entry_.testDate = entry.at(1).get<Micros>();
  entry_.operators = entry.at(2).get<std::string>();
  entry_.description = entry.at(3).get<std::string>();
  accepted_ = part.at("accepted").get<bool>();
  uutOpen_ = part.at("uutOpen").get<bool>();
  anyUutFailed_ = part.at("anyUutFailed").get<bool>();
  uutsFinished_ = part.at("uutsFinished").get<int>();
  step_ = part.at("step").get<int16_t>();
  stageRow_ = part.at("stageRow").get<size_t>();
  continue_ = part.at("continue").get<bool>();
  verdict_ = part.at("verdict").get<int>();
  repeat_ = part.at("repeat").get<bool>();
  lastAlert_ = part.at("lastAlert").get<int>();
  uut_ = UutRecord{};
  if (!uutOpen_) return true;
  const auto& uut = part.at("uut");
  uut_.started = uut.at("started").get<Micros>();
  uut_.serialNumber = uut.at("serial").get<std::string>();
  uut_.testDate = uut.at("testDate").get<Micros>();
  uut_.operators = uut.at("operators").get<std::string>();
  uut_.description = uut.at("description").get<std::string>();
  uut_.entryStatus = uut.at("entryStatus").get<int16_t>();
  uut_.testVersion = uut.at("testVersion").get<float>();
  uut_.passed = uut.at("passed").get<bool>();
  for (const auto& f : uut.at("failures")) {
    uut_.failures.push_back({f.at(0).get<int16_t>(), f.at(1).get<std::string>(),
                             f.at(2).get<std::string>(), f.at(3).get<std::string>()});
  }
  for (const auto& c : uut.at("checks")) {
    CheckEntry check;
    check.parameter = c.at(0).get<std::string>();
    check.channel = c.at(1).get<std::string>();
    check.value = c.at(2).get<std::string>();
    check.units = c.at(3).get<std::string>();
    check.lower = c.at(4).get<std::string>();
    check.upper = c.at(5).get<std::string>();
    check.stage = c.at(6).get<int16_t>();
    check.passed = c.at(7).get<bool>();
    check.failureText = c.at(8).get<std::string>();
    uut_.checks.push_back(std::move(check));
    uut_.checkOrigins.push_back({c.at(9).get<size_t>(), c.at(10).get<std::string>()});
  }
  uut_.resumeNotes = uut.at("resumeNotes").get<std::vector<std::string>>();
  return true;
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
    options.currentDirectory = seq_.files().currentFolder();
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
  if (!WriteTestResults(seq_.files(), definition_.details, uut_, results_, paths_, now, &error)) {
    seq_.reportSequenceError("Unable to write the results of UUT " + uut_.serialNumber + ": " +
                             error);
  } else if (results_.writeResults) {
    const ResultsNames names = BuildResultsNames(definition_.details, uut_, results_, now);
    files = {paths_.toLocal(names.summary), paths_.toLocal(names.details)};
  }
  for (auto& hook : finishedHooks_) hook(uut_, files);
  if (uutEnded_) uutEnded_(definition_, detailsPath_, uut_, now);
  seq_.processPendingEvents();
}

void TestDatabase::EndRun() {
  FinishUut();
  loaded_ = false;
  definition_ = TestDefinition{};
}

}  // namespace tavrix
