#include "data_entry_dialog.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

namespace tavrix {

std::optional<QDate> ParseTestDate(const QString& text) {
  static const QRegularExpression kDate(R"(^\s*(\d{1,2})[-/.](\d{1,2})[-/.](\d{4})\s*$)");
  const QRegularExpressionMatch m = kDate.match(text);
  if (!m.hasMatch()) return std::nullopt;
  const QDate date(m.captured(3).toInt(), m.captured(2).toInt(), m.captured(1).toInt());
  if (!date.isValid()) return std::nullopt;
  return date;
}

DataEntryDialog::DataEntryDialog(const Question& question, QDate today,
                                 std::function<void(Answer)> answered, QWidget* parent)
    : QDialog(parent), answered_(std::move(answered)) {
  setObjectName("frmDataEntry");
  setWindowTitle(question.title.empty() ? tr("Test Data Entry") : Text(question.title));
  auto* form = new QFormLayout;
  ebSerialNum_ = new QLineEdit;
  ebSerialNum_->setObjectName("ebSerialNum");
  ebDate_ = new QLineEdit;
  ebDate_->setObjectName("ebDate");
  ebOperator_ = new QLineEdit;
  ebOperator_->setObjectName("ebOperator");
  ebDescription_ = new QLineEdit;
  ebDescription_->setObjectName("ebDescription");
  if (const auto engineDate = ParseTestDate(Text(question.text))) today = *engineDate;
  ebDate_->setText(today.toString("dd-MM-yyyy"));
  form->addRow(tr("Serial Number:"), ebSerialNum_);
  form->addRow(Text(kDateLabel), ebDate_);
  form->addRow(tr("Operator(s):"), ebOperator_);
  form->addRow(tr("Description:"), ebDescription_);

  auto* pbAccept = new QPushButton(tr("Accept"));
  pbAccept->setObjectName("pbAccept");
  pbAccept->setDefault(true);
  auto* pbCancel = new QPushButton(tr("Cancel"));
  pbCancel->setObjectName("pbCancel");
  auto* buttons = new QHBoxLayout;
  buttons->addStretch();
  buttons->addWidget(pbAccept);
  buttons->addWidget(pbCancel);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addLayout(buttons);
  connect(pbAccept, &QPushButton::clicked, this, &DataEntryDialog::accept);
  connect(pbCancel, &QPushButton::clicked, this, &DataEntryDialog::reject);
  resize(420, sizeHint().height());
}

DataEntryDialog::~DataEntryDialog() { answered_(std::string("Cancel")); }

void DataEntryDialog::accept() {
  const auto date = ParseTestDate(ebDate_->text());
  if (!date) {
    auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), Text(kInvalidDateMessage),
                                QMessageBox::Ok, this);
    box->setObjectName("messageBox");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
    return;
  }
  const QString answer = "Accept|serial=" + ebSerialNum_->text() +
                         "|date=" + date->toString("dd-MM-yyyy") +
                         "|operator=" + ebOperator_->text().trimmed() +
                         "|description=" + ebDescription_->text();
  answered_(Std(answer));
  QDialog::accept();
}

void DataEntryDialog::reject() {
  answered_(std::string("Cancel"));
  QDialog::reject();
}

}  // namespace tavrix
