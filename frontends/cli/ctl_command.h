// `tavrix-cli ctl`: lists this user's runs on this machine and sends a run
// commands through its control socket (see control_socket.h).
#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/host.h"

namespace CLI {
class App;
}

namespace tavrix {

class CtlCommand {
 public:
  explicit CtlCommand(CLI::App& app);
  // The exit status when `ctl` was given: 0, 1 (no such run, the run has
  // ended, or it refused the command), 2 (bad usage).
  std::optional<int> run(const Host& host, std::FILE* out, std::FILE* err);

 private:
  CLI::App* command_;
  std::vector<std::string> words_;
};

class FileSystem;

// `ctl list --interrupted`: the runs that ended abruptly and can go on
// (tavrix-cli run --resume RUN), newest first, and the checkpoints that
// cannot be used, with the reason.
int ListInterrupted(const FileSystem& files, std::FILE* out);
// `ctl discard RUN`: the run's checkpoint goes to runs/discarded/, where it
// is kept for a week.
int DiscardInterrupted(FileSystem& files, const std::string& run, std::FILE* out, std::FILE* err);

// `ctl list --all`: the records of past runs and of those that go, oldest
// first, with their start, how they ended and their exit status.
// `going(id)` tells whether run `id` still answers on its control socket.
int ListAllRuns(const FileSystem& files, std::FILE* out,
                const std::function<bool(const std::string&)>& going);
// `ctl RUN events` for a run that has ended: its record's trace, line by
// line; 1 with a message when there is no record of RUN.
int ReplayRun(const FileSystem& files, const std::string& run, std::FILE* out, std::FILE* err);

// Whether a run answers on the control socket in `runFolder`.
bool RunAnswers(const std::string& runFolder);

// `ctl list` and `ctl RUN COMMAND ARGS...` with the runs of `dataRoot`.
int RunCtl(const std::string& dataRoot, const std::vector<std::string>& words, std::FILE* out,
           std::FILE* err);

}  // namespace tavrix
