// A fake operator for tests: answers from a queue, records every question,
// message and display, and can run a callback when a question opens (to
// press Stop from "outside", say).
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "sequencer/operator.h"

namespace tavrix {

class RecordingOperator : public Operator {
 public:
  std::deque<Answer> answers;             // taken in order; empty queue: no answer
  std::vector<Question> questions;        // every question asked
  std::vector<std::string> messages;      // every message box text
  std::vector<std::string> statuses;      // every run status shown
  std::vector<std::string> commands;      // every current-command display
  std::string helpText;
  int32_t timeout = 0;
  RunControls controls;
  std::deque<std::optional<std::string>> files;  // file dialog results
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
  void showMessage(std::string_view, std::string_view text) override { messages.emplace_back(text); }
  std::optional<std::string> chooseFile(const FileDialog&) override {
    if (files.empty()) return std::nullopt;
    auto file = files.front();
    files.pop_front();
    return file;
  }
  void showRunStatus(std::string_view status) override { statuses.emplace_back(status); }
  void showCurrentCommand(std::string_view line) override { commands.emplace_back(line); }
  void showTimeout(int32_t seconds) override { timeout = seconds; }
  void showHelpText(std::string_view text) override { helpText = text; }
  void showControls(const RunControls& c) override { controls = c; }
  void showChannelValue(std::string_view channel, std::string_view value) override {
    channelValues.push_back(std::string(channel) + "=" + std::string(value));
  }
  void minimiseWindow() override { ++minimised; }
  std::vector<std::string> channelValues;  // "NAME=value", every display
  int minimised = 0;
};

}  // namespace tavrix
