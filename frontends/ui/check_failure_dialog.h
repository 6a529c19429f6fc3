// The check-failure window: after a stage whose checks failed the operator
// chooses Ignore (F1), Repeat (F2) or Fail and Abandon (F3), from the menu
// "&Keys", by the function key, or by clicking the key's label.
//
// It answers a CHECKFAILURE question with the chosen caption (the question's
// own captions when it gives three, else "Ignore", "Repeat", "Fail and
// Abandon"). The question's text is "Stage N", the step's failure lines and
// the key line (testdb/stage_checks.h): the first line goes into the stage
// label, the failures below it. The window cannot be closed without a choice.
#pragma once

#include <QDialog>
#include <array>

#include "qt_text.h"

class QLabel;

namespace tavrix {

class CheckFailureDialog : public QDialog {
 public:
  CheckFailureDialog(const Question& question, std::function<void(Answer)> answered,
                     QWidget* parent);
  ~CheckFailureDialog() override;

  void reject() override {}  // Escape and the close box choose nothing

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void choose(size_t item);

  std::array<std::string, 3> captions_;
  std::array<QLabel*, 3> keyLabels_{};
  AnswerOnce answered_;
};

}  // namespace tavrix
