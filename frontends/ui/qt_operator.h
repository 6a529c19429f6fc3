// The operator port of the desktop window. The engine calls it on the engine
// thread; every call is carried over to the window's thread. A message box or
// a file dialog returns to its caller only once it is closed, as modal boxes
// do, but the caller waits on the engine's event loop, so the engine's timers
// (waits, alarms, calculated channels) keep running meanwhile. Questions are
// answered later, by a click, through the same event loop.
#pragma once

#include <atomic>

#include "common/event_loop.h"
#include "sequencer/operator.h"

namespace tavrix {

class MainWindow;

class QtOperator : public Operator {
 public:
  explicit QtOperator(MainWindow& window) : window_(window) {}

  // Once closing, boxes no longer wait for the window and questions get no
  // answer, so the engine can wind down while the window goes away.
  void setClosing() { closing_ = true; }
  // The engine's event loop, on which boxes and file dialogs are waited for.
  // Set on the engine thread once the engine is built.
  void attach(EventLoop& loop) { loop_ = &loop; }

  void ask(const Question& question, std::function<void(Answer)> answered) override;
  bool isPerson() const override { return true; }
  std::string unansweredReason() const override { return "the window was closed"; }
  void showMessage(std::string_view title, std::string_view text) override;
  std::optional<std::string> chooseFile(const FileChoice& choice) override;
  void showHelpText(std::string_view text) override;
  void showChannelValue(std::string_view channel, std::string_view value) override;
  void closeQuestion() override;
  void minimiseWindow() override;
  void showStatusLabel(std::string_view text, int32_t colour) override;
  void showAlarmDefinitions(const std::vector<std::string>& labels,
                            const std::vector<std::string>& commands) override;

 private:
  // Runs `open` on the window's thread, giving it a callback to call once
  // with the result, and waits for that on the engine's event loop.
  std::optional<std::string> waitForWindow(
      std::function<void(std::function<void(std::optional<std::string>)>)> open);

  MainWindow& window_;
  EventLoop* loop_ = nullptr;
  std::atomic<bool> closing_{false};
};

}  // namespace tavrix
