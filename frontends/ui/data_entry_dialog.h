// The data-entry window: before each unit's test the operator enters its
// serial number, the test date, the operator(s) and a description.
//
// It answers a DATAENTRY question with
//   "Accept|serial=<text>|date=<dd-mm-yyyy>|operator=<trimmed>|description=<text>"
// or "Cancel". A date that is no valid dd-mm-yyyy date is refused with the
// message of kInvalidDateMessage and the window stays open.
#pragma once

#include <QDate>
#include <QDialog>
#include <optional>

#include "qt_text.h"

class QLineEdit;
class QPushButton;

namespace tavrix {

inline constexpr std::string_view kInvalidDateMessage =
    "You have not entered a valid date for the test date";
inline constexpr std::string_view kDateLabel = "Test Date: (dd-mm-yyyy)";

// A date typed as day-month-year ("15-11-2026"; one-digit day and month and
// "/" or "." as separators are taken too); nothing for a date that does not
// exist (31-02-2026).
std::optional<QDate> ParseTestDate(const QString& text);

class DataEntryDialog : public QDialog {
 public:
  // `today` fills the date box; the question's text may name the engine's
  // date as dd-mm-yyyy (a virtual clock's), which is then taken instead.
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
