// The run panel of a front end: what the window's run controls and the
// terminal's live status show of one engine's run, kept from its run events
// alone. The window and the terminal view both hold one; it knows no toolkit
// and is tested without one. The rules of the controls (which of Run, Stop,
// Step and Skip may be pressed, the single-step box) live here and nowhere
// else, as do the program's caption, the sequence file dialog's filter and
// the start-up command line with its " /A".
#pragma once

#include <cstdint>
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

 private:
  // The controls of a run that holds before each line.
  void stepping();

  RunControls controls_;
  bool steppedRun_ = false;  // the run started held
  bool held_ = false;
  std::string status_;
  std::string command_;
  std::string file_;
  int32_t line_ = 0;
  int64_t timeout_ = 0;
};

}  // namespace tavrix
