// Keys that drive `tavrix-cli run` from its terminal: space pauses or
// resumes, s steps, k skips, q stops (as Ctrl+C does: after NONSTOP the
// operator is asked), b lists the breakpoints, and w NAME (Enter) adds
// channels to the watch line under the status line. Keys are read only
// while no question is being answered: the object stands between the
// terminal view and the operator that reads the answers, and while a
// question is open the terminal is given back to that operator as it was.
#pragma once

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/breakpoints.h"
#include "engine/engine.h"
#include "sequencer/operator.h"

namespace tavrix {

class TerminalView;

class TerminalKeys : public Operator {
 public:
  explicit TerminalKeys(Operator& inner) : inner_(inner) {}
  ~TerminalKeys() override;
  TerminalKeys(const TerminalKeys&) = delete;
  TerminalKeys& operator=(const TerminalKeys&) = delete;

  // Whether keys can be read from `in` (a terminal, on a system that has
  // the means).
  static bool Available(std::FILE* in);
  // Reads keys from `in` until stop(), for `engine`; what the keys show
  // goes through `view`.
  void start(std::FILE* in, Engine& engine, Breakpoints& breakpoints, TerminalView& view);
  // Stops reading keys and gives the terminal back as it was.
  void stop();

  // --- Operator ---------------------------------------------------------------
  void ask(const Question& question, std::function<void(Answer)> answered) override;
  void closeQuestion() override { inner_.closeQuestion(); }
  bool mayAskAgain(const Question& question, std::string_view why) override {
    return inner_.mayAskAgain(question, why);
  }
  std::string unansweredReason() const override { return inner_.unansweredReason(); }
  std::string answersUsed() const override { return inner_.answersUsed(); }
  bool restoreAnswersUsed(std::string_view used) override {
    return inner_.restoreAnswersUsed(used);
  }
  bool isPerson() const override { return inner_.isPerson(); }
  void showMessage(std::string_view title, std::string_view text) override {
    inner_.showMessage(title, text);
  }
  std::optional<std::string> chooseFile(const FileChoice& choice) override {
    return inner_.chooseFile(choice);
  }

 private:
  void readKeys();
  void key(char c);
  void setRaw(bool raw);
  void watchLine();

  Operator& inner_;
  Engine* engine_ = nullptr;
  Breakpoints* breakpoints_ = nullptr;
  TerminalView* view_ = nullptr;
  int fd_ = -1;
  int wake_[2] = {-1, -1};
  std::thread thread_;
  RunEventBus::Subscription events_;
  std::unique_ptr<Timer> refresh_;

  std::mutex mutex_;
  bool asking_ = false;
  bool stopping_ = false;
  bool rawNow_ = false;
  bool haveSaved_ = false;
  std::vector<unsigned char> saved_;  // the terminal's settings as found
  // Engine thread only.
  bool held_ = false;
  std::vector<std::string> watched_;
  Micros lastWatch_ = 0;
  // Key thread only: a name being typed after w.
  bool typingName_ = false;
  std::string name_;
};

}  // namespace tavrix
