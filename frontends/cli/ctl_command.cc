#include "ctl_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "control_protocol.h"
#include "control_socket.h"
#include "engine/run_checkpoints.h"
#include "engine/run_record.h"
#include "platform/local_endpoint.h"
#include "run_command.h"

namespace tavrix {

CtlCommand::CtlCommand(CLI::App& app) {
  command_ = app.add_subcommand(
      "ctl",
      "Control a run of this user on this machine: ctl list [--all|--interrupted] | ctl discard "
      "RUN | "
      "ctl RUN status|pause|resume|step|skip|stop|break [SPEC|if CONDITION|clear ID|list]|"
      "watch CH...|answer CAPTION|events");
  command_->add_option("WORDS", words_, "list, or RUN (its id or process id) and a command")
      ->required();
  command_->allow_extras();
}

std::optional<int> CtlCommand::run(const Host& host, std::FILE* out, std::FILE* err) {
  if (!command_->parsed()) return std::nullopt;
  std::vector<std::string> words = words_;
  for (const std::string& extra : command_->remaining()) words.push_back(extra);
  if (words.size() == 2 && words[0] == "list" && words[1] == "--interrupted") {
    const LocalFileSystem files(host.dataRoot);
    return ListInterrupted(files, out);
  }
  if (words.size() == 2 && words[0] == "list" && words[1] == "--all") {
    const LocalFileSystem files(host.dataRoot);
    return ListAllRuns(files, out, [&files](const std::string& id) {
      return RunAnswers(join(RunRecordsFolder(files), id));
    });
  }
  if (words.size() == 2 && words[0] == "discard") {
    LocalFileSystem files(host.dataRoot);
    return DiscardInterrupted(files, words[1], out, err);
  }
  return RunCtl(host.dataRoot, words, out, err);
}

int DiscardInterrupted(FileSystem& files, const std::string& run, std::FILE* out, std::FILE* err) {
  InterruptedRun found;
  std::string error;
  if (!FindInterruptedRun(files, run, found, &error) ||
      !DiscardCheckpoint(files, found.path, SystemClock().now(), &error)) {
    std::fprintf(err, "tavrix-cli ctl: %s\n", error.c_str());
    return kExitSequenceError;
  }
  std::fprintf(out, "discarded %s: kept in %s for a week\n", found.name.c_str(),
               DiscardedFolder(files).c_str());
  return kExitOk;
}

int ListInterrupted(const FileSystem& files, std::FILE* out) {
  const auto runs = ListInterruptedRuns(files);
  if (runs.empty()) {
    std::fprintf(out, "no interrupted run\n");
    return kExitOk;
  }
  std::fprintf(out, "RUN\tCHECKPOINT\tSEQUENCE\tLINE\tUUT\n");
  for (const auto& run : runs) {
    if (!run.problem.empty()) {
      std::fprintf(out, "%s\tunusable: %s\n", run.name.c_str(), run.problem.c_str());
      continue;
    }
    std::fprintf(out, "%s\t%s\t%s\t%d\t%s\n", run.name.c_str(), isoDateTime(run.taken).c_str(),
                 run.file.c_str(), run.line, run.serial.empty() ? "-" : run.serial.c_str());
  }
  return kExitOk;
}

int ListAllRuns(const FileSystem& files, std::FILE* out,
                const std::function<bool(const std::string&)>& going) {
  const auto records = ListRunRecords(files);
  if (records.empty()) {
    std::fprintf(out, "no run has a record\n");
    return kExitOk;
  }
  std::fprintf(out, "%-24s %-19s %-19s %-9s %-6s %s\n", "RUN", "START", "END", "REASON", "STATUS",
               "SEQUENCE");
  for (const RunRecordSummary& r : records) {
    std::string reason = r.endReason;
    if (!r.end) reason = going(r.id) ? "going" : "cut short";
    const std::string status = r.exitStatus ? std::to_string(*r.exitStatus) : "-";
    const std::string sequence =
        (r.testSocket.empty() ? std::string() : "[" + visibleText(r.testSocket) + "] ") +
        visibleText(r.sequence);
    std::fprintf(out, "%-24s %-19s %-19s %-9s %-6s %s\n", r.id.c_str(),
                 isoDateTime(r.start).c_str(), r.end ? isoDateTime(*r.end).c_str() : "-",
                 reason.c_str(), status.c_str(), sequence.c_str());
  }
  return kExitOk;
}

int ReplayRun(const FileSystem& files, const std::string& run, std::FILE* out, std::FILE* err) {
  const auto record = FindRunRecord(files, run);
  if (!record) {
    std::fprintf(err,
                 "tavrix-cli ctl: run %s is not going and has no record (it never ran here, or "
                 "its record was removed); 'tavrix-cli ctl list --all' shows the records\n",
                 run.c_str());
    return kExitSequenceError;
  }
  std::string error;
  auto in = files.openInput(join(record->folder, std::string(kRecordTrace)), &error);
  if (!in) {
    std::fprintf(err, "tavrix-cli ctl: %s\n", error.c_str());
    return kExitSequenceError;
  }
  char chunk[65536];
  for (size_t got = 0;;) {
    if (!in->read(chunk, sizeof chunk, got, &error)) {
      std::fprintf(err, "tavrix-cli ctl: %s\n", error.c_str());
      return kExitSequenceError;
    }
    if (got == 0) break;
    std::fwrite(chunk, 1, got, out);
  }
  std::fflush(out);
  if (!record->end)
    std::fprintf(err,
                 "tavrix-cli ctl: the record of run %s has no end: the run was cut short (or "
                 "goes on without a control socket)\n",
                 record->id.c_str());
  return kExitOk;
}

namespace {

namespace fs = std::filesystem;

using platform::LocalConnection;

// A connection to one run's socket that sends requests and reads lines.
class Connection {
 public:
  explicit Connection(std::unique_ptr<LocalConnection> connection)
      : connection_(std::move(connection)) {}
  bool send(const std::string& line) {
    const std::string text = line + "\n";
    return connection_->send(text.data(), text.size());
  }
  // The next line; false when the run closed the connection or did not
  // answer within `timeoutMs` (-1: no limit).
  bool line(std::string& text, int timeoutMs = -1) {
    for (;;) {
      const size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        text = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return true;
      }
      char chunk[8192];
      const long n = connection_->receive(chunk, sizeof chunk, timeoutMs);
      if (n <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

 private:
  std::unique_ptr<LocalConnection> connection_;
  std::string buffer_;
};

std::string Socket(const fs::path& runFolder) { return (runFolder / "control.sock").string(); }

// Removes what a run that is gone left behind.
void Clean(const fs::path& runFolder) {
  std::error_code ignored;
  fs::remove(runFolder / "control.sock", ignored);
  fs::remove(runFolder, ignored);  // only when nothing else is in it
}

}  // namespace

bool RunAnswers(const std::string& runFolder) {
  std::unique_ptr<LocalConnection> connection;
  return LocalConnection::Connect(Socket(runFolder), connection) ==
         LocalConnection::Outcome::kConnected;
}

namespace {

int List(const std::string& runs, std::FILE* out) {
  std::error_code error;
  std::vector<fs::path> folders;
  for (fs::directory_iterator it(runs, error), end; !error && it != end; it.increment(error))
    if (it->is_directory(error)) folders.push_back(it->path());
  std::sort(folders.begin(), folders.end());
  int listed = 0;
  for (const fs::path& folder : folders) {
    if (!fs::exists(folder / "control.sock", error)) continue;
    std::unique_ptr<LocalConnection> reached;
    const auto outcome = LocalConnection::Connect(Socket(folder), reached);
    if (outcome != LocalConnection::Outcome::kConnected) {
      if (outcome == LocalConnection::Outcome::kGone) Clean(folder);
      continue;
    }
    Connection connection(std::move(reached));
    std::string reply;
    // A run that does not answer within a while is left out of the list.
    if (!connection.send(ControlRequestJson({"status", {}})) || !connection.line(reply, 5000))
      continue;
    if (listed++ == 0)
      std::fprintf(out, "%-24s %-8s %6s  %s\n", "RUN", "STATE", "LINE", "SEQUENCE");
    size_t at = reply.find("\"line\":");
    const std::string number =
        at == std::string::npos ? "" : reply.substr(at + 7, reply.find(',', at) - at - 7);
    // A test socket's run names its socket before its sequence.
    const auto testSocket = JsonStringField(reply, "socket");
    const std::string sequence = (testSocket ? "[" + *testSocket + "] " : std::string()) +
                                 JsonStringField(reply, "sequence").value_or("");
    std::fprintf(out, "%-24s %-8s %6s  %s\n", folder.filename().string().c_str(),
                 JsonStringField(reply, "state").value_or("?").c_str(), number.c_str(),
                 sequence.c_str());
  }
  if (listed == 0) std::fprintf(out, "no run is going\n");
  return kExitOk;
}

// The folder of run `run`: its id, or the process id that ends it.
std::optional<fs::path> FindRun(const std::string& runs, const std::string& run) {
  std::error_code error;
  if (run.empty() || run.find_first_of("/\\") != std::string::npos || run == "." || run == "..")
    return std::nullopt;
  if (fs::is_directory(fs::path(runs) / run, error)) return fs::path(runs) / run;
  // A process id: the folders of ended runs of an earlier process with the
  // same id stay (their records), so the one with a socket is the run.
  std::vector<fs::path> found;
  for (fs::directory_iterator it(runs, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.size() > run.size() && name.compare(name.size() - run.size(), run.size(), run) == 0 &&
        name[name.size() - run.size() - 1] == '-')
      found.push_back(it->path());
  }
  if (found.size() > 1)
    found.erase(
        std::remove_if(found.begin(), found.end(),
                       [&](const fs::path& p) { return !fs::exists(p / "control.sock", error); }),
        found.end());
  if (found.size() != 1) return std::nullopt;  // none, or not one run
  return found.front();
}

}  // namespace

int RunCtl(const std::string& dataRoot, const std::vector<std::string>& words, std::FILE* out,
           std::FILE* err) {
  const std::string runs = RunsFolder(dataRoot);
  if (words.size() == 1 && words[0] == "list") return List(runs, out);
  if (words.size() < 2) {
    std::fprintf(err,
                 "tavrix-cli ctl: give 'list', or a run and a command: status, pause, resume, "
                 "step, skip, stop, break, watch, answer, events\n");
    return kExitUsage;
  }
  const std::string& run = words[0];
  const auto gone = [&] {
    std::fprintf(err,
                 "tavrix-cli ctl: run %s is not going (it has ended, or never ran here); "
                 "'tavrix-cli ctl list' shows the runs\n",
                 run.c_str());
    return kExitSequenceError;
  };
  const LocalFileSystem files(dataRoot);
  // A run that has ended is known by its record: its events are replayed
  // from it, and any other command is told how it ended.
  const auto ended = [&] {
    if (words[1] == "events") return ReplayRun(files, run, out, err);
    const auto record = FindRunRecord(files, run);
    if (!record) return gone();
    if (!record->end) {
      std::fprintf(err,
                   "tavrix-cli ctl: run %s is not going (it was cut short); 'tavrix-cli ctl %s "
                   "events' shows its record\n",
                   record->id.c_str(), record->id.c_str());
    } else {
      std::fprintf(err,
                   "tavrix-cli ctl: run %s has ended (%s, exit status %s); 'tavrix-cli ctl %s "
                   "events' shows its record\n",
                   record->id.c_str(), record->endReason.c_str(),
                   record->exitStatus ? std::to_string(*record->exitStatus).c_str() : "-",
                   record->id.c_str());
    }
    return kExitSequenceError;
  };
  const auto folder = FindRun(runs, run);
  if (!folder) return ended();
  std::unique_ptr<LocalConnection> reached;
  const auto outcome = LocalConnection::Connect(Socket(*folder), reached);
  if (outcome != LocalConnection::Outcome::kConnected) {
    if (outcome == LocalConnection::Outcome::kGone) Clean(*folder);
    return ended();
  }
  Connection connection(std::move(reached));
  ControlRequest request{words[1], {words.begin() + 2, words.end()}};
  std::string reply;
  if (!connection.send(ControlRequestJson(request)) || !connection.line(reply)) {
    std::fprintf(err, "tavrix-cli ctl: run %s ended before it answered\n", run.c_str());
    return kExitSequenceError;
  }
  if (reply.rfind("{\"ok\":false", 0) == 0) {
    std::fprintf(err, "tavrix-cli ctl: %s\n",
                 JsonStringField(reply, "error").value_or(reply).c_str());
    return kExitSequenceError;
  }
  std::fprintf(out, "%s\n", reply.c_str());
  if (request.cmd == "events") {
    std::fflush(out);
    for (std::string line; connection.line(line);) {
      std::fprintf(out, "%s\n", line.c_str());
      std::fflush(out);
    }
  }
  return kExitOk;
}

}  // namespace tavrix
