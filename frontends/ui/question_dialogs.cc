#include "question_dialogs.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace tavrix {

namespace {

QLabel* Prompt(const Question& question, const char* name) {
  auto* label = new QLabel(Text(question.text));
  label->setObjectName(name);
  label->setWordWrap(true);
  return label;
}

}  // namespace

SelectMenuDialog::SelectMenuDialog(const Question& question, std::function<void(Answer)> answered,
                                   QWidget* parent)
    : QDialog(parent), answered_(std::move(answered)) {
  setObjectName("frmSelectMenu");
  setWindowTitle(question.title.empty() ? tr("Select") : Text(question.title));
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(Prompt(question, "laMenuPrompt"));
  lbMenu_ = new QListWidget;
  lbMenu_->setObjectName("lbMenu");
  for (const auto& choice : question.choices) lbMenu_->addItem(Text(choice));
  lbMenu_->setCurrentRow(0);
  layout->addWidget(lbMenu_);
  // The arrow keys move in the list as soon as the window opens.
  lbMenu_->setFocus();
  auto* ok = new QPushButton(tr("OK"));
  ok->setObjectName("pbMenuOK");
  ok->setDefault(true);
  layout->addWidget(ok, 0, Qt::AlignRight);
  connect(ok, &QPushButton::clicked, this, &SelectMenuDialog::accept);
  connect(lbMenu_, &QListWidget::itemActivated, this, &SelectMenuDialog::accept);
}

// The answer is given only once the stop is on its way to the engine, which
// then passes over whatever was answered.
void SelectMenuDialog::withdraw() {
  answered_(std::string());
  QDialog::reject();
}

void EnterSendDialog::withdraw() {
  answered_(std::string());
  QDialog::reject();
}

void ChannelDisplayDialog::withdraw() {
  if (!answered_.pending()) return;
  answered_(std::string());
  hide();
}

void SelectMenuDialog::accept() {
  if (lbMenu_->currentItem() == nullptr) return;
  answered_(Std(lbMenu_->currentItem()->text()));
  QDialog::accept();
}

EnterSendDialog::EnterSendDialog(const Question& question, std::function<void(Answer)> answered,
                                 QWidget* parent)
    : QDialog(parent), answered_(std::move(answered)) {
  setObjectName("frmEnterSend");
  setWindowTitle(question.title.empty() ? tr("Enter a value") : Text(question.title));
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(Prompt(question, "laEntryPrompt"));
  ebEntry_ = new QLineEdit;
  ebEntry_->setObjectName("ebEntry");
  layout->addWidget(ebEntry_);
  // Typing goes into the entry at once.
  ebEntry_->setFocus();
  auto* ok = new QPushButton(tr("OK"));
  ok->setObjectName("pbEntryOK");
  // The answer is written to an output: no default button, so Enter in the
  // entry sends nothing; the operator presses OK.
  ok->setAutoDefault(false);
  layout->addWidget(ok, 0, Qt::AlignRight);
  connect(ok, &QPushButton::clicked, this, &EnterSendDialog::accept);
}

void EnterSendDialog::accept() {
  answered_(Std(ebEntry_->text()));
  QDialog::accept();
}

ChannelDisplayDialog::ChannelDisplayDialog(QWidget* parent) : QDialog(parent) {
  setObjectName("frmChannelDisplay");
  setWindowTitle(tr("Channel Display"));
  auto* layout = new QVBoxLayout(this);
  laDwsMessage_ = new QLabel;
  laDwsMessage_->setObjectName("laDwsMessage");
  laDwsMessage_->setWordWrap(true);
  layout->addWidget(laDwsMessage_);
  auto* reading = new QHBoxLayout;
  laDwsChannel_ = new QLabel;
  laDwsChannel_->setObjectName("laDwsChannel");
  ladwsChannelValue_ = new QLabel;
  ladwsChannelValue_->setObjectName("ladwsChannelValue");
  ladwsChannelValue_->setFrameShape(QFrame::Panel);
  ladwsChannelValue_->setFrameShadow(QFrame::Sunken);
  ladwsChannelValue_->setMinimumWidth(120);
  QFont big = ladwsChannelValue_->font();
  big.setPointSize(big.pointSize() * 3 / 2);
  ladwsChannelValue_->setFont(big);
  reading->addWidget(laDwsChannel_);
  reading->addWidget(ladwsChannelValue_, 1);
  layout->addLayout(reading);
  buttons_ = new QHBoxLayout;
  buttons_->addStretch();
  layout->addLayout(buttons_);
}

void ChannelDisplayDialog::showValue(const QString& channel, const QString& value) {
  laDwsChannel_->setText(channel + ":");
  ladwsChannelValue_->setText(value);
}

void ChannelDisplayDialog::ask(const Question& question, std::function<void(Answer)> answered) {
  answered_ = AnswerOnce(std::move(answered));
  laDwsMessage_->setText(Text(question.text));
  setWindowTitle(question.title.empty() ? tr("Channel Display") : Text(question.title));
  while (buttons_->count() > 1) {
    QLayoutItem* item = buttons_->takeAt(1);
    delete item->widget();
    delete item;
  }
  for (const auto& caption : question.choices) {
    auto* b = new QPushButton(Text(caption));
    b->setObjectName(QString::fromStdString("answer_" + caption));
    // The answers change outputs (Up, Down): none is pressed by Enter.
    b->setAutoDefault(false);
    buttons_->addWidget(b);
    connect(b, &QPushButton::clicked, this, [this, caption] {
      auto answered = answered_;
      hide();
      answered(caption);
    });
  }
  show();
  raise();
  activateWindow();
}

}  // namespace tavrix
