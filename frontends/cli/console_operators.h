// Operators for the headless front end: one that answers from a scripted
// answers file (scripted_operator.h), and one that asks at the terminal. Both
// print message boxes to the error stream.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "common/file_system.h"
#include "platform/console.h"
#include "scripted_operator.h"
#include "sequencer/operator.h"

namespace tavrix {

// Asks at the terminal: the question, its buttons numbered, and a line of
// input naming a button by caption (any case) or by number. Input is read on
// a thread of its own, so timers keep running while the person thinks. A
// question the engine closes (the run was stopped) stops waiting at once.
class TerminalOperator : public Operator {
 public:
  TerminalOperator(std::FILE* in, std::FILE* out);
  ~TerminalOperator() override;
  void ask(const Question& question, std::function<void(Answer)> answered) override;
  void closeQuestion() override;
  bool isPerson() const override { return true; }
  std::string unansweredReason() const override { return "the terminal input was closed"; }
  void showMessage(std::string_view title, std::string_view text) override;

 private:
  std::FILE* out_;
  std::unique_ptr<platform::LineReader> lines_;
  std::mutex mutex_;
  bool open_ = false;  // a question waits for its answer
  std::thread reader_;
};

// The operator of a headless run: answers from the file `answers` when one
// is given, else questions at the terminal when `in` is one, else no
// answers at all. nullptr with a message when the answers file cannot be read.
std::unique_ptr<Operator> MakeConsoleOperator(const FileSystem& files,
                                              const std::optional<std::string>& answers,
                                              std::FILE* in, std::FILE* out, std::string* error);

}  // namespace tavrix
