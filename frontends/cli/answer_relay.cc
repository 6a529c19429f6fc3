#include "answer_relay.h"

#include "console_operators.h"

namespace tavrix {

std::optional<Question> AnswerRelay::openQuestion() const {
  std::lock_guard lock(mutex_);
  if (!pending_ || pending_->done) return std::nullopt;
  return pending_->question;
}

void AnswerRelay::ask(const Question& question, std::function<void(Answer)> answered) {
  auto pending = std::make_shared<Pending>();
  pending->question = question;
  pending->answered = std::move(answered);
  {
    std::lock_guard lock(mutex_);
    pending_ = pending;
  }
  inner_.ask(question, [this, pending](Answer answer) {
    {
      std::lock_guard lock(mutex_);
      if (pending->done) return;  // answered from elsewhere first
      pending->done = true;
    }
    pending->answered(std::move(answer));
  });
}

void AnswerRelay::closeQuestion() {
  {
    std::lock_guard lock(mutex_);
    if (pending_) pending_->done = true;
  }
  inner_.closeQuestion();
}

bool AnswerRelay::answer(const std::string& text, std::string* error) {
  std::shared_ptr<Pending> pending;
  std::string matched;
  {
    std::lock_guard lock(mutex_);
    if (!pending_ || pending_->done) {
      if (error) *error = "no question waits for an answer";
      return false;
    }
    matched = MatchAnswer(pending_->question, text);
    if (matched.empty()) {
      if (error) {
        std::string choices;
        for (const auto& c : pending_->question.choices)
          choices += (choices.empty() ? "" : ", ") + c;
        *error = "\"" + text + "\" names no answer of the " + pending_->question.kind +
                 " question (" + choices + ")";
      }
      return false;
    }
    pending_->done = true;
    pending = pending_;
  }
  // The front end that asked closes its question; its own answer, if one
  // comes now, is dropped.
  inner_.closeQuestion();
  pending->answered(matched);
  return true;
}

}  // namespace tavrix
