// The data-entry window: before each unit's test the operator enters its
// serial number, the test date, the operator(s) and a description.
//
// It answers a DATAENTRY question with
//   "Accept|serial=<text>|date=<dd-mm-yyyy>|operator=<trimmed>|description=<text>"
// or "Cancel" (testdb/data_entry.h). A date that is no date of the calendar
// is refused with the test database's message and the window stays open.
#pragma once

#include <QDate>
#include <QDialog>

#include "qt_text.h"

class QLineEdit;
class QPushButton;

namespace tavrix {

class DataEntryDialog : public QDialog {
 public:
  // The date box starts with the date the question's text names (the
  // engine's today, from its clock), or `today` when it names none.
  DataEntryDialog(const Question& question, QDate today, std::function<void(Answer)> answered,
                  QWidget* parent);
  ~DataEntryDialog() override;

  void accept() override;
  void reject() override;

 private:
  QLineEdit* ebSerialNum_;
  QLineEdit* ebDate_;
  QLineEdit* ebOperator_;
  QLineEdit* ebDescription_;
  AnswerOnce answered_;
};

}  // namespace tavrix
