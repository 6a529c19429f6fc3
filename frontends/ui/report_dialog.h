// The report window: the current unit's results on screen as a table (one
// row per recorded check, failed rows marked), with the unit's verdict.
// Printing and PDF are laid out from the same data as a document that fits
// the page, not taken from the window's picture.
#pragma once

#include <QDialog>
#include <memory>
#include <vector>

#include "testdb/report_window.h"
#include "testdb/uut_record.h"

class QLabel;
class QLineEdit;
class QPrinter;
class QPushButton;
class QTableWidget;
class QTextDocument;

namespace tavrix {

// What the window shows: the header of the report view and the unit's
// checks as recorded.
struct ReportContents {
  ReportView header;
  std::vector<CheckEntry> checks;
  // The unit is still being tested: its verdict is not given yet.
  bool inProgress = false;
};

class ReportDialog : public QDialog {
 public:
  ReportDialog(const ReportContents& contents, QWidget* parent);
  ~ReportDialog() override;

  // The columns of the table, in order.
  static QStringList columnHeadings();

  // The printable report: heading fields, the table and the verdict.
  std::unique_ptr<QTextDocument> document() const;
  void print(QPrinter& printer);
  // Prints into a PDF file; false when the file cannot be written.
  bool printToPdf(const QString& path);

 private:
  void printOnDefaultPrinter();
  void saveAsPdf();
  bool failed() const;
  // One row of the table per check; a failed check's row is marked and its
  // result bold.
  void fillChecks();
  // Pass or Fail in colour, or why there is no verdict yet.
  void showVerdict();

  ReportContents contents_;
  QTableWidget* ebSequenceList_;
  // The fields the operator may edit; the print takes them as edited.
  QLineEdit* ebDate_;
  QLineEdit* ebEngineers_;
  QLabel* laVerdict_;
  QPushButton* pbPrint_;
  QPushButton* pbPdf_;
  QPushButton* pbEscape_;
};

}  // namespace tavrix
