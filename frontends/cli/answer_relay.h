// Lets a question be answered from elsewhere than the front end that shows
// it: `tavrix-cli ctl RUN answer CAPTION` answers through the control socket,
// and the terminal that asked closes its question. Stands between the engine
// and the operator of the front end; whichever answer comes first is the one
// the engine gets.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sequencer/operator.h"

namespace tavrix {

class AnswerRelay : public Operator {
 public:
  explicit AnswerRelay(Operator& inner) : inner_(inner) {}

  // The question that waits for its answer, if any (any thread).
  std::optional<Question> openQuestion() const;
  // Answers the open question with the button `text` names (its caption in
  // any case, or its number, with "|field=value" parts for a question that
  // has fields); false with a message when no question waits or `text`
  // names none of its answers. On the engine thread.
  bool answer(const std::string& text, std::string* error);

  void ask(const Question& question, std::function<void(Answer)> answered) override;
  void closeQuestion() override;
  std::string unansweredReason() const override { return inner_.unansweredReason(); }
  std::string answersUsed() const override { return inner_.answersUsed(); }
  bool restoreAnswersUsed(std::string_view used) override {
    return inner_.restoreAnswersUsed(used);
  }
  bool mayAskAgain(const Question& question, std::string_view why) override {
    return inner_.mayAskAgain(question, why);
  }
  bool isPerson() const override { return inner_.isPerson(); }
  void showMessage(std::string_view title, std::string_view text) override {
    inner_.showMessage(title, text);
  }
  std::optional<std::string> chooseFile(const FileChoice& choice) override {
    return inner_.chooseFile(choice);
  }
  void showHelpText(std::string_view text) override { inner_.showHelpText(text); }
  void showChannelValue(std::string_view channel, std::string_view value) override {
    inner_.showChannelValue(channel, value);
  }
  void minimiseWindow() override { inner_.minimiseWindow(); }
  void showStatusLabel(std::string_view text, int32_t colour) override {
    inner_.showStatusLabel(text, colour);
  }
  void showAlarmDefinitions(const std::vector<std::string>& labels,
                            const std::vector<std::string>& commands) override {
    inner_.showAlarmDefinitions(labels, commands);
  }

 private:
  // One question's answer, given once, by whoever comes first.
  struct Pending {
    Question question;
    std::function<void(Answer)> answered;
    bool done = false;
  };
  Operator& inner_;
  mutable std::mutex mutex_;
  std::shared_ptr<Pending> pending_;
};

}  // namespace tavrix
