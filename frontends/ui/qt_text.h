// Small conversions between the engine's texts and the window's, shared by
// the window and its dialogs.
#pragma once

#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "sequencer/operator.h"

namespace tavrix {

// An engine text for a label: UTF-8, CR LF and CR line ends as "\n".
inline QString Text(std::string_view text) {
  QString out = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
  out.replace("\r\n", "\n");
  out.replace('\r', '\n');
  return out;
}

inline std::string Std(const QString& text) { return text.toStdString(); }

// A widget with the object name the tests find it by.
template <typename T>
T* Named(T* widget, const char* name) {
  widget->setObjectName(name);
  return widget;
}

// A file dialog filter as the engine writes it ("Text (*.a, *.b)|*.a, *.b")
// as a Qt name filter. Qt takes the patterns from the parentheses and splits
// them at blanks only, so the patterns are taken from behind the bar and
// written blank-separated: "Text (*.a *.b)".
inline QString NameFilter(std::string_view filter) {
  const size_t bar = filter.find('|');
  if (bar == std::string_view::npos) return Text(filter);
  QString description = Text(filter.substr(0, bar));
  const qsizetype paren = description.indexOf('(');
  if (paren >= 0) description.truncate(paren);
  QStringList patterns;
  for (QString p :
       Text(filter.substr(bar + 1)).split(QRegularExpression("[,; ]"), Qt::SkipEmptyParts))
    patterns << p.trimmed();
  return description.trimmed() + " (" + patterns.join(' ') + ")";
}

// An answer callback that runs at most once, however many ways a dialog can
// end (a button, Escape, the close box, the dialog being destroyed).
class AnswerOnce {
 public:
  AnswerOnce() = default;
  explicit AnswerOnce(std::function<void(Answer)> answered)
      : answered_(std::make_shared<std::function<void(Answer)>>(std::move(answered))) {}
  void operator()(Answer answer) const {
    if (!answered_ || !*answered_) return;
    auto call = std::move(*answered_);
    *answered_ = nullptr;
    call(std::move(answer));
  }
  bool pending() const { return answered_ && *answered_; }

 private:
  std::shared_ptr<std::function<void(Answer)>> answered_;
};

}  // namespace tavrix
