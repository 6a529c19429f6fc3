// A fake operator for tests: answers from a queue, records every question,
// message and display, and can run a callback when a question opens (to
// stop the run from "outside", say). Attached to a run's events, it records
// the run status, the current command display and the time-out count-down
// too.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "sequencer/operator.h"
#include "sequencer/run_events.h"

namespace tavrix {

class RecordingOperator : public Operator {
 public:
  std::deque<Answer> answers;         // taken in order; empty queue: no answer
  std::vector<Question> questions;    // every question asked
  std::vector<std::string> messages;  // every message box text
  std::vector<std::string> statuses;  // every run status shown
  std::vector<std::string> commands;  // every current-command display
  std::string helpText;
  int32_t timeout = 0;
  bool stopAllowed = true;                       // as the last run event about it said
  std::deque<std::optional<std::string>> files;  // files picked, in order
  std::function<void(const Question&)> onQuestion;
  // While true, questions stay open (unanswered) until the engine closes them.
  bool holdQuestions = false;
  int closedQuestions = 0;  // questions the engine closed itself

  void ask(const Question& question, std::function<void(Answer)> answered) override {
    questions.push_back(question);
    if (onQuestion) onQuestion(question);
    if (holdQuestions) return;
    Answer answer;
    if (!answers.empty()) {
      answer = answers.front();
      answers.pop_front();
    }
    answered(answer);
  }
  void closeQuestion() override { ++closedQuestions; }
  void showMessage(std::string_view, std::string_view text) override {
    messages.emplace_back(text);
  }
  // Records the displays of `bus`'s run events until this operator goes.
  void watch(RunEventBus& bus) {
    subscription_ = bus.subscribe([this](const RunEvent& event) {
      switch (event.kind) {
        case RunEventKind::kStatus:
          statuses.push_back(event.text);
          break;
        case RunEventKind::kCommand:
          commands.push_back(event.text);
          break;
        case RunEventKind::kTimeout:
          timeout = static_cast<int32_t>(event.number);
          break;
        case RunEventKind::kStopAllowed:
          stopAllowed = event.flag;
          break;
        case RunEventKind::kStarted:
          stopAllowed = true;
          break;
        default:
          break;
      }
    });
  }
  std::optional<std::string> chooseFile(const FileChoice&) override {
    if (files.empty()) return std::nullopt;
    auto file = files.front();
    files.pop_front();
    return file;
  }
  void showHelpText(std::string_view text) override { helpText = text; }
  void showChannelValue(std::string_view channel, std::string_view value) override {
    channelValues.push_back(std::string(channel) + "=" + std::string(value));
  }
  void minimiseWindow() override { ++minimised; }
  std::vector<std::string> channelValues;  // "NAME=value", every display
  int minimised = 0;

 private:
  RunEventBus::Subscription subscription_;
};

}  // namespace tavrix
