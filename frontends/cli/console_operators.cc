#include "console_operators.h"

#include <cstdlib>

#include "common/text_conventions.h"
#include "platform/console.h"

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

std::unique_ptr<Operator> MakeConsoleOperator(const FileSystem& files, const std::optional<std::string>& answers,
                                              std::FILE* in, std::FILE* out, std::string* error) {
  if (answers) {
    auto file = AnswersFile::load(files, *answers, error);
    if (!file) return nullptr;
    return std::make_unique<ScriptedOperator>(std::move(*file), out);
  }
  if (in != nullptr && platform::isTerminal(in)) return std::make_unique<TerminalOperator>(in, out);
  return std::make_unique<ScriptedOperator>(AnswersFile{}, out);
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
    for (const auto& caption : question.choices) captions += (captions.empty() ? "" : ", ") + caption;
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

TerminalOperator::TerminalOperator(std::FILE* in, std::FILE* out)
    : out_(out), lines_(std::make_unique<platform::LineReader>(in)) {}

TerminalOperator::~TerminalOperator() {
  lines_->cancel();
  if (reader_.joinable()) reader_.join();
}

void TerminalOperator::closeQuestion() {
  std::lock_guard lock(mutex_);
  if (!open_) return;
  open_ = false;
  lines_->cancel();
  std::fprintf(out_, "\n");
  std::fflush(out_);
}

void TerminalOperator::ask(const Question& question, std::function<void(Answer)> answered) {
  if (reader_.joinable()) reader_.join();
  lines_->clear();
  std::string text;
  for (char c : question.text) text += c == '\r' ? '\n' : c;
  std::fprintf(out_, "\n%s\n", text.c_str());
  if (question.choices.empty()) {
    std::fprintf(out_, "> ");
  } else {
    for (size_t i = 0; i < question.choices.size(); ++i) {
      std::fprintf(out_, "  [%zu] %s", i + 1, question.choices[i].c_str());
    }
    std::fprintf(out_, "\n> ");
  }
  std::fflush(out_);
  {
    std::lock_guard lock(mutex_);
    open_ = true;
  }
  reader_ = std::thread([this, question, answered = std::move(answered)] {
    // The answer goes out unless the question was closed meanwhile.
    auto give = [&](Answer answer) {
      {
        std::lock_guard lock(mutex_);
        if (!open_) return;
        open_ = false;
      }
      answered(std::move(answer));
    };
    for (;;) {
      std::string line;
      const auto got = lines_->readLine(line);
      if (got == platform::LineReader::Result::kCancelled) return;
      if (got == platform::LineReader::Result::kEnd) {
        give(std::nullopt);
        return;
      }
      while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
      if (question.choices.empty()) {
        give(line);
        return;
      }
      const std::string button = MatchAnswer(question, line);
      if (!button.empty()) {
        give(button);
        return;
      }
      std::fprintf(out_, "Please answer with one of the buttons.\n> ");
      std::fflush(out_);
    }
  });
}

void TerminalOperator::showMessage(std::string_view title, std::string_view text) {
  PrintMessageBox(out_, title, text);
}

}  // namespace tavrix
