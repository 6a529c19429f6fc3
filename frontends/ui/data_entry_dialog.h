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
#include <vector>

#include "qt_text.h"

class QLineEdit;
class QPushButton;

namespace tavrix {

class DataEntryDialog : public QDialog {
 public:
  // The date box starts with the date the question's text names (the
  // engine's today, from its clock), or `today` when it names none.
  // `required` marks, in the order of the form (serial number, date,
  // operator(s), description), the fields that must not be left empty (the
  // field names file's first flag); the serial number always must.
  DataEntryDialog(const Question& question, QDate today, std::function<void(Answer)> answered,
                  QWidget* parent, std::vector<bool> required = {});
  ~DataEntryDialog() override;

  void accept() override;
  // Escape and the close box end no test loop: only Cancel does.
  void reject() override {}
  void cancel();

 protected:
  // Enter in a field moves to the next one, so that a scanner's Enter after
  // a serial number accepts nothing.
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void refuse(const QString& text);

  std::vector<bool> required_;
  QLineEdit* ebSerialNum_;
  QLineEdit* ebDate_;
  QLineEdit* ebOperator_;
  QLineEdit* ebDescription_;
  AnswerOnce answered_;
};

}  // namespace tavrix
