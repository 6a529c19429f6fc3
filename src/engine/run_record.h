// The record of every run: each run keeps its trace in the data root, in
// runs/<run id>/trace.jsonl, with a small run.json beside it that says what
// ran, when, and how it ended. While the run goes its control socket lies in
// the same folder. Old records go by age and by their total size.
//
// The record is written through the file-system port, so a write that fails
// is counted as lost output as a --trace file's is. Its lines are gathered
// and written a piece at a time (every event but a line's goes out at once,
// and no line waits longer than a quarter of a second), so that keeping a
// record costs a free-running sequence little.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/clock.h"
#include "common/file_system.h"
#include "common/trace.h"
#include "sequencer/run_events.h"

namespace tavrix {

inline constexpr std::string_view kRecordTrace = "trace.jsonl";
inline constexpr std::string_view kRecordSummary = "run.json";

// How long records are kept and how much room they may take together;
// nullopt: no limit ("off").
struct RunRecordLimits {
  std::optional<Micros> maxAge = 30 * kMicrosPerDay;
  std::optional<uint64_t> maxBytes = uint64_t{1} << 30;
};

// "30d", "12h", "off"; false with a message for anything else.
bool ParseRecordAge(std::string_view text, std::optional<Micros>& age, std::string* error);
// "1GiB", "500MiB", "200MB", "64KiB", "123456" (bytes), "off".
bool ParseRecordSize(std::string_view text, std::optional<uint64_t>& bytes, std::string* error);

// What a run's record says of it.
struct RunRecordSummary {
  std::string id;
  std::string folder;
  std::string sequence;
  std::string testSocket;  // a station's test socket, or empty
  std::string frontEnd;    // "cli", "shell", "window", "station"
  unsigned long pid = 0;
  Micros start = 0;  // on the run's clock
  std::optional<Micros> end;
  std::string endReason;  // empty while the run goes, or when it was cut short
  std::optional<int> exitStatus;
  uint64_t bytes = 0;      // the record's files together
  int64_t modifiedNs = 0;  // the latest change of its files
};

class RunRecord {
 public:
  struct Start {
    std::string sequence;
    std::string testSocket;
    std::string frontEnd = "cli";
    Micros start = 0;  // the run's clock at its start
  };

  // Makes a new run folder below the data root's runs/ folder, writes its
  // run.json and sends `trace`'s lines into its trace.jsonl from now on;
  // then removes the records beyond `limits`. nullptr with a message when
  // the folder or the files cannot be made.
  static std::unique_ptr<RunRecord> Begin(FileSystem& files, Trace& trace, const Start& start,
                                          const RunRecordLimits& limits, std::string* error);
  // Unless finished, the record stops taking the trace's lines and its
  // summary stays without an end (as a run that was cut short).
  ~RunRecord();
  RunRecord(const RunRecord&) = delete;
  RunRecord& operator=(const RunRecord&) = delete;

  const std::string& id() const { return id_; }
  const std::string& folder() const { return folder_; }

  // Writes what is gathered and says in run.json how the run ended; the
  // trace's lines no longer come here. `end` is on the run's clock.
  void finish(Micros end, std::string_view reason, std::optional<int> exitStatus);

 private:
  RunRecord(FileSystem& files, Trace& trace) : files_(files), trace_(trace) {}
  bool writeSummary(std::string* error);

  FileSystem& files_;
  Trace& trace_;
  std::string id_;
  std::string folder_;
  Start start_;
  std::optional<Micros> end_;
  std::string endReason_;
  std::optional<int> exitStatus_;
  bool finished_ = false;
};

class Engine;

// Keeps a record of each run of an engine that runs many times (the
// window's): a record begins as a run starts and ends with it. A record that
// cannot be made leaves that run without one (the run goes on); `onProblem`
// is told why. `testSocket` names a station's test socket the runs are of.
class RunRecorder {
 public:
  RunRecorder(Engine& engine, RunRecordLimits limits, std::string frontEnd,
              std::function<void(const std::string&)> onProblem = {}, std::string testSocket = {});
  ~RunRecorder();
  RunRecorder(const RunRecorder&) = delete;
  RunRecorder& operator=(const RunRecorder&) = delete;

  // The id of the run being recorded; empty between runs.
  std::string currentId() const { return record_ ? record_->id() : std::string(); }

 private:
  void event(const RunEvent& event);

  Engine& engine_;
  RunRecordLimits limits_;
  std::string frontEnd_;
  std::function<void(const std::string&)> onProblem_;
  std::string testSocket_;
  std::unique_ptr<RunRecord> record_;
  RunEventBus::Subscription subscription_;
};

// The runs/ folder below the data root of `files`.
std::string RunRecordsFolder(const FileSystem& files);
// A new run id, "20261126-021500-4711": the local time now and the process.
std::string NewRunId(Micros localNow);

// The records in the data root, oldest first. Folders without a run.json
// (another kind of entry) are left out.
std::vector<RunRecordSummary> ListRunRecords(const FileSystem& files);
// The record of `run` (its id, or the process id its id ends with).
std::optional<RunRecordSummary> FindRunRecord(const FileSystem& files, const std::string& run);

struct PruneResult {
  int removed = 0;
  uint64_t bytesFreed = 0;
};
// Removes the records that are older than the limit (by the last change of
// their files, `nowNs` on the same scale) and then, oldest first, ended
// records until the rest fit in the size limit. The record `keep` is never
// removed, nor by size a record without an end (a run that may still go).
PruneResult PruneRunRecords(FileSystem& files, int64_t nowNs, const RunRecordLimits& limits,
                            const std::string& keep);

}  // namespace tavrix
