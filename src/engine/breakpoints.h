// Breakpoints of a run: a line of the sequence file, a label, or a channel
// condition with WAIT's operators ("T1 > 80"), each with a hit count. A
// breakpoint holds the run before the line it names, as a pause does, and
// the hold says which breakpoint held it (RunEventKind::kHold with reason
// "break" and the breakpoint's id in `number`).
//
// Line and label breakpoints belong to the file prepared for running (they
// go when another file is prepared; conditions stay); a label breakpoint
// holds before the first line after the label, whether the run falls
// through the label or jumps to it. A condition is tested before
// every line and hits when it turns true (it was false, or not yet tested,
// before the line before). A hit count N lets the first N-1 hits pass; from
// the Nth hit on, every hit holds.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/engine.h"
#include "instrument/commands/channel_commands.h"

namespace tavrix {

struct Breakpoint {
  enum class Kind { kLine, kLabel, kCondition };
  int64_t id = 0;
  Kind kind = Kind::kLine;
  // As given: "120", "120:3", "HEAT", "T1 > 80:2".
  std::string spec;
  // What was asked for, without its hit count: the line, label or condition.
  std::string target;
  // The line before which it holds (line and label breakpoints).
  int32_t line = 0;
  ChannelCondition condition;
  int64_t hitCount = 1;
  int64_t hits = 0;
  // What the condition was before the last line (conditions only).
  bool wasTrue = false;
};

// "line 120 (hit 3)" / "label HEAT (line 14)" / "if T1 > 80": for people.
std::string DescribeBreakpoint(const Breakpoint& breakpoint);

class Breakpoints {
 public:
  // Listens to `engine`'s lines from now on.
  explicit Breakpoints(Engine& engine);
  ~Breakpoints();
  Breakpoints(const Breakpoints&) = delete;
  Breakpoints& operator=(const Breakpoints&) = delete;

  // --- Engine thread --------------------------------------------------------
  // Adds a breakpoint on a line or label ("120", "120:3", "HEAT:2") of the
  // prepared file, or, with `condition`, on a channel condition
  // ("T1 > 80", "T1 > 80:3"). Its id, or std::nullopt with a message (a line
  // past the file's end, a label that does not exist, an operator WAIT does
  // not know).
  std::optional<int64_t> add(std::string_view spec, bool condition, std::string* error);
  // Clears breakpoint `id`; false when there is none.
  bool remove(int64_t id);

  // --- Any thread -----------------------------------------------------------
  std::vector<Breakpoint> list() const;

 private:
  void line(const RunEvent& event);
  bool conditionHolds(Breakpoint& breakpoint);

  Engine& engine_;
  mutable std::mutex mutex_;
  std::vector<Breakpoint> breakpoints_;
  int64_t nextId_ = 1;
  // The file prepared for running, and whether the run reads it now (not a
  // chained one).
  std::string preparedFile_;
  bool inPreparedFile_ = true;
  RunEventBus::Subscription subscription_;
};

}  // namespace tavrix
