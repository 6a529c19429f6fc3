#include "engine/run_checkpoints.h"

#include <algorithm>
#include <cstdio>

#include "common/civil_time.h"
#include "common/paths.h"
#include "engine/engine.h"

namespace tavrix {

namespace {

uint64_t Fnv1a(std::string_view bytes) {
  uint64_t sum = 0xcbf29ce484222325ULL;
  for (const char c : bytes) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
  return sum;
}

std::string Hex64(uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

// A run's name from its start and its sequence file: letters, digits, '-'
// and '_' only, so that it is a file name on every system.
std::string RunName(Micros started, const std::string& sequence) {
  std::string base = baseName(sequence);
  const size_t dot = base.rfind('.');
  if (dot != std::string::npos && dot > 0) base.resize(dot);
  for (char& c : base) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_';
    if (!plain) c = '_';
  }
  const std::string date = isoDateTime(started);  // YYYY-MM-DD HH:MM:SS
  std::string stamp;
  for (const char c : date) {
    if (c >= '0' && c <= '9') stamp += c;
    if (c == ' ') stamp += '-';
  }
  return stamp + "-" + base;
}

bool EndsWith(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

}  // namespace

std::string ContentHash(std::string_view bytes) { return Hex64(Fnv1a(bytes)); }

std::string RunsFolder(const FileSystem& files) { return join(files.dataRoot(), kRunsFolder); }

namespace {

// The runs' own files (checkpoints, records) are not the run's output.
bool InRunsFolder(const FileSystem& files, const std::string& path) {
  const std::string runs = RunsFolder(files) + "/";
  return path.compare(0, runs.size(), runs) == 0;
}

// A file's length as a checkpoint keeps it: -1 for a file not there yet,
// which a run that goes on from the checkpoint removes.
int64_t LengthAtCheckpoint(const FileSystem& files, const std::string& path) {
  const FileInfo info = files.info(path);
  return info.kind == FileKind::kFile ? static_cast<int64_t>(info.size) : -1;
}

}  // namespace

std::string DiscardedFolder(const FileSystem& files) {
  return join(RunsFolder(files), kDiscardedFolder);
}

namespace {

// Paths below the data root are kept relative to it, so that a copy of the
// data root in another folder, or on another machine, goes on there.
constexpr std::string_view kDataRootMark = "<data root>";

// `text` with a leading `from` (the whole text, or up to a separator)
// replaced by `to`; false when it does not begin so.
bool Rebase(std::string& text, std::string_view from, std::string_view to) {
  if (from.empty() || text.compare(0, from.size(), from) != 0) return false;
  if (text.size() > from.size() && text[from.size()] != '/' && text[from.size()] != '\\')
    return false;
  text.replace(0, from.size(), to);
  return true;
}

// Every text and every key of `j` that begins with `from` begins with `to`
// instead.
void RebasePaths(nlohmann::json& j, std::string_view from, std::string_view to) {
  if (j.is_string()) {
    std::string text = j.get<std::string>();
    if (Rebase(text, from, to)) j = std::move(text);
  } else if (j.is_array()) {
    for (auto& item : j) RebasePaths(item, from, to);
  } else if (j.is_object()) {
    nlohmann::json rebased = nlohmann::json::object();
    for (auto& [key, value] : j.items()) {
      std::string name = key;
      Rebase(name, from, to);
      RebasePaths(value, from, to);
      rebased[name] = std::move(value);
    }
    j = std::move(rebased);
  }
}

// The file's text of checkpoint `c`: the header line and the body.
std::string CheckpointText(nlohmann::json c, const std::string& dataRoot) {
  RebasePaths(c, dataRoot, kDataRootMark);
  const std::string body = c.dump(1);
  return std::string(kCheckpointMagic) + " " + std::to_string(kCheckpointVersion) + " " +
         std::to_string(body.size()) + " " + ContentHash(body) + "\n" + body;
}

}  // namespace

bool ReadCheckpoint(const FileSystem& files, const std::string& path, nlohmann::json& checkpoint,
                    std::string* error) {
  const auto fail = [&](const std::string& why) {
    if (error) *error = "the checkpoint " + path + " " + why;
    return false;
  };
  std::string bytes;
  std::string why;
  if (!files.readFile(path, bytes, &why)) return fail("cannot be read: " + why);
  const size_t end = bytes.find('\n');
  const std::string header = bytes.substr(0, end == std::string::npos ? bytes.size() : end);
  char magic[32] = {};
  int version = 0;
  unsigned long long length = 0;
  char sum[17] = {};
  const int fields =
      std::sscanf(header.c_str(), "%31s %d %llu %16s", magic, &version, &length, sum);
  if (fields < 2 || std::string_view(magic) != kCheckpointMagic)
    return fail("is not a run checkpoint (its first line is not \"" +
                std::string(kCheckpointMagic) + " ...\")");
  if (version != kCheckpointVersion)
    return fail("was written in checkpoint format version " + std::to_string(version) +
                "; this program reads version " + std::to_string(kCheckpointVersion));
  if (fields < 4 || end == std::string::npos)
    return fail("is cut short (its first line is incomplete)");
  const std::string_view body = std::string_view(bytes).substr(end + 1);
  if (body.size() < length)
    return fail("is cut short (" + std::to_string(body.size()) + " of " + std::to_string(length) +
                " bytes)");
  if (body.size() > length || ContentHash(body) != sum)
    return fail("is damaged (its checksum does not match its contents)");
  try {
    checkpoint = nlohmann::json::parse(body);
  } catch (const std::exception& e) {
    return fail(std::string("is damaged: ") + e.what());
  }
  if (!checkpoint.is_object() || !checkpoint.contains("state") || !checkpoint.contains("sequence"))
    return fail("is damaged (parts of the run state are missing)");
  RebasePaths(checkpoint, kDataRootMark, files.dataRoot());
  return true;
}

std::vector<InterruptedRun> ListInterruptedRuns(const FileSystem& files) {
  std::vector<InterruptedRun> runs;
  std::vector<std::string> names;
  if (!files.list(RunsFolder(files), names, nullptr)) return runs;
  for (const auto& name : names) {
    if (!EndsWith(name, kCheckpointExtension)) continue;
    InterruptedRun run;
    run.path = join(RunsFolder(files), name);
    if (!files.isFile(run.path)) continue;
    run.name = name.substr(0, name.size() - kCheckpointExtension.size());
    nlohmann::json checkpoint;
    if (!ReadCheckpoint(files, run.path, checkpoint, &run.problem)) {
      runs.push_back(std::move(run));
      continue;
    }
    try {
      run.sequence = checkpoint.at("sequence").get<std::string>();
      run.file = checkpoint.at("file").get<std::string>();
      run.line = checkpoint.at("line").get<int>();
      run.serial = checkpoint.at("serial").get<std::string>();
      run.taken = checkpoint.at("taken").get<Micros>();
    } catch (const std::exception& e) {
      run.problem = "the checkpoint " + run.path + " is damaged: " + e.what();
    }
    runs.push_back(std::move(run));
  }
  std::stable_sort(runs.begin(), runs.end(), [](const InterruptedRun& a, const InterruptedRun& b) {
    if (a.problem.empty() != b.problem.empty()) return a.problem.empty();
    return a.taken != b.taken ? a.taken > b.taken : a.name > b.name;
  });
  return runs;
}

bool FindInterruptedRun(const FileSystem& files, const std::string& run, InterruptedRun& found,
                        std::string* error) {
  const auto runs = ListInterruptedRuns(files);
  for (const auto& candidate : runs) {
    if (run.empty()
            ? candidate.problem.empty()
            : (candidate.name == run || candidate.path == run || baseName(candidate.path) == run)) {
      found = candidate;
      return true;
    }
  }
  if (!run.empty() && files.isFile(run)) {
    found = InterruptedRun{};
    found.path = run;
    found.name = baseName(run);
    return true;
  }
  if (error) {
    *error = run.empty() ? "no interrupted run to resume in " + RunsFolder(files)
                         : "no interrupted run named " + run + " in " + RunsFolder(files);
    if (run.empty() && !runs.empty()) *error += " (" + runs.front().problem + ")";
  }
  return false;
}

bool DiscardCheckpoint(FileSystem& files, const std::string& path, Micros now, std::string* error) {
  const std::string folder = DiscardedFolder(files);
  std::string bytes;
  if (!files.readFile(path, bytes, error)) return false;
  if (!files.makeFolders(folder, error)) return false;
  auto out = files.rewrite(join(folder, baseName(path)), error);
  if (!out || !out->write(bytes, error) || !out->commit(error)) return false;
  if (!files.remove(path, error)) return false;
  // Older discarded checkpoints go after a week.
  std::vector<std::string> names;
  if (files.list(folder, names, nullptr)) {
    for (const auto& name : names) {
      if (name == baseName(path)) continue;
      const std::string old = join(folder, name);
      const FileInfo info = files.info(old);
      if (info.kind == FileKind::kFile && info.modifiedNs / 1000 < now - kDiscardedKeptFor)
        files.remove(old, nullptr);
    }
  }
  return true;
}

// --- RunCheckpoints -------------------------------------------------------------

RunCheckpoints::RunCheckpoints(Engine& engine)
    : engine_(engine), timer_(engine.events(), kCheckpointEvery, [this] { timerTick(); }) {
  Sequencer& seq = engine.sequencer();
  seq.addRunStartHook([this] { startRun(); });
  seq.addLineHook([this](int16_t) { afterLine(); });
  seq.addWaitHook([this] { request(false); });
  // A UUT that ended has had its results written: a checkpoint at once, so
  // that a run that goes on never writes them again. The line in progress
  // (the next data entry) is run again from the start, which finds no UUT
  // to finish.
  engine.testDatabase().addUutFinishedHook(
      [this](const UutRecord&, const std::vector<std::string>&) {
        engine_.sequencer().markLineRerunnable();
        request(true);
      });
  engine.files().beforeFirstAppend([this](const std::string& path) { firstAppend(path); });
  // Whatever ends a run removes its checkpoint (after the last UUT is
  // written, which is a run-end hook of its own registered before this).
  seq.addRunEndHook([this] { endRun(); });
}

RunCheckpoints::~RunCheckpoints() = default;

void RunCheckpoints::adopt(const std::string& path, const nlohmann::json& checkpoint) {
  adopted_ = true;
  path_ = path;
  appended_.clear();
  if (checkpoint.contains("appended")) {
    for (const auto& [file, size] : checkpoint.at("appended").items()) appended_.insert(file);
  }
}

void RunCheckpoints::startRun() {
  Sequencer& seq = engine_.sequencer();
  const Micros now = engine_.clock().now();
  running_ = true;
  realClock_ = !engine_.clock().isVirtual();
  linesSinceClock_ = 0;
  engine_.files().clearAppended();
  if (!adopted_) {
    appended_.clear();
    std::string error;
    engine_.files().makeFolders(RunsFolder(engine_.files()), &error);
    const std::string name = RunName(now, seq.sequenceFileName());
    path_ = join(RunsFolder(engine_.files()), name + std::string(kCheckpointExtension));
    for (int n = 2; engine_.files().info(path_).kind != FileKind::kMissing; ++n)
      path_ = join(RunsFolder(engine_.files()),
                   name + "-" + std::to_string(n) + std::string(kCheckpointExtension));
  }
  adopted_ = false;
  std::string bytes;
  sequenceHash_ = engine_.files().readFile(seq.sequenceFileName(), bytes, nullptr)
                      ? ContentHash(bytes)
                      : std::string();
  hashedFile_ = seq.sequenceFileName();
  fileHash_ = sequenceHash_;
  uutSignature_ = -1;
  dirty_ = true;
  lastWrite_ = now - kCheckpointEvery;
  write(true);
}

void RunCheckpoints::firstAppend(const std::string& path) {
  if (!running_ || appended_.count(path) || !last_.is_object() ||
      InRunsFolder(engine_.files(), path)) {
    return;
  }
  appended_.insert(path);
  last_["appended"][path] = LengthAtCheckpoint(engine_.files(), path);
  const std::string text = CheckpointText(last_, engine_.files().dataRoot());
  std::string error;
  auto out = engine_.files().rewrite(path_, &error);
  if (!(out && out->write(text, &error) && out->commit(&error))) problem_ = error;
}

void RunCheckpoints::endRun() {
  running_ = false;
  last_ = nlohmann::json();
  timer_.setEnabled(false);
  timerArmed_ = false;
  if (!path_.empty()) engine_.files().remove(path_, nullptr);
  path_.clear();
  dirty_ = false;
}

void RunCheckpoints::afterLine() {
  if (!running_) return;
  if (engine_.sequencer().takeCheckpointWanted()) {
    write(true);
    return;
  }
  const TestDatabase& db = engine_.testDatabase();
  const int64_t signature = (static_cast<int64_t>(db.uutsFinished()) << 40) ^
                            (static_cast<int64_t>(db.uutOpen()) << 39) ^
                            (static_cast<int64_t>(db.uut().failures.size()) << 20) ^
                            static_cast<int64_t>(db.uut().checks.size());
  if (signature != uutSignature_) {
    uutSignature_ = signature;
    dirty_ = true;
  }
  if (realClock_) {
    // While lines run the timer is not needed, and a timer that is set
    // makes every event check read the clock: the lines look at the clock
    // themselves, every so many of them. A wait sets the timer again.
    if (timerArmed_) {
      timer_.setEnabled(false);
      timerArmed_ = false;
    }
    // A change waits for the next look too: a few microseconds of lines.
    if (++linesSinceClock_ < kLinesPerClockReading) return;
    linesSinceClock_ = 0;
  } else if (!dirty_ && timerArmed_) {
    // On a virtual clock the checkpoint of every 10 s of run time comes
    // from the timer.
    return;
  }
  const Micros since = engine_.clock().now() - lastWrite_;
  if ((dirty_ && since >= kCheckpointAtMostEvery) || since >= kCheckpointEvery) write();
}

void RunCheckpoints::timerTick() {
  if (!running_) return;
  write();
}

void RunCheckpoints::request(bool urgent) {
  if (!running_) return;
  const Micros now = engine_.clock().now();
  if (urgent || now - lastWrite_ >= kCheckpointAtMostEvery) {
    write(urgent);
    return;
  }
  dirty_ = true;
  arm(lastWrite_ + kCheckpointAtMostEvery);
}

void RunCheckpoints::arm(Micros due) {
  timer_.setEnabled(false);
  timerArmed_ = false;
  // On a virtual clock a checkpoint is no reason for time to move: with
  // nothing else due, a wait that can never end must still be told as such.
  if (engine_.clock().isVirtual() && engine_.events().nextDue() == Clock::kNever) return;
  timer_.setDue(due);
  timerArmed_ = true;
}

void RunCheckpoints::writeNow() {
  if (running_) write();
}

bool RunCheckpoints::write(bool urgent) {
  Sequencer& seq = engine_.sequencer();
  const auto realNow = std::chrono::steady_clock::now();
  if (!seq.atResumableMoment() ||
      (!urgent && leastRealGap_.count() > 0 && realNow - lastRealWrite_ < leastRealGap_)) {
    // Taken at the end of the line in progress, or later.
    dirty_ = true;
    arm(engine_.clock().now() + kCheckpointEvery);
    return false;
  }
  lastRealWrite_ = realNow;
  WatchedFileSystem& files = engine_.files();
  const Micros now = engine_.clock().now();
  nlohmann::json c;
  c["format"] = kCheckpointMagic;
  c["version"] = kCheckpointVersion;
  c["name"] = baseName(path_).substr(0, baseName(path_).size() - kCheckpointExtension.size());
  c["taken"] = now;
  c["takenText"] = isoDateTime(now);
  c["virtualClock"] = engine_.clock().isVirtual();
  nlohmann::json state;
  seq.saveRunState(state);
  c["sequence"] = state.at("prepared");
  c["sequenceHash"] = sequenceHash_;
  const std::string current = seq.sequenceFileName();
  if (current != hashedFile_) {
    std::string bytes;
    fileHash_ = files.readFile(current, bytes, nullptr) ? ContentHash(bytes) : std::string();
    hashedFile_ = current;
  }
  c["file"] = current;
  c["fileHash"] = fileHash_;
  c["line"] = state.at("lines");
  const TestDatabase& db = engine_.testDatabase();
  c["serial"] = db.uutOpen() ? db.uut().serialNumber : std::string();
  if (Instrument* instrument = engine_.instrument()) {
    c["setup"] = instrument->setupFile();
    nlohmann::json outputs = nlohmann::json::object();
    for (const auto& [channel, value] : instrument->channels().written()) outputs[channel] = value;
    c["outputs"] = std::move(outputs);
  } else {
    c["setup"] = "";
    c["outputs"] = nlohmann::json::object();
  }
  c["answers"] = seq.operatorPort().answersUsed();
  for (auto& file : files.appendedFiles()) {
    if (!InRunsFolder(files, file)) appended_.insert(std::move(file));
  }
  nlohmann::json appended = nlohmann::json::object();
  for (const auto& file : appended_) appended[file] = LengthAtCheckpoint(files, file);
  c["appended"] = std::move(appended);
  c["state"] = std::move(state);

  const std::string text = CheckpointText(c, files.dataRoot());
  last_ = std::move(c);
  std::string error;
  auto out = files.rewrite(path_, &error);
  const bool ok = out && out->write(text, &error) && out->commit(&error);
  lastWrite_ = now;
  dirty_ = false;
  arm(now + kCheckpointEvery);
  if (!ok) {
    problem_ = error;
    return false;
  }
  ++written_;
  if (onWritten) onWritten(path_);
  return true;
}

}  // namespace tavrix
