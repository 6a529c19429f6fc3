// What `tavrix-cli run` shows while it runs. On a terminal it shows what the
// window would: each dispatched line with its clock time, messages and
// prompts, status changes, and a one-line live status (clock, current line,
// time-out count-down, lines a second of run time) that is redrawn in place;
// at the end a summary. Elsewhere (a pipe, a file, or --quiet) only the
// messages and the summary. The view stands between the engine and the
// operator that answers questions, passing every question on, and takes
// everything else from the engine's run events through a run panel.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "panel/run_panel.h"
#include "sequencer/operator.h"

namespace tavrix {

class TerminalView : public Operator {
 public:
  // `live`: the lines, status changes and live status are shown on `out`.
  // The summary goes to `summary` (which may be `out`).
  TerminalView(Operator& inner, std::FILE* out, std::FILE* summary, bool live);
  ~TerminalView() override;
  TerminalView(const TerminalView&) = delete;
  TerminalView& operator=(const TerminalView&) = delete;

  // Whether a stream is a terminal that the live view can draw on.
  static bool IsTerminal(std::FILE* stream);

  // Subscribes to the engine's run events. With a real clock a timer keeps the
  // live status moving while a command waits; with a virtual clock it moves
  // with the lines (a timer would keep an idle virtual wait from ending).
  void attach(Engine& engine, bool virtualClock);
  // Lets go of the engine before it goes away.
  void detach();
  // A file the run writes besides the results files (the trace).
  void addFileWritten(std::string path) { files_.push_back(std::move(path)); }
  // Engine thread: a line that stays, above the live status (what a key
  // asked for).
  void note(const std::string& text);
  // Engine thread: the watch line shown under the live status ("" for none).
  void setWatchLine(std::string text);
  // Clears the live status and writes the summary.
  void finish(EndReason reason, int exitStatus);

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
  void showMessage(std::string_view title, std::string_view text) override;
  std::optional<std::string> chooseFile(const FileChoice& choice) override {
    return inner_.chooseFile(choice);
  }

 private:
  void runEvent(const RunEvent& event);
  void uut(const RunEvent& event);
  // Writes a line that stays, above the live status.
  void print(const std::string& text);
  void clearStatus();
  void drawStatus(bool force);
  std::string clock() const;
  int width() const;

  Operator& inner_;
  std::FILE* out_;
  std::FILE* summary_;
  bool live_;
  Engine* engine_ = nullptr;
  RunEventBus::Subscription subscription_;
  RunPanel panel_;
  std::unique_ptr<Timer> redraw_;

  bool statusShown_ = false;
  std::string watchLine_;
  bool watchShown_ = false;
  std::atomic<bool> asking_{false};
  std::chrono::steady_clock::time_point lastDraw_{};
  uint64_t lines_ = 0;
  Micros start_ = 0;
  int passed_ = 0;
  int failed_ = 0;
  std::vector<std::string> files_;
};

}  // namespace tavrix
