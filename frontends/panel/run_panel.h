// The run panel of a front end: what the window's run controls and the
// terminal's live status show of one engine's run, kept from its run events
// alone. The window and the terminal view both hold one; it knows no toolkit
// and is tested without one. The rules of the controls (which of Run, Stop,
// Step and Skip may be pressed, the single-step box) live here and nowhere
// else, as do the program's caption, the sequence file dialog's filter and
// the start-up command line with its " /A".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sequencer/run_events.h"

namespace tavrix {

inline constexpr std::string_view kCaption = "Corvane TAVRIX (b) v 7.00 (CC 6.01) (DBT 6.01)";

// Enabled and ticked states of the run controls.
struct RunControls {
  bool runEnabled = false;
  bool stopEnabled = false;
  bool stepEnabled = false;
  bool skipEnabled = false;
  bool singleStepEnabled = false;
  bool singleStepTicked = false;
  bool fileMenuEnabled = true;

  bool operator==(const RunControls&) const = default;
};

// The dialog that picks a sequence file to prepare.
struct SequenceFileDialog {
  std::string_view title = "Load Test Sequence File";
  std::string_view defaultExtension = "wts";
  std::string_view fileName = "*.wts";
  std::string_view filter = "TavrixSequence files (*.wts)|*.wts";
};

// The program's command line: a sequence file name, in double quotes or
// not, optionally followed by " /A" for a start at the first seconds tick.
struct StartCommandLine {
  std::string file;  // empty: none named
  bool autoStart = false;
};
StartCommandLine ParseStartCommandLine(std::string_view commandLine);

// A count-down as minutes and seconds ("07:39"; "1:02:03" from an hour
// on), a started second counting as a whole one.
std::string FormatCountDown(double seconds);

// A timed wait in progress, from the current command display's count-down
// ("waitseconds 458.72"): its word, the seconds left, and its length (the
// line's own figure, or the first count-down shown when the line has none).
struct WaitProgress {
  std::string word;
  double left = 0;
  double length = 0;
  // "waitseconds 07:39": the display with the count-down as minutes.
  std::string display() const { return word + " " + FormatCountDown(left); }
};

class RunPanel {
 public:
  // Takes one run event; true when the controls changed.
  bool apply(const RunEvent& event);
  // The operator ticks or clears the single-step box: true when the engine
  // is to start a stepped run (it refuses while a run is going or no file
  // is prepared).
  bool tickSingleStep(bool ticked);

  const RunControls& controls() const { return controls_; }
  // The run may be going (free, stepped or held).
  bool running() const { return controls_.stopEnabled || !controls_.runEnabled; }
  bool held() const { return held_; }
  const std::string& status() const { return status_; }
  const std::string& currentCommand() const { return command_; }
  const std::string& fileName() const { return file_; }
  int32_t lineNumber() const { return line_; }
  int64_t timeoutSeconds() const { return timeout_; }
  // How the last run ended, shown beside the status ("Ended: end of file",
  // "Ended: Stop", "Ended: sequence error at line 4", ...); empty before the
  // first run ends and while a run goes.
  const std::string& endText() const { return end_; }
  // The timed wait the run is in, if any.
  const std::optional<WaitProgress>& wait() const { return wait_; }
  bool endedInError() const { return endedInError_; }

 private:
  // The controls of a run that holds before each line.
  void stepping();
  void ended(const std::string& reason);
  // The events that change several things at once.
  void started(bool stepped);
  void stopped(bool untick);
  void runEnded(const std::string& reason);
  void commandShown(const std::string& text);

  RunControls controls_;
  bool steppedRun_ = false;  // the run started held
  bool held_ = false;
  std::string status_;
  std::string command_;
  std::string file_;
  int32_t line_ = 0;
  int64_t timeout_ = 0;
  std::string end_;
  std::optional<WaitProgress> wait_;
  std::string lineText_;
  bool endedInError_ = false;
};

}  // namespace tavrix
