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

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "platform/wildcard.h"
#include "sequencer/sequencer.h"
#include "sequencer/timed_wait.h"

namespace tavrix {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kRecorderStatusFile = "STATUS.HDW";
constexpr std::string_view kRecorderCaptured = "CAPTURED";
// WAIT580 looks at the recorder's status file this often.
constexpr Micros kRecorderPollInterval = kMicrosPerSecond;

struct FileState {
  std::set<std::pair<std::string, std::string>> logged;  // LOGONCE (file, text) this run
};

std::string Local(Sequencer& seq, std::string_view written) {
  return seq.paths().toLocal(trim(written));
}

// Copies through a temporary file in the destination's folder, so that a
// failed copy leaves no partial file.
bool CopyWhole(const fs::path& from, const fs::path& to, std::string* error) {
  std::string text;
  if (!readTextFile(from.string(), text, error)) return false;
  fs::path temp = to;
  temp += ".tavrix-copy";
  std::error_code ec;
  {
    std::ofstream out(temp, std::ios::binary);
    if (!out) {
      *error = "cannot write " + to.string() + ": " + std::strerror(errno);
      return false;
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
      *error = "cannot write " + to.string() + ": " + std::strerror(errno);
      fs::remove(temp, ec);
      return false;
    }
  }
  fs::rename(temp, to, ec);
  if (ec) {
    *error = "cannot write " + to.string() + ": " + ec.message();
    fs::remove(temp, ec);
    return false;
  }
  return true;
}

void CopyFile(FileState&, Sequencer& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty() || trim(cmd.arg2).empty()) {
    seq.reportSequenceError("CopyFile - a source and a destination file are needed");
    return;
  }
  const fs::path from = Local(seq, cmd.arg1);
  fs::path to = Local(seq, cmd.arg2);
  std::error_code ec;
  if (fs::is_directory(to, ec)) to /= from.filename();
  if (fs::is_directory(from, ec)) {
    seq.reportSequenceError("CopyFile - " + std::string(trim(cmd.arg1)) +
                            " is a folder, not a file");
    return;
  }
  std::string error;
  if (!CopyWhole(from, to, &error)) seq.reportSequenceError("CopyFile - " + error);
}

void FileDelete(FileState&, Sequencer& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty()) {
    seq.reportSequenceError("FileDelete - no file given");
    return;
  }
  const fs::path spec = Local(seq, cmd.arg1);
  const std::string pattern = spec.filename().string();
  std::vector<fs::path> victims;
  std::error_code ec;
  if (pattern.find_first_of("*?") == std::string::npos) {
    if (fs::is_directory(spec, ec)) {
      seq.reportSequenceError("FileDelete - " + std::string(trim(cmd.arg1)) +
                              " is a folder, not a file");
      return;
    }
    if (fs::exists(fs::symlink_status(spec, ec))) victims.push_back(spec);
  } else {
    const fs::path folder = spec.has_parent_path() ? spec.parent_path() : fs::path(".");
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      if (!it->is_directory() &&
          platform::matchesWildcard(pattern, it->path().filename().string())) {
        victims.push_back(it->path());
      }
    }
  }
  for (const auto& victim : victims) {
    if (!fs::remove(victim, ec) && ec) {
      seq.reportSequenceError("FileDelete - cannot delete " + victim.string() + ": " +
                              ec.message());
      return;
    }
  }
}

void LogOnce(FileState& state, Sequencer& seq, const CommandLine& cmd) {
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
          file, {formatDate(now, "dd-mm-yyyy") + " " + formatDate(now, "hh:mm:ss") + "\t" + text},
          &error)) {
    seq.reportSequenceError("LogOnce - " + error);
  }
}

void Wait580(FileState&, Sequencer& seq, const CommandLine& cmd) {
  if (trim(cmd.arg1).empty()) {
    seq.reportSequenceError("Wait580 - no recorder folder given");
    return;
  }
  const std::string status = join(Local(seq, cmd.arg1), kRecorderStatusFile);
  PollUntil(seq, kRecorderPollInterval, [&] {
    std::string text;
    // A status file not (yet) there, or being rewritten, means not captured.
    if (!readTextFile(status, text, nullptr)) return PollResult::kWaiting;
    return upperCase(text).find(kRecorderCaptured) != std::string::npos ? PollResult::kMet
                                                                        : PollResult::kWaiting;
  });
}

}  // namespace

void RegisterFileCommands(Sequencer& seq) {
  auto state = std::make_shared<FileState>();
  auto bind = [state](void (*handler)(FileState&, Sequencer&, const CommandLine&)) {
    return [state, handler](Sequencer& s, const CommandLine& c) { handler(*state, s, c); };
  };
  auto& d = seq.dispatcher();
  d.registerHandler("COPYFILE", bind(CopyFile));
  d.registerHandler("FILEDELETE", bind(FileDelete));
  d.registerHandler("LOGONCE", bind(LogOnce));
  d.registerHandler("WAIT580", bind(Wait580));
  seq.addPrepareHook([state] { state->logged.clear(); });
  seq.addStopHook([state] { state->logged.clear(); });
}

}  // namespace tavrix
