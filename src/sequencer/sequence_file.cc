#include "sequencer/sequence_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/text_conventions.h"
#include "common/text_file.h"

namespace tavrix {

size_t CleanReadLine(std::string& line) {
  const size_t blanks = line.find_first_not_of(' ');
  line.erase(0, blanks == std::string::npos ? line.size() : blanks);
  size_t tabs = 0;
  while (tabs < line.size() && line[tabs] == '\t') ++tabs;
  line.erase(0, tabs);
  while (!line.empty() && line.back() == '\n') line.pop_back();
  while (!line.empty() && line.back() == '\r') line.pop_back();
  const size_t cr = line.find('\r');
  if (cr == std::string::npos || cr == 0) return 0;
  const size_t removed = line.size() - (cr + 1);
  line.erase(cr);
  return removed;
}

bool HasBareLineFeeds(std::string_view text) {
  for (size_t i = text.find('\n'); i != std::string_view::npos; i = text.find('\n', i + 1)) {
    if (i == 0 || text[i - 1] != '\r') return true;
  }
  return false;
}

bool SequenceFile::open(const FileSystem& files, const std::string& path, std::string* error) {
  const FileInfo st = files.info(path);
  if (st.kind == FileKind::kMissing) {
    if (error) *error = "Cannot open sequence file " + path + ": " + std::strerror(ENOENT);
    open_ = false;
    return false;
  }
  if (st.kind == FileKind::kFolder) {
    if (error) *error = "Cannot open sequence file " + path + ": it is a folder";
    open_ = false;
    return false;
  }
  const int64_t mtime = st.modifiedNs;
  const bool same = path == path_ && mtime == mtimeNs_ && static_cast<int64_t>(st.size) == size_ &&
                    st.device == device_ && st.inode == inode_;
  if (!same) {
    if (st.kind == FileKind::kOther) {
      if (error)
        *error = "Cannot open sequence file " + path +
                 ": it is not a regular file (a device, FIFO or socket)";
      open_ = false;
      return false;
    }
    std::string text;
    std::string readError;
    // The reader takes lines of any length, so only the file's size is
    // bounded.
    if (!readTextFile(files, path, text, &readError, kMaxTextFileBytes, kMaxTextFileBytes)) {
      if (error) *error = "Cannot read sequence file " + path + ": " + readFailureReason(readError);
      open_ = false;
      return false;
    }
    const size_t nul = text.find('\0');
    if (nul != std::string::npos) {
      size_t line = 1;
      for (size_t i = 0; i < nul; ++i) line += text[i] == '\r' ? 1 : 0;
      if (error) {
        *error = "Sequence file " + path + " is not a text file: it holds a NUL byte on line " +
                 std::to_string(line);
      }
      open_ = false;
      return false;
    }
    text_ = std::move(text);
    path_ = path;
    mtimeNs_ = mtime;
    size_ = static_cast<int64_t>(st.size);
    device_ = st.device;
    inode_ = st.inode;
    indexed_ = false;
    lineStarts_.clear();
    upperLines_.clear();
    searches_.clear();
  }
  open_ = true;
  pos_ = 0;
  linesRead_ = 0;
  return true;
}

void SequenceFile::close() { open_ = false; }

bool SequenceFile::readLine(std::string& line) {
  if (atEnd()) return false;
  const size_t cr = text_.find('\r', pos_);
  const size_t end = cr == std::string::npos ? text_.size() : cr;
  line.assign(text_, pos_, end - pos_);
  pos_ = end;
  if (pos_ < text_.size()) {
    ++pos_;  // the carriage return
    if (pos_ < text_.size() && text_[pos_] == '\n') ++pos_;
  }
  ++linesRead_;
  positionCorrection_ -= static_cast<int32_t>(CleanReadLine(line));
  return true;
}

void SequenceFile::buildLineIndex() {
  lineStarts_.clear();
  upperLines_.clear();
  size_t pos = 0;
  std::string line;
  while (pos < text_.size()) {
    lineStarts_.push_back(pos);
    const size_t cr = text_.find('\r', pos);
    const size_t end = cr == std::string::npos ? text_.size() : cr;
    line.assign(text_, pos, end - pos);
    CleanReadLine(line);
    upperLines_.push_back(upperCase(line));
    pos = end;
    if (pos < text_.size()) {
      ++pos;
      if (pos < text_.size() && text_[pos] == '\n') ++pos;
    }
  }
  indexed_ = true;
}

std::optional<size_t> SequenceFile::findLineContaining(const std::string& target) {
  if (!indexed_) buildLineIndex();
  auto found = searches_.find(target);
  if (found != searches_.end()) return found->second;
  std::optional<size_t> result;
  for (size_t i = 0; i < upperLines_.size(); ++i) {
    if (upperLines_[i].find(target) != std::string::npos) {
      result = i;
      break;
    }
  }
  // Keep the memory of searches bounded for sequences that build labels.
  if (searches_.size() > 4096) searches_.clear();
  searches_.emplace(target, result);
  return result;
}

void SequenceFile::skipToEnd() {
  if (!indexed_) buildLineIndex();
  pos_ = text_.size();
  linesRead_ = lineStarts_.size();
}

void SequenceFile::skipPast(size_t index) {
  if (!indexed_) buildLineIndex();
  if (index + 1 >= lineStarts_.size()) {
    pos_ = text_.size();
  } else {
    pos_ = lineStarts_[index + 1];
  }
  linesRead_ = index + 1;
}

}  // namespace tavrix
