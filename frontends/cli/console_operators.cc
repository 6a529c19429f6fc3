#include "console_operators.h"

#include <cstdlib>

#include "common/text_conventions.h"
#include "platform/console.h"

namespace tavrix {

std::unique_ptr<Operator> MakeConsoleOperator(const FileSystem& files,
                                              const std::optional<std::string>& answers,
                                              std::FILE* in, std::FILE* out, std::string* error) {
  if (answers) {
    auto file = AnswersFile::load(files, *answers, error);
    if (!file) return nullptr;
    return std::make_unique<ScriptedOperator>(std::move(*file), out);
  }
  if (in != nullptr && platform::isTerminal(in)) return std::make_unique<TerminalOperator>(in, out);
  return std::make_unique<ScriptedOperator>(AnswersFile{}, out);
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
