#include "report_dialog.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPrintDialog>
#include <QPrinter>
#include <QPrinterInfo>
#include <QPushButton>
#include <QTableWidget>
#include <QTextDocument>
#include <QVBoxLayout>

#include "common/file_system.h"
#include "common/text_conventions.h"
#include "qt_text.h"

namespace tavrix {

namespace {

const QColor kFailedRow(255, 208, 208);

QStringList RowTexts(const CheckEntry& c) {
  const QString result =
      c.passed ? QStringLiteral("Pass")
               : (c.failureText.empty() ? QStringLiteral("Fail") : "Fail " + Text(c.failureText));
  return {Text(formatNumber(c.stage, "0")),
          Text(c.parameter),
          Text(c.channel),
          Text(c.value),
          Text(c.units),
          Text(c.lower),
          Text(c.upper),
          result};
}

}  // namespace

QStringList ReportDialog::columnHeadings() {
  return {tr("Stage"), tr("Check"), tr("Channel"), tr("Value"),
          tr("Units"), tr("Min"),   tr("Max"),     tr("Result")};
}

ReportDialog::ReportDialog(const ReportContents& contents, QWidget* parent)
    : QDialog(parent), contents_(contents) {
  const ReportView& h = contents_.header;
  setObjectName("frmReport");
  setWindowTitle(tr("Test Report"));
  ebDate_ = Named(new QLineEdit(Text(h.date)), "ebDate");
  ebEngineers_ = Named(new QLineEdit(Text(h.engineers)), "ebEngineers");
  auto* laTestName = Named(new QLabel(Text(h.testName)), "laTestName");
  auto* laTestVersion = Named(new QLabel(Text(h.testVersion)), "laTestVersion");
  auto* laSerialNumber = Named(new QLabel(Text(h.serialNumber)), "laSerialNumber");
  QFont bold = laTestName->font();
  bold.setBold(true);
  laTestName->setFont(bold);
  laVerdict_ = Named(new QLabel, "laVerdict");
  laVerdict_->setFont(bold);
  auto* form = new QFormLayout;
  form->addRow(tr("Test:"), laTestName);
  form->addRow(tr("Version:"), laTestVersion);
  form->addRow(tr("Serial Number:"), laSerialNumber);
  form->addRow(tr("Date:"), ebDate_);
  form->addRow(tr("Engineer(s):"), ebEngineers_);
  form->addRow(tr("Verdict:"), laVerdict_);

  const QStringList headings = columnHeadings();
  ebSequenceList_ = Named(new QTableWidget(0, static_cast<int>(headings.size())), "ebSequenceList");
  ebSequenceList_->setHorizontalHeaderLabels(headings);
  ebSequenceList_->verticalHeader()->hide();
  ebSequenceList_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  ebSequenceList_->setSelectionBehavior(QAbstractItemView::SelectRows);
  ebSequenceList_->horizontalHeader()->setStretchLastSection(true);
  fillChecks();
  ebSequenceList_->resizeColumnsToContents();
  showVerdict();

  pbPrint_ = Named(new QPushButton(tr("&Print")), "pbPrint");
  pbPdf_ = Named(new QPushButton(tr("P&DF...")), "pbPrintPdf");
  pbEscape_ = Named(new QPushButton(tr("&Escape")), "pbEscape");
  // Enter closes the window; printing takes a click or its key.
  pbPrint_->setAutoDefault(false);
  pbPdf_->setAutoDefault(false);
  pbEscape_->setDefault(true);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch();
  buttons->addWidget(pbPrint_);
  buttons->addWidget(pbPdf_);
  buttons->addWidget(pbEscape_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(ebSequenceList_, 1);
  layout->addLayout(buttons);
  resize(760, 460);

  connect(pbPrint_, &QPushButton::clicked, this, &ReportDialog::printOnDefaultPrinter);
  connect(pbPdf_, &QPushButton::clicked, this, &ReportDialog::saveAsPdf);
  connect(pbEscape_, &QPushButton::clicked, this, &QDialog::close);
}

ReportDialog::~ReportDialog() = default;

void ReportDialog::fillChecks() {
  for (const CheckEntry& check : contents_.checks) {
    const int row = ebSequenceList_->rowCount();
    ebSequenceList_->insertRow(row);
    const QStringList texts = RowTexts(check);
    for (int column = 0; column < texts.size(); ++column) {
      auto* item = new QTableWidgetItem(texts[column]);
      if (!check.passed) {
        item->setBackground(kFailedRow);
        if (column == texts.size() - 1) {
          QFont font = item->font();
          font.setBold(true);
          item->setFont(font);
        }
      }
      ebSequenceList_->setItem(row, column, item);
    }
  }
}

void ReportDialog::showVerdict() {
  if (contents_.inProgress) {
    // A verdict before the last stage would claim what is not known yet.
    laVerdict_->setText(tr("in progress"));
  } else if (contents_.checks.empty()) {
    laVerdict_->setText(tr("No checks recorded"));
  } else {
    laVerdict_->setText(failed() ? tr("Fail") : tr("Pass"));
    QPalette palette = laVerdict_->palette();
    palette.setColor(QPalette::WindowText, failed() ? QColor(176, 0, 0) : QColor(0, 112, 0));
    laVerdict_->setPalette(palette);
  }
}

bool ReportDialog::failed() const {
  for (const CheckEntry& check : contents_.checks)
    if (!check.passed) return true;
  return false;
}

std::unique_ptr<QTextDocument> ReportDialog::document() const {
  const ReportView& h = contents_.header;
  QString html =
      "<h2>" + Text(h.testName).toHtmlEscaped() + "</h2><table cellspacing='0' cellpadding='2'>";
  const std::pair<QString, QString> fields[] = {{tr("Version"), Text(h.testVersion)},
                                                {tr("Serial Number"), Text(h.serialNumber)},
                                                {tr("Date"), ebDate_->text()},
                                                {tr("Engineer(s)"), ebEngineers_->text()},
                                                {tr("Verdict"), laVerdict_->text()}};
  for (const auto& [name, value] : fields)
    html += "<tr><td><b>" + name + ":</b></td><td>" + value.toHtmlEscaped() + "</td></tr>";
  html += "</table><br><table border='1' cellspacing='0' cellpadding='3' width='100%'><tr>";
  for (const QString& heading : columnHeadings()) html += "<th align='left'>" + heading + "</th>";
  html += "</tr>";
  for (const CheckEntry& check : contents_.checks) {
    html += check.passed ? "<tr>" : "<tr style='background-color:#ffd0d0'>";
    const QStringList texts = RowTexts(check);
    for (int column = 0; column < texts.size(); ++column) {
      const bool mark = !check.passed && column == texts.size() - 1;
      html += "<td>" + QString(mark ? "<b>" : "") + texts[column].toHtmlEscaped() +
              QString(mark ? "</b>" : "") + "</td>";
    }
    html += "</tr>";
  }
  html += "</table>";
  auto doc = std::make_unique<QTextDocument>();
  doc->setHtml(html);
  return doc;
}

void ReportDialog::print(QPrinter& printer) {
  // Laid out at screen resolution and scaled to the printer's: the text
  // keeps its point size on the page (a page size in printer pixels would
  // shrink it to a fraction of a point).
  auto doc = document();
  doc->print(&printer);
}

bool ReportDialog::printToPdf(const QString& path) {
  QPrinter printer(QPrinter::HighResolution);
  printer.setOutputFormat(QPrinter::PdfFormat);
  printer.setOutputFileName(path);
  print(printer);
  // The printer writes the file itself; whether it did is asked of the disk
  // the same way.
  return QFileInfo(path).size() > 0;
}

void ReportDialog::printOnDefaultPrinter() {
  const QPrinterInfo defaultPrinter = QPrinterInfo::defaultPrinter();
  if (!defaultPrinter.isNull()) {
    QPrinter printer(defaultPrinter, QPrinter::HighResolution);
    printer.setCopyCount(1);
    print(printer);
    return;
  }
  // No default printer: let the operator choose one, or a file.
  auto printer = std::make_shared<QPrinter>(QPrinter::HighResolution);
  auto* dialog = new QPrintDialog(printer.get(), this);
  dialog->setObjectName("printDialog");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  connect(dialog, &QDialog::accepted, this, [this, printer] { print(*printer); });
  // Not modal: Stop and the questions of the run stay within reach.
  dialog->setWindowModality(Qt::NonModal);
  dialog->show();
}

void ReportDialog::saveAsPdf() {
  auto* dialog =
      new QFileDialog(this, tr("Save Report as PDF"), QString(), tr("PDF files (*.pdf)"));
  dialog->setAcceptMode(QFileDialog::AcceptSave);
  dialog->setDefaultSuffix("pdf");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setObjectName("pdfDialog");
  connect(dialog, &QFileDialog::fileSelected, this,
          [this](const QString& path) { printToPdf(path); });
  // Not modal: Stop and the questions of the run stay within reach.
  dialog->setWindowModality(Qt::NonModal);
  dialog->show();
}

}  // namespace tavrix
