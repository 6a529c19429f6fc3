// The headless front end, `tavrix-cli`. Its `run` command is a contract that
// test engineers script: options, exit codes, the trace and the answers file
// only ever grow.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "common/host.h"
#include "instrument/link/instrument_settings.h"
#include "sequencer/sequencer.h"

namespace tavrix {

// Exit statuses of `tavrix-cli run`.
constexpr int kExitOk = 0;             // end of file or STOP, no sequence error
constexpr int kExitSequenceError = 1;  // a sequence error report (or an unanswered question), or a
                                       // command that ends the program (a calculated channel setup
                                       // that cannot be loaded)
constexpr int kExitUsage = 2;          // bad usage or an unreadable sequence file
constexpr int kExitStopped = 3;        // Stop or an abort ended the run
constexpr int kExitOutputLost =
    6;  // the run ended but some of its output was lost (in place of 0 and 4)
constexpr int kExitUutFailed = 4;  // no sequence error, but a UUT failed its test
constexpr int kExitLimit = 5;      // --stop-after or --max-lines ended the run

// On a virtual clock, this many lines dispatched without the clock moving
// earn one warning that the run loops without a wait.
constexpr int64_t kLoopWarningLines = 10'000'000;

// The exit status of a run that ended for `reason` (before a failed UUT or
// lost output is counted in).
int ExitStatusFor(EndReason reason);

struct RunOptions {
  std::string sequence;
  bool virtualTime = false;
  std::optional<std::string> start;  // "YYYY-MM-DD HH:MM:SS"
  std::optional<std::string> answers;
  std::optional<std::string> trace;  // "-" for standard output
  bool noHardware = false;
  std::string results = "text";  // results files: "text", "xml" or "off"
  // Answers of the companion programs' DDE items, "TOPIC!ITEM=VALUE".
  std::vector<std::string> companionAnswers;
  // "record": companion commands are only recorded (in the trace);
  // "programs": they reach the programs of this computer (Windows only).
  // The command line's default is "programs" where the system has them.
  std::string companions = "record";
  // The instrument link.
  std::optional<std::string> setup;  // a hardware setup (.ims) loaded before the first line
  std::string link;  // "sim", "dll" or "tcp://HOST:PORT"; "" for the settings file's, else "sim"
  std::optional<std::string> linkKey;             // key file for a rig server that asks for one
  std::optional<int> replyTimeout;                // seconds; sets the reply time-out on
  std::optional<std::string> instrumentSettings;  // a settings file (docs/instrument-settings.md)
  // Only messages and the summary, even on a terminal.
  bool quiet = false;
  // Where UUT records go besides the results files; wins over the settings
  // file's results_store (docs/results-database.md).
  std::optional<std::string> resultsStore;
  std::optional<std::string> station;
  // Limits on the run's length: a span of the run's clock ("90s", "30m",
  // "48h", "7d") and a number of dispatched lines.
  std::optional<std::string> stopAfter;
  std::optional<std::string> maxLines;
  // Lines run on a virtual clock without it moving before the warning that
  // the run loops without a wait (tests lower it).
  int64_t loopWarningLines = kLoopWarningLines;
  // Breakpoints: a line or label with an optional hit count ("120:3"), and
  // channel conditions ("T1 > 80"); see docs/run-control.md.
  std::vector<std::string> breaks;
  std::vector<std::string> breakIfs;
  // The control socket in the data root's runs/ folder (on by default).
  bool controlSocket = true;
  // Go on with an interrupted run (its name; empty: the latest) instead of
  // starting SEQUENCE; `force` goes on although its sequence file changed.
  bool resume = false;
  std::string resumeRun;
  bool force = false;
  // `tavrix-cli shell`: the lines come from the input, one at a time, in
  // place of a sequence file (frontends/cli/shell_session.h).
  bool shell = false;
};

// `tavrix-cli rig`: serves the simulated rig, or another link, over TCP.
struct RigOptions {
  std::string listen = "127.0.0.1:5025";
  std::string setup;
  std::string link = "sim";  // what is served: "sim", "dll" or "map:FILE"
  // Serve a simulated device instead of a link: "modbus" (an oven) or
  // "scpi" (a power supply), for maps of the examples and the tests.
  std::optional<std::string> simulate;
  std::optional<std::string> key;
  std::optional<std::string> newKey;  // only make a key file
  std::optional<std::string> instrumentSettings;
};

// Runs `tavrix-cli rig`; returns the exit status. Serves until `stop` (when
// given) becomes true.
int RunRig(const Host& host, const RigOptions& options, std::FILE* out, std::FILE* err,
           const std::atomic<bool>* stop = nullptr);

// Runs a sequence headless; returns the exit status. Messages go to `err`,
// a trace to "-" goes to `out`.
// Reads the instrument settings file --instrument-settings names, if any, and
// sets over it what the command line sets (--no-hardware, --reply-timeout,
// --link-key); false once it has told `err` what is wrong.
bool LoadRunSettings(const FileSystem& files, const RunOptions& options,
                     InstrumentSettings& settings, std::FILE* err);

int RunSequence(const Host& host, const RunOptions& options, std::FILE* in, std::FILE* out,
                std::FILE* err);

// The whole command line of tavrix-cli, on the machine `host` describes.
int TavrixCliMain(const Host& host, const std::vector<std::string>& args, std::FILE* in,
                  std::FILE* out, std::FILE* err);

}  // namespace tavrix
