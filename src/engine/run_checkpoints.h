// Checkpoints of runs: what a run needs to go on after the program ended
// abruptly (a power cut, a crash, a killed process), kept in the data
// root's runs/ folder, one file a run, written whole and renamed into place
// through the file-system port so that a checkpoint is never torn.
//
// A checkpoint file is a header line and a JSON body:
//   tavrix-run-checkpoint VERSION LENGTH CHECKSUM
//   {...}
// LENGTH is the body's size in bytes and CHECKSUM its 64-bit FNV-1a sum in
// hex, so a file cut short or damaged is told as such rather than read.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/clock.h"
#include "common/event_loop.h"
#include "common/file_system.h"
#include "sequencer/run_events.h"

namespace tavrix {

class Engine;

inline constexpr std::string_view kCheckpointMagic = "tavrix-run-checkpoint";
inline constexpr int kCheckpointVersion = 1;
inline constexpr std::string_view kRunsFolder = "runs";
inline constexpr std::string_view kDiscardedFolder = "discarded";
inline constexpr std::string_view kCheckpointExtension = ".checkpoint";
// A run in progress is checkpointed at least this often (run time) ...
inline constexpr Micros kCheckpointEvery = 10 * kMicrosPerSecond;
// ... and, a UUT that ended aside, at most once in this span.
inline constexpr Micros kCheckpointAtMostEvery = 250 * 1000;
// A discarded checkpoint is kept this long.
inline constexpr Micros kDiscardedKeptFor = 7 * 24 * 3600 * kMicrosPerSecond;

// The 64-bit FNV-1a sum of `bytes`, as 16 hex digits.
std::string ContentHash(std::string_view bytes);

// The folder of the checkpoints below a data root, and of discarded ones.
std::string RunsFolder(const FileSystem& files);
std::string DiscardedFolder(const FileSystem& files);

// Reads a checkpoint file. False, with a message naming the file and what
// is wrong with it (missing, cut short, damaged, another version, not a
// checkpoint), when it cannot be used; the file is left as it is.
bool ReadCheckpoint(const FileSystem& files, const std::string& path, nlohmann::json& checkpoint,
                    std::string* error);

// What a listing of interrupted runs shows of one.
struct InterruptedRun {
  std::string path;      // the checkpoint file
  std::string name;      // the run's name (the file's name without extension)
  std::string sequence;  // the sequence file the run was started with
  std::string file;      // the file it was in (another after CHAIN)
  int line = 0;          // the last line it had read
  std::string serial;    // the UUT in progress, empty when none
  Micros taken = 0;      // the run clock when the checkpoint was taken
  std::string problem;   // why the checkpoint cannot be used; empty when it can
};

// The checkpoints in the runs folder, newest first; unreadable ones are
// listed with their problem.
std::vector<InterruptedRun> ListInterruptedRuns(const FileSystem& files);

// Finds a run by name or path; the newest usable one when `run` is empty.
// False with a message when there is none.
bool FindInterruptedRun(const FileSystem& files, const std::string& run, InterruptedRun& found,
                        std::string* error);

// Moves a checkpoint to runs/discarded/, where it is kept for a week, and
// removes discarded ones older than that (by their modification time).
bool DiscardCheckpoint(FileSystem& files, const std::string& path, Micros now, std::string* error);

// Keeps the checkpoint of an engine's runs: takes one when the run enters a
// timed wait, when a UUT record changes, and at least every 10 s of run
// time (at most a few times a second), and removes it when the run ends,
// whatever ended it. Lives on the engine thread.
class RunCheckpoints {
 public:
  explicit RunCheckpoints(Engine& engine);
  ~RunCheckpoints();
  RunCheckpoints(const RunCheckpoints&) = delete;
  RunCheckpoints& operator=(const RunCheckpoints&) = delete;

  // The checkpoint file of the run in progress (empty before the first one).
  const std::string& path() const { return path_; }
  int64_t written() const { return written_; }
  // The last write that failed, empty when none did.
  const std::string& lastProblem() const { return problem_; }

  // The next run is the one resumed from `path`: it keeps that file, and
  // cuts back `appended` files as listed there.
  void adopt(const std::string& path, const nlohmann::json& checkpoint);
  // Called after each checkpoint is written (tests, front ends).
  std::function<void(const std::string& path)> onWritten;

  // Takes a checkpoint now, if the run is at a moment it can go on from.
  void writeNow();

  // Besides the run clock's limits, checkpoints other than those of an
  // ended UUT are at least this much of the process's own time apart (a
  // virtual clock may pass days in a second; every checkpoint is written
  // through to the disk). 0: no such limit (a disk in memory).
  void setLeastRealGap(std::chrono::steady_clock::duration gap) { leastRealGap_ = gap; }

 private:
  void runEvent(const RunEvent& event);
  void afterLine();
  void timerTick();
  void request(bool urgent);
  void arm(Micros due);
  bool write(bool urgent = false);
  void startRun();
  // A file the run appends to for the first time since the last checkpoint:
  // that checkpoint is written again with the file's length, so that a
  // resume from it cuts the file back too.
  void firstAppend(const std::string& path);
  void endRun();

  Engine& engine_;
  RunEventBus::Subscription events_;
  Timer timer_;
  bool timerArmed_ = false;  // timer_ is due
  bool running_ = false;
  bool dirty_ = false;
  Micros lastWrite_ = 0;
  int64_t written_ = 0;
  std::string path_;
  std::string problem_;
  std::string sequenceHash_;
  std::string fileHash_;
  std::string hashedFile_;
  // A cheap signature of the UUT record: a change is a reason to write.
  int64_t uutSignature_ = -1;
  std::set<std::string> appended_;
  bool adopted_ = false;
  nlohmann::json last_;  // the checkpoint written last
  std::chrono::steady_clock::duration leastRealGap_ = std::chrono::milliseconds(250);
  std::chrono::steady_clock::time_point lastRealWrite_{};
};

}  // namespace tavrix
