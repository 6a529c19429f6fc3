#include "answers_file.h"

#include <cctype>

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/text_items.h"

namespace tavrix {

namespace {

bool isKindCharacter(char c) {
  return std::isupper(static_cast<unsigned char>(c)) ||
         std::isdigit(static_cast<unsigned char>(c)) || c == '_' || c == '[' || c == ']';
}

}  // namespace

AnswersFile AnswersFile::parse(std::string_view text) {
  AnswersFile file;
  int number = 0;
  for (const std::string& raw : splitLines(text)) {
    ++number;
    std::string_view line = trim(raw);
    while (!line.empty() && line.front() == '\t') line = trim(line.substr(1));
    while (!line.empty() && line.back() == '\t') line = trim(line.substr(0, line.size() - 1));
    if (line.empty() || line.front() == '#') continue;
    Line entry;
    entry.number = number;
    // A tag is an upper-case kind, an optional '*', and a colon.
    size_t k = 0;
    while (k < line.size() && isKindCharacter(line[k])) ++k;
    size_t colon = k;
    bool every = false;
    if (colon < line.size() && line[colon] == '*') {
      every = true;
      ++colon;
    }
    if (k > 0 && colon < line.size() && line[colon] == ':') {
      entry.kind = line.substr(0, k);
      entry.every = every;
      entry.caption = trim(line.substr(colon + 1));
    } else {
      entry.caption = line;
    }
    file.lines_.push_back(std::move(entry));
  }
  return file;
}

std::optional<AnswersFile> AnswersFile::load(const FileSystem& files, const std::string& path,
                                             std::string* error) {
  std::string text;
  if (!readTextFile(files, path, text, error)) return std::nullopt;
  return parse(text);
}

const AnswersFile::Line* AnswersFile::take(std::string_view kind) {
  for (auto& line : lines_) {
    if (line.used || line.every) continue;
    if (line.kind.empty() || line.kind == kind) {
      line.used = true;
      return &line;
    }
  }
  for (auto& line : lines_) {
    if (line.every && line.kind == kind) return &line;
  }
  return nullptr;
}

bool AnswersFile::markUsed(int number) {
  for (auto& line : lines_) {
    if (line.number == number && !line.every) {
      line.used = true;
      return true;
    }
  }
  return false;
}

}  // namespace tavrix
