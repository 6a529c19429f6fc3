// The open sequence file. It is read line by line from the start; a jump
// opens it again and reads forward to the label. The text is held in memory
// and taken again from disk whenever the file changed since the last
// opening, so a file edited between jumps behaves as if it were reopened.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

// Cleans a line as it is read: leading blanks, then leading tabs, then
// trailing line feeds and carriage returns go; a carriage return that still
// stands inside the line cuts it there. Returns how many characters the cut
// removed (what the stream position correction is lowered by).
size_t CleanReadLine(std::string& line);

// Lines of a sequence file end in CR (LF after it is dropped), so a file
// whose lines end in bare line feeds reads as one long line. Lint and run
// warn of it in these words.
inline constexpr std::string_view kBareLineFeedWarning =
    "its lines end in bare line feeds (LF without CR), so it reads as one long line and only its "
    "first command runs; save it with CR LF line ends";
// True when `text` holds a line feed that does not follow a carriage return.
bool HasBareLineFeeds(std::string_view text);

class SequenceFile {
 public:
  // Opens the file at its start. Reads it from disk if it is not held yet or
  // changed on disk since. On failure returns false with a message; a file
  // holding NUL bytes is no text and is refused.
  bool open(const FileSystem& files, const std::string& path, std::string* error);
  void close();
  bool isOpen() const { return open_; }
  // Whether the file held lines that end in bare line feeds.
  bool hasBareLineFeeds() const { return HasBareLineFeeds(text_); }
  bool atEnd() const { return !open_ || pos_ >= text_.size(); }

  // The next line, cleaned; false at the end of the file. A line ends at a
  // carriage return (a line feed right behind it goes with it); a line feed
  // alone does not end a line.
  bool readLine(std::string& line);

  // Index (0-based) of the first line, counted from the start of the file,
  // whose cleaned, upper-cased text contains `target`; std::nullopt if none.
  std::optional<size_t> findLineContaining(const std::string& target);

  // Places the reader behind line `index` (0-based), as if lines 0..index
  // had been read.
  void skipPast(size_t index);
  // Places the reader at the end, as if every line had been read.
  void skipToEnd();

  // Lines read since the file was opened.
  size_t linesRead() const { return linesRead_; }

  int32_t positionCorrection() const { return positionCorrection_; }

 private:
  void buildLineIndex();

  std::string path_;
  std::string text_;
  bool open_ = false;
  size_t pos_ = 0;
  size_t linesRead_ = 0;
  int32_t positionCorrection_ = 0;
  // Identity of the text held: modification time and size on disk.
  int64_t mtimeNs_ = -1;
  int64_t size_ = -1;
  uint64_t device_ = 0;
  uint64_t inode_ = 0;
  // Built on the first search: start offset of every line and its cleaned,
  // upper-cased text; searches already made are remembered.
  bool indexed_ = false;
  std::vector<size_t> lineStarts_;
  std::vector<std::string> upperLines_;
  std::unordered_map<std::string, std::optional<size_t>> searches_;
};

}  // namespace tavrix
