// The dialogs of the sequence's operator commands beyond the message panel:
//   SELECTMENU    a list of the menu's labels; the answer is the label picked
//   ENTERSEND     a prompt and an entry box; the answer is the text typed
//   DOWITHSHOW,   a message, the channel's live reading (ladwsChannelValue)
//   MANUALADJUST  and the question's buttons; the answer is the caption
// None of them can be closed without an answer: the sequence waits for one.
// They do not block the main window, so Stop stays within reach; Stop
// withdraws them (withdraw()), and the command, seeing the stop, ends.
#pragma once

#include <QDialog>

#include "qt_text.h"

class QLabel;
class QLineEdit;
class QListWidget;
class QHBoxLayout;

namespace tavrix {

class SelectMenuDialog : public QDialog {
 public:
  SelectMenuDialog(const Question& question, std::function<void(Answer)> answered, QWidget* parent);
  ~SelectMenuDialog() override { answered_(std::nullopt); }
  void accept() override;
  void reject() override {}
  void withdraw();

 private:
  QListWidget* lbMenu_;
  AnswerOnce answered_;
};

class EnterSendDialog : public QDialog {
 public:
  EnterSendDialog(const Question& question, std::function<void(Answer)> answered, QWidget* parent);
  ~EnterSendDialog() override { answered_(std::nullopt); }
  void accept() override;
  void reject() override {}
  void withdraw();

 private:
  QLineEdit* ebEntry_;
  AnswerOnce answered_;
};

// One per main window: the engine shows readings (showChannelValue) before
// and while it asks, so the dialog outlives its questions.
class ChannelDisplayDialog : public QDialog {
 public:
  explicit ChannelDisplayDialog(QWidget* parent);
  ~ChannelDisplayDialog() override { answered_(std::nullopt); }

  void showValue(const QString& channel, const QString& value);
  void ask(const Question& question, std::function<void(Answer)> answered);
  void reject() override {}
  void withdraw();
  bool asking() const { return answered_.pending(); }

 private:
  QLabel* laDwsMessage_;
  QLabel* laDwsChannel_;
  QLabel* ladwsChannelValue_;
  QHBoxLayout* buttons_;
  AnswerOnce answered_;
};

}  // namespace tavrix
