// The questions of a station's sockets that a person answers at the front
// end: shown one at a time, in the order asked, each under its socket's
// name. Safe from any thread: the sockets ask on their engines' threads, the
// front end shows and answers on its own.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "sequencer/operator.h"

namespace tavrix {

class SocketQuestions {
 public:
  struct Item {
    uint64_t id = 0;
    size_t socket = 0;
    std::string socketName;
    Question question;
  };

  // Queues a socket's question; once closed, it gets no answer at once and
  // false is returned.
  bool ask(size_t socket, std::string socketName, Question question,
           std::function<void(Answer)> answered);
  // The socket no longer waits for its questions: those not answered yet are
  // dropped (the one shown too).
  void withdraw(size_t socket);
  // The next question to show, when none is shown now.
  std::optional<Item> next();
  // The question shown is answered; false when it was withdrawn meanwhile
  // (the answer then goes nowhere).
  bool answer(uint64_t id, Answer answer);
  // Every question not answered yet gets no answer, and so does every later
  // one (the front end goes away).
  void close();

 private:
  struct Entry {
    Item item;
    std::function<void(Answer)> answered;
  };
  std::mutex mutex_;
  bool closed_ = false;
  uint64_t nextId_ = 1;
  std::deque<Entry> waiting_;
  std::optional<Entry> shown_;
};

}  // namespace tavrix
