// Everything the engine asks of a person, and what commands show them.
// Abstract so that the same engine runs behind the desktop window, a
// terminal, a file of scripted answers, or a test's recording fake. What a
// front end shows of the run itself (lines, status, count-downs, the run
// controls) it takes from the run events (sequencer/run_events.h).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix {

// A question: the operator answers by picking one of the choices (or, for
// questions with an entry field, by typing a text).
struct Question {
  std::string kind;   // who asks: "CONTINUEOK", "ENTEROKCANCEL", "QUESTION", ...
  std::string title;  // window title, where the question has one
  std::string text;
  std::vector<std::string> choices;  // the answers offered, as shown
  // The answer may carry entry fields after the choice, each after a '|':
  // "Accept|serial=1234|date=15-11-2026".
  bool fieldsAfterChoice = false;
};

// The choice picked (or the text entered); std::nullopt
// when no answer can ever come (scripted answers exhausted, input closed).
using Answer = std::optional<std::string>;

// A file the operator is asked to pick.
struct FileChoice {
  std::string title;
  std::string defaultExtension;
  std::string fileName;
  std::string filter;
  std::string initialDirectory;
};

class Operator {
 public:
  virtual ~Operator() = default;

  // Opens a question. `answered` is called once, from any thread, with the
  // answer. The engine waits for it on its event loop.
  virtual void ask(const Question& question, std::function<void(Answer)> answered) = 0;

  // The engine closed the open question itself (the channel display whose
  // channel can no longer be read): a window showing it closes it. An answer
  // given after this is ignored.
  virtual void closeQuestion() {}

  // Why the last question got no answer (shown in the error report).
  virtual std::string unansweredReason() const { return "no answer can be given"; }

  // The last answer to `question` makes it be asked again: the question
  // refused it (`why` says how) or the answer itself asks for a repeat.
  // Returns false when asking again cannot lead anywhere, because the same
  // answer would come again; unansweredReason() then says why.
  virtual bool mayAskAgain(const Question& /*question*/, std::string_view /*why*/) { return true; }

  // Which scripted answers have been given, as a text that the same
  // operator takes back when a run goes on after an abrupt end (empty: the
  // operator keeps nothing of the kind).
  virtual std::string answersUsed() const { return {}; }
  // False when `used` does not fit this operator's answers.
  virtual bool restoreAnswersUsed(std::string_view /*used*/) { return true; }

  // True when answers come from a person, so waiting for one must not let a
  // virtual clock race ahead.
  virtual bool isPerson() const { return false; }

  // A message the operator acknowledges; returns once it is.
  virtual void showMessage(std::string_view title, std::string_view text) = 0;

  // File selection; std::nullopt when the operator cancels.
  virtual std::optional<std::string> chooseFile(const FileChoice& /*choice*/) {
    return std::nullopt;
  }

  // What commands show.
  virtual void showHelpText(std::string_view /*text*/) {}
  // The channel display of DOWITHSHOW and MANUALADJUST (`laChanValue`).
  virtual void showChannelValue(std::string_view /*channel*/, std::string_view /*value*/) {}
  // ICONISE: the program is minimised (front ends without a window ignore it).
  virtual void minimiseWindow() {}
  // The run status label shown with another text and background colour for
  // a while (a pulse shows "Pulse Timing" in orange); the colour is a colour
  // value: red + 256 x green + 65536 x blue.
  virtual void showStatusLabel(std::string_view /*text*/, int32_t /*colour*/) {}
  // The alarm definitions lists: the alarm names (lbAlarmLabels) and, line
  // for line, the commands bound to them (lbAlarmCommands).
  virtual void showAlarmDefinitions(const std::vector<std::string>& /*labels*/,
                                    const std::vector<std::string>& /*commands*/) {}
};

}  // namespace tavrix
