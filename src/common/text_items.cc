#include "common/text_items.h"

#include "common/text_conventions.h"
#include "common/text_file.h"

namespace tavrix {

std::string ItemToWrite(std::string_view item) {
  const bool quote = item.find(',') != std::string_view::npos ||
                     (!item.empty() && (item.front() == ' ' || item.back() == ' '));
  return quote ? "\"" + std::string(item) + "\"" : std::string(item);
}

std::vector<std::string> splitLines(std::string_view text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r' && text[i] != '\n') continue;
    lines.emplace_back(text.substr(start, i - start));
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    start = i + 1;
  }
  if (start < text.size()) lines.emplace_back(text.substr(start));
  return lines;
}

bool readTextLines(const FileSystem& files, const std::string& path,
                   std::vector<std::string>& lines, std::string* error) {
  std::string text;
  if (!readTextFile(files, path, text, error)) return false;
  lines = splitLines(text);
  return true;
}

bool TextItemReader::open(const FileSystem& files, const std::string& path, TextItemReader& reader,
                          std::string* error) {
  std::string text;
  if (!readTextFile(files, path, text, error)) return false;
  reader = TextItemReader(std::move(text));
  return true;
}

bool TextItemReader::atLineEnd() const {
  return pos_ >= text_.size() || text_[pos_] == '\r' || text_[pos_] == '\n';
}

void TextItemReader::skipLineEnd() {
  if (pos_ >= text_.size()) return;
  if (text_[pos_] == '\r' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '\n') ++pos_;
  ++pos_;
}

bool TextItemReader::next(std::string& item) {
  if (atEnd()) return false;
  itemAfterComma_ = false;
  while (pos_ < text_.size() && text_[pos_] == ' ') ++pos_;

  std::string value;
  if (pos_ < text_.size() && text_[pos_] == '"') {
    ++pos_;
    while (!atLineEnd() && text_[pos_] != '"') value += text_[pos_++];
    if (!atLineEnd()) ++pos_;  // the closing quote
    while (!atLineEnd() && text_[pos_] != ',') ++pos_;
  } else {
    const size_t start = pos_;
    while (!atLineEnd() && text_[pos_] != ',') ++pos_;
    value = trim(std::string_view(text_).substr(start, pos_ - start));
  }

  if (pos_ < text_.size() && text_[pos_] == ',') {
    ++pos_;
    if (atLineEnd()) {
      // The item after a trailing comma is empty; the line end belongs to it.
      itemAfterComma_ = true;
    }
  } else {
    skipLineEnd();
  }
  item = std::move(value);
  return true;
}

}  // namespace tavrix
