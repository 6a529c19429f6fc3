// The test database of a run: DB_DATAENTRY opens it (loading the test
// definition once per run) and starts a UUT record; DB_STAGECHECK evaluates a
// step's checks into that record; the record's results files are written when
// the next DB_DATAENTRY comes and when the run ends, so every UUT whose record
// was started is written exactly once.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/paths.h"
#include "sequencer/keyword.h"
#include "testdb/data_entry.h"
#include "testdb/definition_files.h"
#include "testdb/results_files.h"
#include "testdb/stage_checks.h"
#include "testdb/uut_record.h"

namespace tavrix {

class Sequencer;

// DB_DATAENTRY and DB_STAGECHECK.
std::vector<KeywordEntry> TestDatabaseKeywords();

inline constexpr std::string_view kMsgUnableToOpen = "Unable to open Database file:";

// Reads a channel by name for the stage checks: true with the value text, or
// false with the link's error text.
using ChannelReader =
    std::function<bool(const std::string& channel, std::string& value, std::string* error)>;
// The user hook of RECORD checks: the value to record, or std::nullopt to
// read the row's channel.
using RecordValueHook = std::function<std::optional<std::string>(const StageCheck& row)>;

class TestDatabase {
 public:
  // `results`: how and where the results files are written.
  TestDatabase(Sequencer& sequencer, const PathMap& paths, ResultsSettings results = {});
  TestDatabase(const TestDatabase&) = delete;
  TestDatabase& operator=(const TestDatabase&) = delete;

  // Binds DB_DATAENTRY and DB_STAGECHECK and the end of every run.
  void registerCommands();

  // --- Plugged in by the engine ----------------------------------------------
  // How the stage checks read a channel; without one a read fails.
  void setChannelReader(ChannelReader reader) { readChannel_ = std::move(reader); }
  void setRecordValueHook(RecordValueHook hook) { recordValue_ = std::move(hook); }
  // The results directory used when the details give an empty one.
  void setDataDirectory(std::string folder) { results_.dataDirectory = std::move(folder); }
  const ResultsSettings& resultsSettings() const { return results_; }
  // Called once for each finished UUT, after its results files are written
  // (or failed to be), with the details file it was tested under and the
  // time it ended: the results store takes the record from here. Empty: no
  // one is told.
  using UutEndedHook =
      std::function<void(const TestDefinition& definition, const std::string& detailsPath,
                         const UutRecord& uut, Micros ended)>;
  void setUutEnded(UutEndedHook hook) { uutEnded_ = std::move(hook); }

  // --- The mechanisms --------------------------------------------------------
  // Asks the data-entry question, loads the definition if this run has not,
  // and starts a UUT record when the operator accepted. True on Accept.
  bool OpenTestDatabase(const std::string& detailsPath);
  // Evaluates every row of `step`, asking the operator where the rows say so.
  void RunStageCheck(int16_t step);
  // Writes the open UUT record's results (once) and closes it.
  void FinishUut();
  // Ends the run's use of the database: the open UUT is finished and the
  // next run loads the definition again.
  void EndRun();

  // Told of each finished UUT, once its results are written: the record and
  // the results files written for it (local paths; none when results are off
  // or could not be written).
  using UutFinishedHook =
      std::function<void(const UutRecord& uut, const std::vector<std::string>& files)>;
  void addUutFinishedHook(UutFinishedHook hook) { finishedHooks_.push_back(std::move(hook)); }

  // --- State -----------------------------------------------------------------
  bool loaded() const { return loaded_; }
  bool uutOpen() const { return uutOpen_; }
  // True when a UUT finished in this engine's life failed.
  bool anyUutFailed() const { return anyUutFailed_; }
  int uutsFinished() const { return uutsFinished_; }
  const TestDefinition& definition() const { return definition_; }
  const UutRecord& uut() const { return uut_; }
  const DataEntry& lastEntry() const { return entry_; }
  bool continueFlag() const { return continue_; }
  int checkVerdict() const { return verdict_; }
  bool repeatFlag() const { return repeat_; }
  int lastAlertAnswer() const { return lastAlert_; }
  int16_t currentStep() const { return step_; }
  size_t currentStageRow() const { return stageRow_; }

  // Adds a note to the UUT in progress (a resume and its gap); its results
  // files and its record carry it.
  void noteOnOpenUut(std::string note) {
    if (uutOpen_) uut_.resumeNotes.push_back(std::move(note));
  }

 private:
  enum class AlertChoices { kAcceptCancel, kPassFailRetry };

  bool askDataEntry(DataEntry& entry);
  void showPlainMessage(const std::string& text);
  // The state a resumed run needs: the open definition, the UUT in progress
  // and the flags of the last checks.
  void saveState(nlohmann::json& part) const;
  bool restoreState(const nlohmann::json& part, std::string* error);
  void evaluateRow(const StageCheck& row);
  void manualRow(const StageCheck& row);
  void valueRow(const StageCheck& row, bool difference);
  void recordRow(const StageCheck& row);
  bool readValue(const std::string& channel, double& value);
  void valueFailed(const StageCheck& row, CheckEntry check);
  // Returns the verdict of the UUT Check question, 0 when unanswered.
  int askUutCheck(const std::string& text);
  // Returns the choice's number from 1, 0 when unanswered.
  int askAlert(const std::string& text, AlertChoices choices);
  int askCheckFailure();
  // "Repeat last test step" or "Continue with test"; std::nullopt unanswered.
  std::optional<std::string> askRepeatStep();

  Sequencer& seq_;
  const PathMap& paths_;
  ResultsSettings results_;
  ChannelReader readChannel_;
  RecordValueHook recordValue_;
  UutEndedHook uutEnded_;
  TestDefinition definition_;
  std::string detailsPath_;  // of the loaded definition
  bool loaded_ = false;
  DataEntry entry_;
  bool accepted_ = false;
  UutRecord uut_;
  bool uutOpen_ = false;
  bool anyUutFailed_ = false;
  int uutsFinished_ = 0;

  int16_t step_ = 0;
  size_t stageRow_ = 0;
  bool continue_ = true;
  int verdict_ = kVerdictPass;
  bool repeat_ = false;
  int lastAlert_ = 0;
  std::string collected_;  // the step's failure texts, one a line
  std::vector<UutFinishedHook> finishedHooks_;
  bool repeatWanted_ = false;  // a Fail and Repeat in the step's rows
};

}  // namespace tavrix
