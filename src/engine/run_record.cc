#include "engine/run_record.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>

#include "common/checked_numbers.h"
#include "common/civil_time.h"
#include "common/paths.h"
#include "common/text_conventions.h"
#include "engine/engine.h"
#include "platform/files.h"

namespace tavrix {

namespace {

std::mutex gNewFolders;

std::optional<RunRecordSummary> ReadSummary(const FileSystem& files, const std::string& folder,
                                            const std::string& id) {
  std::string text;
  if (!files.readFile(join(folder, std::string(kRecordSummary)), text, nullptr))
    return std::nullopt;
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  RunRecordSummary s;
  s.id = id;
  s.folder = folder;
  try {
    s.sequence = json.value("sequence", "");
    s.testSocket = json.value("socket", "");
    s.frontEnd = json.value("front_end", "");
    s.pid = json.value("pid", 0UL);
    s.start = json.value("start", Micros{0});
    if (json.contains("end") && json["end"].is_number_integer()) s.end = json["end"].get<Micros>();
    s.endReason = json.value("reason", "");
    if (json.contains("status") && json["status"].is_number_integer())
      s.exitStatus = json["status"].get<int>();
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
  std::vector<std::string> names;
  files.list(folder, names, nullptr);
  for (const std::string& name : names) {
    const FileInfo info = files.info(join(folder, name));
    s.bytes += info.size;
    s.modifiedNs = std::max(s.modifiedNs, info.modifiedNs);
  }
  return s;
}

bool RemoveRecord(FileSystem& files, const RunRecordSummary& record) {
  std::vector<std::string> names;
  files.list(record.folder, names, nullptr);
  bool ok = true;
  for (const std::string& name : names) ok = files.remove(join(record.folder, name), nullptr) && ok;
  return files.remove(record.folder, nullptr) && ok;
}

}  // namespace

bool ParseRecordAge(std::string_view text, std::optional<Micros>& age, std::string* error) {
  if (lowerCase(trim(text)) == "off") {
    age.reset();
    return true;
  }
  const auto parsed = parseDuration(trim(text));
  if (!parsed || *parsed <= 0) {
    if (error) *error = "an age such as 30d, 12h or off, not \"" + std::string(text) + "\"";
    return false;
  }
  age = *parsed;
  return true;
}

bool ParseRecordSize(std::string_view text, std::optional<uint64_t>& bytes, std::string* error) {
  if (lowerCase(trim(text)) == "off") {
    bytes.reset();
    return true;
  }
  const auto parsed = parseByteSize(trim(text));
  if (!parsed) {
    if (error)
      *error = "a size such as 1GiB, 500MiB, 200MB or off, not \"" + std::string(text) + "\"";
    return false;
  }
  bytes = *parsed;
  return true;
}

std::string RunRecordsFolder(const FileSystem& files) { return join(files.dataRoot(), "runs"); }

std::string NewRunId(Micros localNow) {
  const CivilTime c = toCivil(localNow);
  char text[48];
  std::snprintf(text, sizeof text, "%04d%02d%02d-%02d%02d%02d-%lu", c.year, c.month, c.day, c.hour,
                c.minute, c.second, platform::processId());
  return text;
}

std::unique_ptr<RunRecord> RunRecord::Begin(FileSystem& files, Trace& trace, const Start& start,
                                            const RunRecordLimits& limits, std::string* error) {
  std::unique_ptr<RunRecord> record(new RunRecord(files, trace));
  record->start_ = start;
  const std::string runs = RunRecordsFolder(files);
  {
    // Two runs of one process (a station's sockets) never take one folder;
    // other processes have other ids.
    std::lock_guard guard(gNewFolders);
    const std::string base = NewRunId(SystemClock().now());
    for (int n = 1;; ++n) {
      record->id_ = n == 1 ? base : base + "-" + std::to_string(n);
      record->folder_ = join(runs, record->id_);
      if (files.info(record->folder_).kind == FileKind::kMissing) break;
      if (n > 1000) {
        if (error) *error = "cannot find a free name for the run's record in " + runs;
        return nullptr;
      }
    }
    if (!files.makeFolders(record->folder_, error)) return nullptr;
  }
  // Both files are for the run's user alone.
  const std::string summary = join(record->folder_, std::string(kRecordSummary));
  const std::string tracePath = join(record->folder_, std::string(kRecordTrace));
  if (!files.createPrivate(summary, error) || !record->writeSummary(error) ||
      !files.createPrivate(tracePath, error))
    return nullptr;
  auto out = files.create(tracePath, error);
  if (out == nullptr) return nullptr;
  trace.setRecord(std::move(out));
  const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  PruneRunRecords(files, now, limits, record->id_);
  return record;
}

RunRecord::~RunRecord() {
  if (!finished_) trace_.setRecord(nullptr);
}

bool RunRecord::writeSummary(std::string* error) {
  nlohmann::json json = {{"run", id_},
                         {"pid", platform::processId()},
                         {"front_end", start_.frontEnd},
                         {"sequence", utf8FromSequenceText(start_.sequence)},
                         {"start", start_.start},
                         {"start_text", isoDateTime(start_.start)}};
  if (!start_.testSocket.empty()) json["socket"] = utf8FromSequenceText(start_.testSocket);
  if (end_) {
    json["end"] = *end_;
    json["end_text"] = isoDateTime(*end_);
    json["reason"] = endReason_;
    if (exitStatus_) json["status"] = *exitStatus_;
  }
  return files_.writeAtomically(join(folder_, std::string(kRecordSummary)), json.dump() + "\n",
                                error);
}

void RunRecord::finish(Micros end, std::string_view reason, std::optional<int> exitStatus) {
  if (finished_) return;
  finished_ = true;
  // The gathered lines are written as the record leaves the trace.
  trace_.setRecord(nullptr);
  end_ = end;
  endReason_ = std::string(reason);
  exitStatus_ = exitStatus;
  writeSummary(nullptr);
}

std::vector<RunRecordSummary> ListRunRecords(const FileSystem& files) {
  const std::string runs = RunRecordsFolder(files);
  std::vector<std::string> names;
  std::vector<RunRecordSummary> records;
  if (!files.list(runs, names, nullptr)) return records;
  for (const std::string& name : names) {
    const std::string folder = join(runs, name);
    if (!files.isFolder(folder)) continue;
    if (auto record = ReadSummary(files, folder, name)) records.push_back(std::move(*record));
  }
  // Run ids begin with their start time: their order is the runs' order.
  std::sort(records.begin(), records.end(),
            [](const RunRecordSummary& a, const RunRecordSummary& b) { return a.id < b.id; });
  return records;
}

std::optional<RunRecordSummary> FindRunRecord(const FileSystem& files, const std::string& run) {
  if (run.empty() || run.find_first_of("/\\") != std::string::npos || run == "." || run == "..")
    return std::nullopt;
  std::optional<RunRecordSummary> found;
  for (RunRecordSummary& record : ListRunRecords(files)) {
    if (record.id == run) return record;
    const std::string& id = record.id;
    if (id.size() > run.size() && id.compare(id.size() - run.size(), run.size(), run) == 0 &&
        id[id.size() - run.size() - 1] == '-') {
      // A process id names the latest of its runs.
      found = std::move(record);
    }
  }
  return found;
}

PruneResult PruneRunRecords(FileSystem& files, int64_t nowNs, const RunRecordLimits& limits,
                            const std::string& keep) {
  PruneResult result;
  if (!limits.maxAge && !limits.maxBytes) return result;
  std::vector<RunRecordSummary> records = ListRunRecords(files);
  std::sort(records.begin(), records.end(),
            [](const RunRecordSummary& a, const RunRecordSummary& b) {
              return a.modifiedNs < b.modifiedNs;
            });
  uint64_t total = 0;
  for (const auto& r : records) total += r.bytes;
  const auto remove = [&](const RunRecordSummary& r) {
    if (!RemoveRecord(files, r)) return false;
    ++result.removed;
    result.bytesFreed += r.bytes;
    total -= r.bytes;
    return true;
  };
  std::vector<RunRecordSummary> left;
  for (const auto& r : records) {
    const bool old = limits.maxAge && r.id != keep && nowNs - r.modifiedNs > *limits.maxAge * 1000;
    if (!old || !remove(r)) left.push_back(r);
  }
  if (!limits.maxBytes) return result;
  for (const auto& r : left) {
    if (total <= *limits.maxBytes) break;
    if (r.id == keep || !r.end) continue;
    remove(r);
  }
  return result;
}

RunRecorder::RunRecorder(Engine& engine, RunRecordLimits limits, std::string frontEnd,
                         std::function<void(const std::string&)> onProblem, std::string testSocket)
    : engine_(engine),
      limits_(limits),
      frontEnd_(std::move(frontEnd)),
      onProblem_(std::move(onProblem)),
      testSocket_(std::move(testSocket)) {
  subscription_ = engine.subscribe([this](const RunEvent& e) { event(e); });
}

RunRecorder::~RunRecorder() {
  subscription_.reset();
  record_.reset();
}

void RunRecorder::event(const RunEvent& event) {
  if (event.kind == RunEventKind::kStarted) {
    record_.reset();
    engine_.trace().setOrigin(event.time);
    std::string error;
    record_ = RunRecord::Begin(
        engine_.files(), engine_.trace(),
        {engine_.sequencer().sequenceFileName(), testSocket_, frontEnd_, event.time}, limits_,
        &error);
    if (!record_ && onProblem_) onProblem_("this run keeps no record: " + error);
  } else if (event.kind == RunEventKind::kEnd && record_) {
    engine_.trace().event("end").field("reason", event.text);
    record_->finish(event.time, event.text, std::nullopt);
    record_.reset();
  }
}

}  // namespace tavrix
