#include "qt_operator.h"

#include <QColor>
#include <QMetaObject>

#include "main_window.h"
#include "qt_text.h"

namespace tavrix {

void QtOperator::ask(const Question& question, std::function<void(Answer)> answered) {
  if (closing_) {
    answered(std::nullopt);
    return;
  }
  QMetaObject::invokeMethod(
      &window_, [this, question, answered] { window_.openQuestion(question, answered); },
      Qt::QueuedConnection);
}

std::optional<std::string> QtOperator::waitForWindow(
    std::function<void(std::function<void(std::optional<std::string>)>)> open) {
  if (closing_ || loop_ == nullptr) return std::nullopt;
  struct Outcome {
    bool done = false;
    std::optional<std::string> value;
  };
  auto outcome = std::make_shared<Outcome>();
  EventLoop* loop = loop_;
  auto finished = [loop, outcome](std::optional<std::string> value) {
    loop->post([outcome, value] {
      outcome->done = true;
      outcome->value = value;
    });
  };
  EventLoop::OutsideWait person(*loop);
  QMetaObject::invokeMethod(
      &window_, [open, finished] { open(finished); }, Qt::QueuedConnection);
  loop->waitUntil([&] { return outcome->done || closing_; });
  return outcome->value;
}

void QtOperator::showMessage(std::string_view title, std::string_view text) {
  const QString t = Text(title);
  const QString body = Text(text);
  waitForWindow([this, t, body](std::function<void(std::optional<std::string>)> done) {
    window_.openMessageBox(t, body, [done] { done(std::nullopt); });
  });
}

std::optional<std::string> QtOperator::chooseFile(const FileChoice& dialog) {
  return waitForWindow([this, dialog](std::function<void(std::optional<std::string>)> done) {
    window_.openFileDialog(dialog, [done](const QString& chosen) {
      done(chosen.isEmpty() ? std::nullopt : std::optional<std::string>(Std(chosen)));
    });
  });
}

void QtOperator::showHelpText(std::string_view text) {
  const QString s = Text(text);
  QMetaObject::invokeMethod(
      &window_, [this, s] { window_.setHelpText(s); }, Qt::QueuedConnection);
}

void QtOperator::showChannelValue(std::string_view channel, std::string_view value) {
  const QString c = Text(channel);
  const QString v = Text(value);
  QMetaObject::invokeMethod(
      &window_, [this, c, v] { window_.showChannelValue(c, v); }, Qt::QueuedConnection);
}

void QtOperator::closeQuestion() {
  QMetaObject::invokeMethod(
      &window_, [this] { window_.closeChannelDisplay(); }, Qt::QueuedConnection);
}

void QtOperator::minimiseWindow() {
  QMetaObject::invokeMethod(
      &window_, [this] { window_.showMinimized(); }, Qt::QueuedConnection);
}

void QtOperator::showStatusLabel(std::string_view text, int32_t colour) {
  const QString s = Text(text);
  // The colour value holds red, green and blue from the lowest byte up.
  const QColor c(colour & 0xFF, (colour >> 8) & 0xFF, (colour >> 16) & 0xFF);
  QMetaObject::invokeMethod(
      &window_, [this, s, c] { window_.setStatusLabel(s, c); }, Qt::QueuedConnection);
}

void QtOperator::showAlarmDefinitions(const std::vector<std::string>& labels,
                                      const std::vector<std::string>& commands) {
  QStringList l, c;
  for (const auto& label : labels) l << Text(label);
  for (const auto& command : commands) c << Text(command);
  QMetaObject::invokeMethod(
      &window_, [this, l, c] { window_.setAlarmDefinitions(l, c); }, Qt::QueuedConnection);
}

}  // namespace tavrix
