// The report window: the current unit's results on screen, one line per
// recorded check, printable on the default printer or into a PDF file.
#pragma once

#include <QDialog>
#include "testdb/report_window.h"

class QLabel;
class QLineEdit;
class QListWidget;
class QPrinter;
class QPushButton;

namespace tavrix {

class ReportDialog : public QDialog {
 public:
  ReportDialog(const ReportView& contents, QWidget* parent);

  // Prints the window's image without its Print, PDF and Escape buttons,
  // which are hidden while it is taken.
  void print(QPrinter& printer);
  // Prints into a PDF file; false when the file cannot be written.
  bool printToPdf(const QString& path);

 private:
  void printOnDefaultPrinter();
  void saveAsPdf();

  QListWidget* ebSequenceList_;
  QPushButton* pbPrint_;
  QPushButton* pbPdf_;
  QPushButton* pbEscape_;
};

}  // namespace tavrix
