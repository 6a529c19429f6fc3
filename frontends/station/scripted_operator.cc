#include "scripted_operator.h"

#include <cstdlib>

#include "common/text_conventions.h"

namespace tavrix {

void PrintMessageBox(std::FILE* out, std::string_view title, std::string_view text) {
  if (out == nullptr) return;
  std::string body;
  for (char c : text) body += c == '\r' ? '\n' : c;
  std::fprintf(out, "[%.*s] %s\n", static_cast<int>(title.size()), title.data(), body.c_str());
  std::fflush(out);
}

std::string MatchButton(const Question& question, std::string_view text) {
  const std::string_view wanted = trim(text);
  for (const auto& caption : question.choices) {
    if (caption == wanted) return caption;
  }
  for (const auto& caption : question.choices) {
    if (upperCase(caption) == upperCase(wanted)) return caption;
  }
  char* end = nullptr;
  const std::string digits(wanted);
  const long number = std::strtol(digits.c_str(), &end, 10);
  if (!digits.empty() && end != nullptr && *end == '\0' && number >= 1 &&
      static_cast<size_t>(number) <= question.choices.size()) {
    return question.choices[static_cast<size_t>(number) - 1];
  }
  return {};
}

std::string MatchAnswer(const Question& question, std::string_view text) {
  const std::string button = MatchButton(question, text);
  if (!button.empty() || !question.fieldsAfterChoice) return button;
  const size_t bar = text.find('|');
  if (bar == std::string_view::npos) return {};
  const std::string first = MatchButton(question, text.substr(0, bar));
  if (first.empty()) return {};
  return first + std::string(text.substr(bar));
}

void ScriptedOperator::ask(const Question& question, std::function<void(Answer)> answered) {
  const AnswersFile::Line* line = answers_.take(question.kind);
  last_.reset();
  if (line != nullptr) {
    last_ = *line;
    lastKind_ = question.kind;
  }
  if (line == nullptr) {
    reason_ = "the answers file has no answer left for it";
    answered(std::nullopt);
    return;
  }
  if (question.choices.empty()) {
    answered(line->caption);  // a typed entry
    return;
  }
  const std::string button = MatchAnswer(question, line->caption);
  if (button.empty()) {
    std::string captions;
    for (const auto& caption : question.choices)
      captions += (captions.empty() ? "" : ", ") + caption;
    reason_ = "line " + std::to_string(line->number) + " of the answers file answers \"" +
              line->caption + "\", which is none of its buttons (" + captions + ")";
    answered(std::nullopt);
    return;
  }
  answered(button);
}

std::string ScriptedOperator::answersUsed() const {
  std::string used;
  for (const auto& line : answers_.lines()) {
    if (!line.used) continue;
    if (!used.empty()) used += ",";
    used += std::to_string(line.number);
  }
  return used;
}

bool ScriptedOperator::restoreAnswersUsed(std::string_view used) {
  size_t at = 0;
  while (at < used.size()) {
    size_t comma = used.find(',', at);
    if (comma == std::string_view::npos) comma = used.size();
    const std::string number(used.substr(at, comma - at));
    char* end = nullptr;
    const long n = std::strtol(number.c_str(), &end, 10);
    if (number.empty() || *end != '\0' || !answers_.markUsed(static_cast<int>(n))) return false;
    at = comma + 1;
  }
  return true;
}

bool ScriptedOperator::mayAskAgain(const Question& question, std::string_view why) {
  if (!last_ || !last_->every || lastKind_ != question.kind) return true;
  reason_ = "line " + std::to_string(last_->number) + " of the answers file answers \"" +
            last_->caption + "\" to every " + question.kind + " question, and " + std::string(why) +
            "; the same answer would come again";
  return false;
}

void ScriptedOperator::showMessage(std::string_view title, std::string_view text) {
  PrintMessageBox(out_, title, text);
}

}  // namespace tavrix
