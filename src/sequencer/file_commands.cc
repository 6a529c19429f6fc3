// The file commands and the recorder wait.
//   COPYFILE source, destination  copies a file; a destination that is a
//                                 folder receives the file under its name
//   FILEDELETE file               deletes the file, or every file that the
//                                 name matches when it holds * or ?; no
//                                 match is not an error
//   LOGONCE file, text            appends "dd-mm-yyyy hh:mm:ss<TAB>text" to
//                                 the log file, only the first time this
//                                 file and text meet in a run
//   WAIT580 folder                waits until the recorder's status file
//                                 folder\STATUS.HDW holds "CAPTURED"
// Paths may be written the Windows way (drive map, either separator).

#include "sequencer/file_commands.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "platform/wildcard.h"
#include "sequencer/command_family.h"
#include "sequencer/sequencer.h"
#include "sequencer/timed_wait.h"

namespace tavrix {

namespace {

constexpr std::string_view kRecorderStatusFile = "STATUS.HDW";
constexpr std::string_view kRecorderCaptured = "CAPTURED";
// WAIT580 looks at the recorder's status file this often.
constexpr Micros kRecorderPollInterval = kMicrosPerSecond;

// What LOGONCE has logged in this run.
struct FileFamily final : CommandFamily {
  std::set<std::pair<std::string, std::string>> logged;  // LOGONCE (file, text) this run
};

std::string Local(RunContext& seq, std::string_view written) {
  return seq.paths().toLocal(trim(written));
}

void CopyFile(FileFamily&, RunContext& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty() || trim(cmd.arg2).empty()) {
    seq.reportSequenceError("CopyFile - a source and a destination file are needed");
    return;
  }
  FileSystem& files = seq.files();
  const std::string from = Local(seq, cmd.arg1);
  std::string to = Local(seq, cmd.arg2);
  if (files.isFolder(to)) to = join(to, baseName(from));
  if (files.isFolder(from)) {
    seq.reportSequenceError("CopyFile - " + std::string(trim(cmd.arg1)) +
                            " is a folder, not a file");
    return;
  }
  // The copy goes through a temporary file in the destination's folder, so
  // that a failed copy leaves no partial file.
  std::string bytes;
  std::string error;
  if (!files.readFile(from, bytes, &error) || !files.writeAtomically(to, bytes, &error)) {
    seq.reportSequenceError("CopyFile - " + error);
  }
}

void FileDelete(FileFamily&, RunContext& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty()) {
    seq.reportSequenceError("FileDelete - no file given");
    return;
  }
  FileSystem& files = seq.files();
  const std::string spec = Local(seq, cmd.arg1);
  const std::string pattern = baseName(spec);
  std::vector<std::string> victims;
  if (pattern.find_first_of("*?") == std::string::npos) {
    const FileKind kind = files.info(spec).kind;
    if (kind == FileKind::kFolder) {
      seq.reportSequenceError("FileDelete - " + std::string(trim(cmd.arg1)) +
                              " is a folder, not a file");
      return;
    }
    if (kind != FileKind::kMissing) victims.push_back(spec);
  } else {
    const std::string folder = parentFolder(spec);
    std::vector<std::string> names;
    if (files.list(folder, names, nullptr)) {
      std::sort(names.begin(), names.end());
      for (const auto& name : names) {
        const std::string path = join(folder, name);
        if (platform::matchesWildcard(pattern, name) && !files.isFolder(path))
          victims.push_back(path);
      }
    }
  }
  for (const auto& victim : victims) {
    std::string error;
    if (!files.remove(victim, &error)) {
      seq.reportSequenceError("FileDelete - " + error);
      return;
    }
  }
}

void LogOnce(FileFamily& state, RunContext& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty()) {
    seq.reportSequenceError("LogOnce - no log file given");
    return;
  }
  std::string text = cmd.arg2;
  if (!cmd.arg3.empty()) text += ", " + cmd.arg3;
  const std::string file = Local(seq, cmd.arg1);
  if (!state.logged.insert({file, text}).second) return;
  const Micros now = seq.clock().now();
  std::string error;
  if (!appendLines(
          seq.files(), file,
          {formatDate(now, "dd-mm-yyyy") + " " + formatDate(now, "hh:mm:ss") + "\t" + text},
          &error)) {
    seq.reportSequenceError("LogOnce - " + error);
  }
}

void Wait580(FileFamily&, RunContext& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty()) {
    seq.reportSequenceError("Wait580 - no recorder folder given");
    return;
  }
  const std::string status = join(Local(seq, cmd.arg1), kRecorderStatusFile);
  PollUntil(seq, kRecorderPollInterval, [&] {
    std::string text;
    // A status file not (yet) there, or being rewritten, means not captured.
    if (!readTextFile(seq.files(), status, text, nullptr)) return PollResult::kWaiting;
    return upperCase(text).find(kRecorderCaptured) != std::string::npos ? PollResult::kMet
                                                                        : PollResult::kWaiting;
  });
}

constexpr std::string_view kFamily = "src/sequencer/file_commands.cc";
const Keyword<CommandLine> kCopyFile{"COPYFILE", kFamily, AsWritten};
const Keyword<CommandLine> kFileDelete{"FILEDELETE", kFamily, AsWritten};
const Keyword<CommandLine> kLogOnce{"LOGONCE", kFamily, AsWritten};
const Keyword<CommandLine> kWait580{"WAIT580", kFamily, AsWritten};

const FamilyTable<FileFamily>& FileTable() {
  static const FamilyTable<FileFamily> table{
      Handles(kCopyFile, CopyFile), Handles(kFileDelete, FileDelete), Handles(kLogOnce, LogOnce),
      Handles(kWait580, Wait580)};
  return table;
}

}  // namespace

std::vector<KeywordEntry> FileCommandKeywords() { return EntriesOf(FileTable()); }

void RegisterFileCommands(Sequencer& seq) {
  FileFamily* state = &seq.addFamily(std::make_unique<FileFamily>());
  BindAll(seq.dispatcher(), *state, FileTable());
  seq.addPrepareHook([state] { state->logged.clear(); });
  seq.addStopHook([state] { state->logged.clear(); });
  // What LOGONCE has logged this run is logged no second time after a resume.
  seq.addStatePart(
      "logOnce",
      [state](nlohmann::json& part) {
        auto logged = nlohmann::json::array();
        for (const auto& [file, text] : state->logged) logged.push_back({file, text});
        part["logged"] = std::move(logged);
      },
      [state](const nlohmann::json& part, std::string*) {
        state->logged.clear();
        for (const auto& entry : part.at("logged"))
          state->logged.insert({entry.at(0).get<std::string>(), entry.at(1).get<std::string>()});
        return true;
      });
}

}  // namespace tavrix
