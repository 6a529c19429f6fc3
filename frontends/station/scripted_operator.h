// The operator that answers from a scripted answers file, which every
// front end uses for a run without a person (tavrix-cli run --answers, a
// station's sockets). Message boxes are printed as text.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "answers_file.h"
#include "sequencer/operator.h"

namespace tavrix {

// Writes a message box as text: the title, then the text with its carriage
// returns turned into line ends.
void PrintMessageBox(std::FILE* out, std::string_view title, std::string_view text);

// Answers from a file. A question that no line answers, or whose line names
// no button of the question, gets no answer.
class ScriptedOperator : public Operator {
 public:
  ScriptedOperator(AnswersFile answers, std::FILE* messages)
      : answers_(std::move(answers)), out_(messages) {}
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

// The button of `question` that `text` names: the caption as written, in
// any case, or its number from 1. Empty when none matches.
std::string MatchButton(const Question& question, std::string_view text);

// The answer that `text` gives to `question`: the button it names, and for a
// question with fields after its button, the fields too ("accept|serial=1"
// gives "Accept|serial=1"). Empty when it names no button.
std::string MatchAnswer(const Question& question, std::string_view text);

}  // namespace tavrix
