#include "testdb/stage_checks.h"

#include "common/text_conventions.h"
#include "sequencer/sequencer.h"
#include "testdb/test_database.h"

namespace tavrix {

std::string LimitText(float limit) { return std::string(trimLeft(numberTextSingle(limit))); }

std::string LimitFailureText(std::string_view value, float lower, float upper) {
  return "Value: " + std::string(value) + "  Min: " + LimitText(lower) +
         "  Max: " + LimitText(upper);
}

void TestDatabase::RunStageCheck(int16_t step) {
  // Before the first Accept of the run there is no UUT record to keep the
  // results in.
  if (!uutOpen_) {
    if (seq_.trace().enabled()) {
      seq_.trace().event("stagecheck").field("step", step).field("skipped", true);
    }
    return;
  }
  step_ = step;
  for (;;) {
    continue_ = true;
    collected_.clear();
    repeatWanted_ = false;
    // Every row of the step, whatever the verdicts of the rows before it.
    for (size_t i = 0; i < definition_.stageChecks.size(); ++i) {
      if (definition_.stageChecks[i].step != step_) continue;
      stageRow_ = i + 1;
      evaluateRow(definition_.stageChecks[i]);
      uut_.checkOrigins.resize(uut_.checks.size(),
                               {stageRow_, upperCase(trim(definition_.stageChecks[i].type))});
      if (seq_.runEnding()) return;
    }
    if (!collected_.empty()) {
      verdict_ = askCheckFailure();
      if (verdict_ == 0) return;  // unanswered: the run ends
    } else {
      verdict_ = kVerdictPass;
    }
    if (verdict_ == kVerdictFail) break;
    if (verdict_ != kVerdictRepeat && !repeatWanted_) break;
    // A repeat was asked for: the operator repeats the step (after any
    // rework) or goes on with the test.
    const auto answer = askRepeatStep();
    if (!answer) return;
    if (*answer != kRepeatLastStep) break;
  }
  if (verdict_ == kVerdictFail) continue_ = false;
}

std::optional<std::string> TestDatabase::askRepeatStep() {
  Question question;
  question.kind = kRepeatStepKind;
  question.title = kCheckFailureTitle;
  question.text = "Stage " + formatNumber(step_, "0");
  question.choices = {std::string(kRepeatLastStep), std::string(kContinueWithTest)};
  return seq_.ask(question);
}

void TestDatabase::evaluateRow(const StageCheck& row) {
  const std::string type = upperCase(trim(row.type));
  if (type == kCheckManual) return manualRow(row);
  if (type == kCheckRecord) return recordRow(row);
  if (type == kCheckMeasure) return valueRow(row, false);
  if (type == kCheckDifference) return valueRow(row, true);
  seq_.showMessage(std::string(kMsgUnrecognisedType) + row.type);
}

void TestDatabase::manualRow(const StageCheck& row) {
  const std::string name = row.text7.empty() ? std::string(kUnNamed) : row.text7;
  const std::string text = row.text9.empty() ? name : row.text9;
  const int verdict = askUutCheck(text);
  if (verdict == 0) return;
  verdict_ = verdict;
  CheckEntry check;
  check.parameter = name;
  check.units = row.text8;
  check.stage = step_;
  if (verdict == kVerdictPass) {
    check.value = kOpPass;
    uut_.checks.push_back(std::move(check));
    return;
  }
  uut_.failures.push_back({step_, name, std::string(kOpFail), ""});
  check.value = kOpFail;
  check.passed = false;
  check.failureText = kOpFail;
  uut_.checks.push_back(std::move(check));
  // Fail and Repeat: the step is offered again once its rows are done.
  if (verdict == kVerdictFailRepeat) repeatWanted_ = true;
}

bool TestDatabase::readValue(const std::string& channel, double& value) {
  std::string text;
  std::string error;
  if (!readChannel_ || !readChannel_(channel, text, &error)) {
    if (!readChannel_) error = "no channel can be read in this program";
    seq_.reportSequenceError("Stage " + formatNumber(step_, "0") + ": cannot read channel " +
                             channel + ": " + error);
    return false;
  }
  value = leadingNumber(text);
  return true;
}

void TestDatabase::recordRow(const StageCheck& row) {
  CheckEntry check;
  check.parameter = row.text7.empty() ? row.channel : row.text7;
  check.channel = row.channel;
  check.units = row.text8;
  check.stage = step_;
  std::optional<std::string> supplied;
  if (recordValue_) supplied = recordValue_(row);
  if (supplied) {
    check.value = *supplied;
  } else {
    if (row.channel.empty()) return;
    double value = 0;
    if (!readValue(row.channel, value)) return;
    check.value = formatNumber(static_cast<float>(value), kValueFormat);
  }
  if (check.parameter.empty()) check.parameter = kUnNamed;
  uut_.checks.push_back(std::move(check));
}

void TestDatabase::valueRow(const StageCheck& row, bool difference) {
  if (row.channel.empty() || (difference && row.secondChannel.empty())) return;
  double reading = 0;
  if (!readValue(row.channel, reading)) return;
  CheckEntry check;
  if (difference) {
    double second = 0;
    if (!readValue(row.secondChannel, second)) return;
    // The difference of the readings as read, then held in 32 bits like a
    // single reading: 1.3 - 0.2 is 1.1, as the limit 1.1 is.
    reading -= second;
    check.parameter = row.channel + "-" + row.secondChannel;
    check.channel = check.parameter;
  } else {
    check.parameter = row.text7.empty() ? row.channel : row.text7;
    check.channel = row.channel;
  }
  const float value = static_cast<float>(reading);
  check.value = formatNumber(value, kValueFormat);
  check.units = row.text8;
  check.lower = LimitText(row.lower);
  check.upper = LimitText(row.upper);
  check.stage = step_;
  // The lower limit first; both limits belong to the passing range.
  const bool passed = value >= row.lower && value <= row.upper;
  if (passed) {
    uut_.checks.push_back(std::move(check));
    return;
  }
  valueFailed(row, std::move(check));
}

void TestDatabase::valueFailed(const StageCheck& row, CheckEntry check) {
  const std::string text = LimitFailureText(check.value, row.lower, row.upper);
  uut_.passed = false;
  uut_.failures.push_back({step_, check.parameter, text, check.value});
  check.passed = false;
  check.failureText = text;
  const std::string line = check.parameter + ": " + text;
  uut_.checks.push_back(std::move(check));
  collected_ += (collected_.empty() ? "" : "\r") + line;
  const std::string alert = row.text9.empty() ? line : row.text9 + "\r" + line;
  // Accept or Cancel, the step's remaining rows are evaluated; the answer is
  // kept as the last alert answer.
  askAlert(alert, AlertChoices::kAcceptCancel);
}

int TestDatabase::askUutCheck(const std::string& text) {
  Question question;
  question.kind = kUutCheckKind;
  question.title = kUutCheckTitle;
  question.text = text;
  question.choices = {std::string(kPass), std::string(kFailAndRepeat),
                      std::string(kFailAndContinue)};
  const Answer answer = seq_.ask(question);
  if (!answer) return 0;
  if (*answer == kPass) {
    continue_ = true;
    return kVerdictPass;
  }
  uut_.passed = false;
  if (*answer == kFailAndRepeat) {
    if (!seq_.mayAskAgain(question, "that asks for the check again")) return 0;
    continue_ = true;
    return kVerdictFailRepeat;
  }
  continue_ = false;
  return kVerdictFail;
}

int TestDatabase::askAlert(const std::string& text, AlertChoices choices) {
  Question question;
  question.kind = kAlertKind;
  question.title = kAlertTitle;
  question.text = text;
  if (choices == AlertChoices::kAcceptCancel) {
    question.choices = {std::string(kAccept), std::string(kCancel)};
  } else {
    question.choices = {std::string(kPass), std::string(kFail), std::string(kRetry)};
  }
  const Answer answer = seq_.ask(question);
  if (!answer) return 0;
  for (size_t i = 0; i < question.choices.size(); ++i) {
    if (question.choices[i] == *answer) lastAlert_ = static_cast<int>(i) + 1;
  }
  return lastAlert_;
}

int TestDatabase::askCheckFailure() {
  repeat_ = false;
  Question question;
  question.kind = kCheckFailureKind;
  question.title = kCheckFailureTitle;
  question.text = "Stage " + formatNumber(step_, "0") + "\r" + collected_ + "\r" +
                  std::string(kCheckFailureKeys);
  question.choices = {std::string(kIgnore), std::string(kRepeat), std::string(kFailAndAbandon)};
  const Answer answer = seq_.ask(question);
  if (!answer) return 0;
  if (*answer == kRepeat) {
    if (!seq_.mayAskAgain(question, "that asks for the step again")) return 0;
    repeat_ = true;
    return kVerdictRepeat;
  }
  if (*answer == kFailAndAbandon) return kVerdictFail;
  return kVerdictPass;
}

}  // namespace tavrix
