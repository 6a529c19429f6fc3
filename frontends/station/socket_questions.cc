#include "socket_questions.h"

#include <algorithm>
#include <vector>

namespace tavrix {

bool SocketQuestions::ask(size_t socket, std::string socketName, Question question,
                          std::function<void(Answer)> answered) {
  {
    std::lock_guard guard(mutex_);
    if (!closed_) {
      waiting_.push_back(
          {{nextId_++, socket, std::move(socketName), std::move(question)}, std::move(answered)});
      return true;
    }
  }
  answered(std::nullopt);
  return false;
}

void SocketQuestions::withdraw(size_t socket) {
  std::lock_guard guard(mutex_);
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(),
                                [socket](const Entry& e) { return e.item.socket == socket; }),
                 waiting_.end());
  if (shown_ && shown_->item.socket == socket) shown_.reset();
}

std::optional<SocketQuestions::Item> SocketQuestions::next() {
  std::lock_guard guard(mutex_);
  if (shown_ || waiting_.empty()) return std::nullopt;
  shown_ = std::move(waiting_.front());
  waiting_.pop_front();
  return shown_->item;
}

bool SocketQuestions::answer(uint64_t id, Answer answer) {
  std::function<void(Answer)> answered;
  {
    std::lock_guard guard(mutex_);
    if (!shown_ || shown_->item.id != id) return false;
    answered = std::move(shown_->answered);
    shown_.reset();
  }
  answered(std::move(answer));
  return true;
}

void SocketQuestions::close() {
  std::vector<std::function<void(Answer)>> unanswered;
  {
    std::lock_guard guard(mutex_);
    closed_ = true;
    if (shown_) unanswered.push_back(std::move(shown_->answered));
    shown_.reset();
    for (Entry& e : waiting_) unanswered.push_back(std::move(e.answered));
    waiting_.clear();
  }
  for (auto& answered : unanswered) answered(std::nullopt);
}

}  // namespace tavrix
