// The window's view of the prepared sequence file: its lines with their
// numbers, the line the run is at, the breakpoints that hold before a line,
// and what holds the run. It knows no toolkit and holds no engine: the window
// shows what it says and carries out the breakpoint changes it asks for on
// the engine thread, then gives it the engine's list again.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"
#include "engine/breakpoints.h"
#include "sequencer/run_events.h"

namespace tavrix {

class SequenceView {
 public:
  // What one line shows.
  struct Line {
    int32_t number = 0;
    std::string text;
    // The line and label breakpoints that hold before this line, in the
    // order of their ids.
    std::vector<int64_t> breakpoints;
    bool current = false;  // the run is at this line
    bool held = false;     // and holds before it
  };

  // A change of the engine's breakpoints: those to clear, then the one to
  // add (a spec for Breakpoints::add; empty: none).
  struct Change {
    std::vector<int64_t> clear;
    std::string add;
    bool condition = false;
  };

  // The lines of sequence file `path`, numbered as the run numbers them;
  // false with a message when it cannot be read.
  static bool ReadLines(const FileSystem& files, const std::string& path,
                        std::vector<std::string>& lines, std::string* error);
  // The prepared file and its lines, as ReadLines gives them.
  void load(std::string file, std::vector<std::string> lines);
  // The engine's breakpoints as they are now.
  void setBreakpoints(std::vector<Breakpoint> breakpoints);
  // Takes one run event; true when what the view shows changed.
  bool apply(const RunEvent& event);

  const std::string& file() const { return file_; }
  int32_t lineCount() const { return static_cast<int32_t>(lines_.size()); }
  // Line `number`, from 1 to lineCount().
  Line line(int32_t number) const;
  // The line of the prepared file the run is at; 0 when no run goes or the
  // run reads a file it chained to.
  int32_t currentLine() const { return inPreparedFile_ ? current_ : 0; }
  bool held() const { return held_; }
  const std::vector<Breakpoint>& breakpoints() const { return breakpoints_; }

  // A click in line `number`'s margin: clears the line and label
  // breakpoints on that line, or sets a line breakpoint there.
  Change toggle(int32_t number) const;
  // A breakpoint on a label (or a line number) or a channel condition with
  // a hit count from 1 on; std::nullopt with a message when the form is not
  // filled in right. What the engine then says of it (a label that does not
  // exist) comes from Breakpoints::add.
  static std::optional<Change> Addition(std::string_view target, bool condition, int64_t hitCount,
                                        std::string* error);
  // Clears every breakpoint.
  Change clearAll() const;

  // What holds the run, for the window's status: "Held before line 5 by
  // breakpoint 1 (line 5, hit 1 time)", "Held before line 5 (paused)",
  // "Held before line 5 (single step)"; empty while the run is not held.
  std::string holdText() const;
  // A row of the breakpoint list: "1: label TOP (line 3), hit 0 times".
  static std::string Row(const Breakpoint& breakpoint);

 private:
  std::string file_;
  std::vector<std::string> lines_;
  std::vector<Breakpoint> breakpoints_;
  std::string runFile_;  // the file the run reads now
  bool inPreparedFile_ = true;
  bool running_ = false;
  int32_t current_ = 0;
  bool held_ = false;
  int32_t holdLine_ = 0;
  std::string holdReason_;
  int64_t holdBreakpoint_ = 0;
};

}  // namespace tavrix
