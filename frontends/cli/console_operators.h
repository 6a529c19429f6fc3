// Operators for the headless front end: one that answers from a scripted
// answers file, and one that asks at the terminal. Both print message boxes
// to the error stream.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "answers_file.h"
#include "common/file_system.h"
#include "platform/console.h"
#include "sequencer/operator.h"

namespace tavrix {

// Writes a message box as text: the title, then the text with its carriage
// returns turned into line ends.
void PrintMessageBox(std::FILE* out, std::string_view title, std::string_view text);

// Answers from a file. A question that no line answers, or whose line names
// no button of the question, gets no answer.
class ScriptedOperator : public Operator {
 public:
  ScriptedOperator(AnswersFile answers, std::FILE* messages) : answers_(std::move(answers)), out_(messages) {}
  void ask(const Question& question, std::function<void(Answer)> answered) override;
  std::string unansweredReason() const override { return reason_; }
  // A KIND* line gives the same answer every time: a question that refuses
  // it, or that it sends round again, would loop for ever.
  bool mayAskAgain(const Question& question, std::string_view why) override;
  void showMessage(std::string_view title, std::string_view text) override;
  // The numbers of the lines used, comma separated.
  std::string answersUsed() const override;
  bool restoreAnswersUsed(std::string_view used) override;

 private:
  AnswersFile answers_;
  std::FILE* out_;
  std::string reason_;
  // The line that gave the last answer, and the kind it answered.
  std::optional<AnswersFile::Line> last_;
  std::string lastKind_;
};

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
std::unique_ptr<Operator> MakeConsoleOperator(const FileSystem& files, const std::optional<std::string>& answers,
                                              std::FILE* in, std::FILE* out, std::string* error);

// The button of `question` that `text` names: the caption as written, in
// any case, or its number from 1. Empty when none matches.
std::string MatchButton(const Question& question, std::string_view text);

// The answer that `text` gives to `question`: the button it names, and for a
// question with fields after its button, the fields too ("accept|serial=1"
// gives "Accept|serial=1"). Empty when it names no button.
std::string MatchAnswer(const Question& question, std::string_view text);

}  // namespace tavrix
