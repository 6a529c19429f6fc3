// The window's view of the prepared sequence file (its "Lines" tab): the
// file's lines with their numbers, the line the run is at, and the
// breakpoints. A click in a line's margin, F9 on the selected line or the
// context menu sets or clears a line breakpoint; the form under the lines
// adds one on a label or a channel condition with a hit count; the list
// shows every breakpoint with its hits and clears the selected one (Delete).
// What is shown and what a click asks for is the SequenceView's; the
// breakpoints are the engine's, changed on its thread, so that they can be
// set and cleared while the run goes. Object names: tvLines, lbBreakpoints,
// cbBreakKind, ebBreakTarget, sbBreakHits, pbBreakAdd, pbBreakClear,
// laBreakProblem.
#pragma once

#include <QTimer>
#include <QWidget>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/breakpoints.h"
#include "panel/sequence_view.h"

class QComboBox;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QSpinBox;
class QTableView;

namespace tavrix {

class SequenceLinesModel;

// What the engine thread adds to a run event for the view: the breakpoints
// as they stand at the event and, when a file is prepared, its lines.
struct LinesSnapshot {
  std::optional<std::vector<Breakpoint>> breakpoints;
  std::optional<std::vector<std::string>> lines;
  std::string problem;  // the lines could not be read

  // Engine thread; empty for the events the view needs nothing with.
  static LinesSnapshot Take(Engine& engine, const Breakpoints& breakpoints, const RunEvent& event);
};

class SequenceLinesView : public QWidget {
 public:
  // Runs a task on the engine thread with the window's breakpoints.
  using BreakpointTasks = std::function<void(std::function<void(Engine&, Breakpoints&)>)>;

  explicit SequenceLinesView(BreakpointTasks tasks, QWidget* parent = nullptr);
  ~SequenceLinesView() override;

  // A run event of the window's engine, on the window's thread.
  void take(const RunEvent& event, const LinesSnapshot& snapshot);
  // As a click in line `number`'s margin.
  void toggle(int number);
  const SequenceView& view() const { return view_; }
  // Told whenever what holds the run may have changed.
  void onHoldChanged(std::function<void()> told) { holdChanged_ = std::move(told); }

 private:
  // The kind, target and hit count of a new breakpoint, and its Add button.
  QHBoxLayout* buildBreakpointForm();
  // A click in a line's margin, F9 and the context menu toggle the line's
  // breakpoint; the menu also clears them all.
  void toggleFromLines();
  void carryOut(const SequenceView::Change& change);
  void addFromForm();
  void clearSelected();
  void showBreakpoints(std::vector<Breakpoint> list);
  void redrawSoon();
  void redraw();

  BreakpointTasks tasks_;
  SequenceView view_;
  SequenceLinesModel* model_ = nullptr;
  QTableView* lines_ = nullptr;
  QListWidget* list_ = nullptr;
  QComboBox* kind_ = nullptr;
  QLineEdit* target_ = nullptr;
  QSpinBox* hits_ = nullptr;
  QPushButton* add_ = nullptr;
  QPushButton* clear_ = nullptr;
  QLabel* problem_ = nullptr;
  // Lines come faster than a screen shows them: the view is redrawn a few
  // times a second.
  QTimer redraw_;
  int shownLine_ = 0;
  std::function<void()> holdChanged_;
};

}  // namespace tavrix
