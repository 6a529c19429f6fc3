#include "report_dialog.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPainter>
#include <QPrintDialog>
#include <QPrinter>
#include <QPrinterInfo>
#include <QPushButton>
#include <QVBoxLayout>

#include "qt_text.h"

namespace tavrix {

namespace {

template <typename T>
T* Named(T* widget, const char* name) {
  widget->setObjectName(name);
  return widget;
}

}  // namespace

ReportDialog::ReportDialog(const ReportView& contents, QWidget* parent) : QDialog(parent) {
  setObjectName("frmReport");
  setWindowTitle(tr("Test Report"));
  auto* ebDate = Named(new QLineEdit(Text(contents.date)), "ebDate");
  auto* ebEngineers = Named(new QLineEdit(Text(contents.engineers)), "ebEngineers");
  auto* laTestName = Named(new QLabel(Text(contents.testName)), "laTestName");
  auto* laTestVersion = Named(new QLabel(Text(contents.testVersion)), "laTestVersion");
  auto* laSerialNumber = Named(new QLabel(Text(contents.serialNumber)), "laSerialNumber");
  QFont bold = laTestName->font();
  bold.setBold(true);
  laTestName->setFont(bold);
  auto* form = new QFormLayout;
  form->addRow(tr("Test:"), laTestName);
  form->addRow(tr("Version:"), laTestVersion);
  form->addRow(tr("Serial Number:"), laSerialNumber);
  form->addRow(tr("Date:"), ebDate);
  form->addRow(tr("Engineer(s):"), ebEngineers);

  ebSequenceList_ = Named(new QListWidget, "ebSequenceList");
  ebSequenceList_->clear();
  for (const auto& line : contents.lines) ebSequenceList_->addItem(Text(line));

  pbPrint_ = Named(new QPushButton(tr("&Print")), "pbPrint");
  pbPdf_ = Named(new QPushButton(tr("P&DF...")), "pbPrintPdf");
  pbEscape_ = Named(new QPushButton(tr("&Escape")), "pbEscape");
  auto* buttons = new QHBoxLayout;
  buttons->addStretch();
  buttons->addWidget(pbPrint_);
  buttons->addWidget(pbPdf_);
  buttons->addWidget(pbEscape_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(ebSequenceList_, 1);
  layout->addLayout(buttons);
  resize(560, 420);

  connect(pbPrint_, &QPushButton::clicked, this, &ReportDialog::printOnDefaultPrinter);
  connect(pbPdf_, &QPushButton::clicked, this, &ReportDialog::saveAsPdf);
  connect(pbEscape_, &QPushButton::clicked, this, &QDialog::close);
}

void ReportDialog::print(QPrinter& printer) {
  for (QPushButton* b : {pbPrint_, pbPdf_, pbEscape_}) b->hide();
  const QPixmap image = grab();
  for (QPushButton* b : {pbPrint_, pbPdf_, pbEscape_}) b->show();
  QPainter painter(&printer);
  const QRect page = painter.viewport();
  QSize size = image.size();
  size.scale(page.size(), Qt::KeepAspectRatio);
  painter.drawPixmap(QRect(page.topLeft(), size), image);
}

bool ReportDialog::printToPdf(const QString& path) {
  QPrinter printer(QPrinter::HighResolution);
  printer.setOutputFormat(QPrinter::PdfFormat);
  printer.setOutputFileName(path);
  print(printer);
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
  dialog->open();
}

void ReportDialog::saveAsPdf() {
  auto* dialog = new QFileDialog(this, tr("Save Report as PDF"), QString(), tr("PDF files (*.pdf)"));
  dialog->setAcceptMode(QFileDialog::AcceptSave);
  dialog->setDefaultSuffix("pdf");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& path) { printToPdf(path); });
  dialog->open();
}

}  // namespace tavrix
