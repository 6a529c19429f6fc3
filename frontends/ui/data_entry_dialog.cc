#include "data_entry_dialog.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

#include "testdb/data_entry.h"

namespace tavrix {

namespace {

// The first day-month-year date in `text` as dd-mm-yyyy, or "".
QString EntryDate(const QString& text) {
  static const QRegularExpression kDate(R"(\d{1,2}[-/.]\d{1,2}[-/.]\d{2,4})");
  QRegularExpressionMatchIterator it = kDate.globalMatch(text);
  while (it.hasNext()) {
    const auto date = ParseEntryDate(Std(it.next().captured(0)));
    if (date) return Text(formatDate(*date, "dd-mm-yyyy"));
  }
  return {};
}

}  // namespace

DataEntryDialog::DataEntryDialog(const Question& question, QDate today,
                                 std::function<void(Answer)> answered, QWidget* parent)
    : QDialog(parent), answered_(std::move(answered)) {
  setObjectName("frmDataEntry");
  setWindowTitle(Text(question.title.empty() ? kDataEntryTitle : question.title));
  auto* form = new QFormLayout;
  ebSerialNum_ = new QLineEdit;
  ebSerialNum_->setObjectName("ebSerialNum");
  ebDate_ = new QLineEdit;
  ebDate_->setObjectName("ebDate");
  ebOperator_ = new QLineEdit;
  ebOperator_->setObjectName("ebOperator");
  ebDescription_ = new QLineEdit;
  ebDescription_->setObjectName("ebDescription");
  const QString engineDate = EntryDate(Text(question.text));
  ebDate_->setText(engineDate.isEmpty() ? today.toString("dd-MM-yyyy") : engineDate);
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

DataEntryDialog::~DataEntryDialog() { answered_(std::string(kCancel)); }

void DataEntryDialog::accept() {
  const auto entered = ParseEntryDate(Std(ebDate_->text().trimmed()));
  if (!entered) {
    auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), Text(kMsgInvalidDate),
                                QMessageBox::Ok, this);
    box->setObjectName("messageBox");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
    return;
  }
  const QString answer = Text(kAccept) + "|serial=" + ebSerialNum_->text() +
                         "|date=" + Text(formatDate(*entered, "dd-mm-yyyy")) +
                         "|operator=" + ebOperator_->text().trimmed() +
                         "|description=" + ebDescription_->text();
  answered_(Std(answer));
  QDialog::accept();
}

void DataEntryDialog::reject() {
  answered_(std::string(kCancel));
  QDialog::reject();
}

}  // namespace tavrix
