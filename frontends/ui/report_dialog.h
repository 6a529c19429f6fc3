// The report window: the current unit's results on screen, one line per
// recorded check, printable on the default printer or into a PDF file.
#pragma once

#include <QDialog>
#include <string>
#include <vector>

class QLabel;
class QLineEdit;
class QListWidget;
class QPrinter;
class QPushButton;

namespace tavrix {

// What the report shows. The lines are the check list's, as the test
// database words them ("<stage>: <parameter> ... Pass" or "... Fail <why>").
struct ReportContents {
  std::string date;  // dd-mm-yyyy
  std::string engineers;
  std::string testName;
  std::string testVersion;
  std::string serialNumber;
  std::vector<std::string> lines;
};

class ReportDialog : public QDialog {
 public:
  ReportDialog(const ReportContents& contents, QWidget* parent);

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
