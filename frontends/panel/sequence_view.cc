#include "panel/sequence_view.h"

#include <algorithm>

#include "common/text_conventions.h"
#include "sequencer/sequence_file.h"

namespace tavrix {

bool SequenceView::ReadLines(const FileSystem& files, const std::string& path,
                             std::vector<std::string>& lines, std::string* error) {
  lines.clear();
  SequenceFile file;
  if (!file.open(files, path, error)) return false;
  for (std::string text; file.readLine(text);) lines.push_back(text);
  return true;
}

void SequenceView::load(std::string file, std::vector<std::string> lines) {
  file_ = std::move(file);
  lines_ = std::move(lines);
  inPreparedFile_ = runFile_.empty() || runFile_ == file_;
}

void SequenceView::setBreakpoints(std::vector<Breakpoint> breakpoints) {
  std::sort(breakpoints.begin(), breakpoints.end(),
            [](const Breakpoint& a, const Breakpoint& b) { return a.id < b.id; });
  breakpoints_ = std::move(breakpoints);
}

bool SequenceView::apply(const RunEvent& event) {
  switch (event.kind) {
    case RunEventKind::kPrepared:
      // The lines come with load(); until then the view is empty.
      file_ = event.text;
      lines_.clear();
      runFile_ = event.text;
      inPreparedFile_ = true;
      current_ = 0;
      held_ = false;
      return true;
    case RunEventKind::kFile: {
      runFile_ = event.text;
      const bool before = inPreparedFile_;
      inPreparedFile_ = runFile_ == file_;
      return before != inPreparedFile_;
    }
    case RunEventKind::kStarted:
      running_ = true;
      current_ = 0;
      held_ = false;
      return true;
    case RunEventKind::kLine:
      if (current_ == event.line && !held_) return false;
      current_ = event.line;
      held_ = false;
      return true;
    case RunEventKind::kHold:
      held_ = true;
      current_ = event.line;
      holdLine_ = event.line;
      holdReason_ = event.title;
      holdBreakpoint_ = event.number;
      return true;
    case RunEventKind::kRelease:
      held_ = false;
      return true;
    case RunEventKind::kEnd:
      running_ = false;
      held_ = false;
      current_ = 0;
      return true;
    default:
      return false;
  }
}

SequenceView::Line SequenceView::line(int32_t number) const {
  Line shown;
  shown.number = number;
  if (number >= 1 && number <= lineCount()) shown.text = lines_[static_cast<size_t>(number - 1)];
  for (const Breakpoint& b : breakpoints_)
    if (b.kind != Breakpoint::Kind::kCondition && b.line == number)
      shown.breakpoints.push_back(b.id);
  shown.current = number != 0 && number == currentLine();
  shown.held = shown.current && held_;
  return shown;
}

SequenceView::Change SequenceView::toggle(int32_t number) const {
  Change change;
  if (number < 1 || number > lineCount()) return change;
  change.clear = line(number).breakpoints;
  if (change.clear.empty()) change.add = std::to_string(number);
  return change;
}

std::optional<SequenceView::Change> SequenceView::Addition(std::string_view target, bool condition,
                                                           int64_t hitCount, std::string* error) {
  std::string_view what = trim(target);
  // A label as the file writes it ("TOP:") names the label TOP.
  if (!condition && !what.empty() && what.back() == ':')
    what = trim(what.substr(0, what.size() - 1));
  if (what.empty()) {
    *error = condition ? "give a condition, as in \"T1 > 80\"" : "give a label or a line number";
    return std::nullopt;
  }
  if (!condition && what.find_first_of(" \t:") != std::string_view::npos) {
    *error = "a label is one word: \"" + std::string(what) + "\"";
    return std::nullopt;
  }
  if (condition && what.find(':') != std::string_view::npos) {
    *error = "the hit count goes in its own box, not after ':' in \"" + std::string(what) + "\"";
    return std::nullopt;
  }
  if (hitCount < 1) {
    *error = "the hit count is a whole number from 1 on";
    return std::nullopt;
  }
  Change change;
  change.add = std::string(what) + (hitCount > 1 ? ":" + std::to_string(hitCount) : "");
  change.condition = condition;
  return change;
}

SequenceView::Change SequenceView::clearAll() const {
  Change change;
  for (const Breakpoint& b : breakpoints_) change.clear.push_back(b.id);
  return change;
}

std::string SequenceView::holdText() const {
  if (!held_) return {};
  std::string text = "Held before line " + std::to_string(holdLine_);
  if (!inPreparedFile_ && !runFile_.empty()) text += " of " + runFile_;
  if (holdReason_ == "break") {
    text += " by breakpoint " + std::to_string(holdBreakpoint_);
    for (const Breakpoint& b : breakpoints_)
      if (b.id == holdBreakpoint_) text += " (" + DescribeBreakpoint(b) + ")";
  } else if (holdReason_ == "pause") {
    text += " (paused)";
  } else {
    text += " (single step)";
  }
  return text;
}

std::string SequenceView::Row(const Breakpoint& breakpoint) {
  return std::to_string(breakpoint.id) + ": " + DescribeBreakpoint(breakpoint);
}

}  // namespace tavrix
