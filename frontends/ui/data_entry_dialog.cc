#include "data_entry_dialog.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
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
                                 std::function<void(Answer)> answered, QWidget* parent,
                                 std::vector<bool> required)
    : QDialog(parent), required_(std::move(required)), answered_(std::move(answered)) {
  // A result without a serial number cannot be traced to its unit.
  if (required_.empty()) required_.push_back(true);
  required_[0] = true;
  required_.resize(4, false);
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
  // No default button: Enter moves between the fields, and on a focused
  // button presses it.
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
  connect(pbCancel, &QPushButton::clicked, this, &DataEntryDialog::cancel);
  for (QLineEdit* field : {ebSerialNum_, ebDate_, ebOperator_, ebDescription_})
    field->installEventFilter(this);
  resize(420, sizeHint().height());
  // The first field has the keyboard when the window opens.
  ebSerialNum_->setFocus();
}

bool DataEntryDialog::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::KeyPress) {
    const int key = static_cast<QKeyEvent*>(event)->key();
    if ((key == Qt::Key_Return || key == Qt::Key_Enter) && qobject_cast<QLineEdit*>(watched)) {
      focusNextChild();
      return true;
    }
  }
  return QDialog::eventFilter(watched, event);
}

void DataEntryDialog::refuse(const QString& text) {
  auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), text, QMessageBox::Ok, this);
  box->setObjectName("messageBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->show();
}

DataEntryDialog::~DataEntryDialog() { answered_(std::string(kCancel)); }

void DataEntryDialog::accept() {
  const QLineEdit* fields[] = {ebSerialNum_, ebDate_, ebOperator_, ebDescription_};
  const QString names[] = {tr("Serial Number"), tr("Test Date"), tr("Operator(s)"),
                           tr("Description")};
  for (size_t i = 0; i < 4; ++i) {
    if (required_[i] && fields[i]->text().trimmed().isEmpty()) {
      refuse(tr("%1 must be filled in.").arg(names[i]));
      const_cast<QLineEdit*>(fields[i])->setFocus();
      return;
    }
  }
  const auto entered = ParseEntryDate(Std(ebDate_->text().trimmed()));
  if (!entered) {
    refuse(Text(kMsgInvalidDate));
    return;
  }
  const QString answer = Text(kAccept) + "|serial=" + ebSerialNum_->text() +
                         "|date=" + Text(formatDate(*entered, "dd-mm-yyyy")) +
                         "|operator=" + ebOperator_->text().trimmed() +
                         "|description=" + ebDescription_->text();
  answered_(Std(answer));
  QDialog::accept();
}

void DataEntryDialog::cancel() {
  answered_(std::string(kCancel));
  QDialog::reject();
}

}  // namespace tavrix
