// Going on with a run after the program ended abruptly: the checks, the
// safe-state sequence and the order in which the run state comes back.
#include <cstdio>

#include "common/civil_time.h"
#include "engine/engine.h"
#include "engine/run_checkpoints.h"

namespace tavrix {

namespace {

// The files the run reads its lines from must be the ones it read; with
// `force` a changed file is only noted.
bool CheckSequenceFiles(const FileSystem& files, const nlohmann::json& checkpoint, bool force,
                        ResumeReport& done, std::string* error) {
  const auto unchanged = [&](const std::string& file, const std::string& hash) {
    std::string bytes;
    if (!files.readFile(file, bytes, nullptr)) return false;
    return ContentHash(bytes) == hash;
  };
  const std::string file = checkpoint.at("file").get<std::string>();
  for (const auto& [name, hash] :
       {std::pair{done.sequence, checkpoint.at("sequenceHash").get<std::string>()},
        std::pair{file, checkpoint.at("fileHash").get<std::string>()}}) {
    if (!files.isFile(name)) {
      if (error) *error = "the sequence file " + name + " of the run " + done.run + " is missing";
      return false;
    }
    if (!unchanged(name, hash)) {
      if (!force) {
        if (error)
          *error = "the sequence file " + name +
                   " has changed since the checkpoint was taken; the run cannot go on in it "
                   "(--force goes on all the same)";
        return false;
      }
      done.sequenceChanged = true;
    }
  }
  return true;
}

// The setup and the outputs as the run had them; an output that cannot be
// set again is a warning of the report.
bool RestoreRig(Instrument& instrument, const nlohmann::json& checkpoint, ResumeReport& done,
                std::string* error) {
  const std::string setup = checkpoint.at("setup").get<std::string>();
  if (!setup.empty() && !instrument.selectSetupFile(setup)) {
    if (error)
      *error = "the setup " + setup +
               " of the run cannot be selected: " + instrument.link().lastErrorText();
    return false;
  }
  for (const auto& [channel, value] : checkpoint.at("outputs").items()) {
    if (!instrument.channels().WriteChannel(channel, value.get<std::string>())) {
      done.warnings.push_back("the output " + channel + " could not be set to " +
                              value.get<std::string>() +
                              " again: " + instrument.link().lastErrorText());
    }
  }
  return true;
}

// What the run appended after the checkpoint is written again as it goes
// on: each file is cut back to where the checkpoint left it, and a file made
// after it (its length -1) is removed.
void CutBackAppended(FileSystem& files, const nlohmann::json& appended) {
  for (const auto& [name, size] : appended.items()) {
    const int64_t length = size.get<int64_t>();
    const FileInfo now = files.info(name);
    if (now.kind != FileKind::kFile) continue;
    if (length < 0) {
      files.remove(name, nullptr);
    } else if (now.size > static_cast<uint64_t>(length)) {
      files.truncate(name, static_cast<uint64_t>(length), nullptr);
    }
  }
}

}  // namespace

std::string GapText(Micros gap) {
  const bool negative = gap < 0;
  int64_t seconds = (negative ? -gap : gap) / kMicrosPerSecond;
  const int64_t days = seconds / 86400;
  seconds %= 86400;
  char text[64];
  if (days > 0) {
    std::snprintf(text, sizeof text, "%lld d %02lld h %02lld min %02lld s",
                  static_cast<long long>(days), static_cast<long long>(seconds / 3600),
                  static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  } else {
    std::snprintf(text, sizeof text, "%lld h %02lld min %02lld s",
                  static_cast<long long>(seconds / 3600), static_cast<long long>(seconds / 60 % 60),
                  static_cast<long long>(seconds % 60));
  }
  return (negative ? "-" : "") + std::string(text);
}

RunCheckpoints& Engine::keepCheckpoints() {
  if (!checkpoints_) checkpoints_ = std::make_unique<RunCheckpoints>(*this);
  return *checkpoints_;
}

bool Engine::runSafeState(bool* ran, std::string* error) {
  if (ran) *ran = false;
  if (safeState_.empty()) return true;
  std::string problem;
  if (!sequencer_.prepareFile(safeState_, &problem)) {
    if (error) *error = "the safe-state sequence cannot be run: " + problem;
    return false;
  }
  if (trace_.enabled()) trace_.event("safe-state").field("file", safeState_);
  sequencer_.start();
  if (ran) *ran = true;
  const EndReason reason = sequencer_.endReason();
  if (reason != EndReason::kEndOfFile && reason != EndReason::kStop) {
    if (error) {
      *error = "the safe-state sequence " + safeState_ + " did not end normally (" +
               EndReasonName(reason) + ")";
      if (!sequencer_.lastSequenceError().empty()) *error += ": " + sequencer_.lastSequenceError();
    }
    return false;
  }
  return true;
}

bool Engine::prepareResume(const std::string& path, bool force, ResumeReport* report,
                           std::string* error) {
  ResumeReport done;
  nlohmann::json checkpoint;
  if (!ReadCheckpoint(files_, path, checkpoint, error)) return false;
  try {
    done.run = checkpoint.at("name").get<std::string>();
    done.sequence = checkpoint.at("sequence").get<std::string>();
    done.line = checkpoint.at("line").get<int>();
    done.serial = checkpoint.at("serial").get<std::string>();
    done.taken = checkpoint.at("taken").get<Micros>();

    if (!CheckSequenceFiles(files_, checkpoint, force, done, error)) return false;

    // First the rig is made safe.
    if (!runSafeState(&done.safeStateRan, error)) return false;

    if (instrument_ && !RestoreRig(*instrument_, checkpoint, done, error)) return false;

    std::string problem;
    if (!sequencer_.prepareFile(done.sequence, &problem)) {
      if (error) *error = problem;
      return false;
    }
    if (!sequencer_.operatorPort().restoreAnswersUsed(
            checkpoint.at("answers").get<std::string>())) {
      if (error) *error = "the answers used by the run do not fit the answers file given";
      return false;
    }
    if (!sequencer_.restoreRunState(checkpoint.at("state"), &problem)) {
      if (error) *error = "the run " + done.run + " cannot go on: " + problem;
      return false;
    }
    CutBackAppended(files_, checkpoint.at("appended"));
  } catch (const std::exception& e) {
    if (error) *error = "the checkpoint " + path + " is damaged: " + e.what();
    return false;
  }

  done.resumedAt = clock_->now();
  done.gap = done.resumedAt - done.taken;
  testDatabase_.noteOnOpenUut("the test went on at " + isoDateTime(done.resumedAt) +
                              " after a gap of " + GapText(done.gap) + " (checkpoint taken at " +
                              isoDateTime(done.taken) + ")");
  if (trace_.enabled()) {
    trace_.event("resume")
        .field("run", done.run)
        .field("checkpoint", isoDateTime(done.taken))
        .field("at", isoDateTime(done.resumedAt))
        .field("gap", static_cast<int64_t>(done.gap / kMicrosPerSecond))
        .field("line", done.line);
  }
  keepCheckpoints().adopt(path, checkpoint);
  if (report) *report = std::move(done);
  return true;
}

EndReason Engine::runResumed() {
  sequencer_.startResumed();
  return sequencer_.endReason();
}

}  // namespace tavrix
