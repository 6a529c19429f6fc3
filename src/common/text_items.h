// Reading text files the way the sequencer's data files are written: line by
// line, or item by item as a comma-separated list.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

// Splits text into lines. A line ends in CR LF, LF or a lone CR; the line
// ends are not kept, and text after the last line end is a last line.
std::vector<std::string> splitLines(std::string_view text);

// Reads a file into lines (see splitLines). On failure returns false with a
// message naming the file and the reason.
bool readTextLines(const FileSystem& files, const std::string& path,
                   std::vector<std::string>& lines, std::string* error);

// Items of a comma-separated text, one at a time. A comma or the end of a
// line ends an item; blanks around an unquoted item are dropped. An item
// that starts with a double quote runs to the next double quote (commas
// inside are part of it, the quotes are not); anything between the closing
// quote and the next comma or line end is skipped. A quote left open ends at
// the line end. An empty line is one empty item, and a comma before a line
// end (or the end of the text) leaves one more, empty, item.
// An item as it must be written to read back whole: between double quotes
// when it holds a comma or begins or ends with a blank, else as it stands.
// (An item holding a double quote cannot be written so that it reads back.)
std::string ItemToWrite(std::string_view item);

class TextItemReader {
 public:
  explicit TextItemReader(std::string text) : text_(std::move(text)) {}

  // Reads the next item; false (and `item` untouched) when none is left.
  bool next(std::string& item);
  bool atEnd() const { return pos_ >= text_.size() && !itemAfterComma_; }

  // Reads a whole file. On failure returns false with a message naming the
  // file and the reason, and leaves `reader` unchanged.
  static bool open(const FileSystem& files, const std::string& path, TextItemReader& reader,
                   std::string* error);

 private:
  bool atLineEnd() const;
  void skipLineEnd();

  std::string text_;
  size_t pos_ = 0;
  bool itemAfterComma_ = false;
};

}  // namespace tavrix
