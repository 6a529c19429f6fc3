// Numbered names handed out from index files, so that each block of logged
// data gets a new file or folder. An index file is plain text, one item a
// line:
//   1  the name template, holding "???" where the number goes
//   2  the limit: the largest number issued
//   3  the last number issued
//   4… the history, newest first: name TAB dd-mm-yyyy BLANK hh:mm:ss
// The number runs 1, 2, … limit, then 1 again; it is written at least three
// digits wide ("000"). The history keeps at most `limit` lines besides the
// newest.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/paths.h"

namespace tavrix {

inline constexpr std::string_view kNoQuestionMarks = "Indexed File Spec does not contain ???";

class IndexFileTable {
 public:
  IndexFileTable(FileSystem& files, const PathMap& paths) : files_(files), paths_(paths) {}

  // INDEXINIT: adds the file to the table (its number is the new count) and
  // creates it, holding the template, the limit and again the limit, when it
  // does not exist. An existing file is left as it is. False, with the
  // message "Open <file> error: -<reason>", when the file exists but cannot
  // be read or cannot be created; the slot is added all the same.
  bool add(std::string_view spec, std::string_view nameTemplate, int16_t limit,
           std::string* message);

  // The next name from index file `number` (1 for the first INDEXINIT), the
  // file rewritten; empty text on failure, with `message` set when there is
  // something to show (kNoQuestionMarks) and `reason` saying why otherwise.
  // `yield` runs after each history line read.
  std::string issue(int number, Micros now, std::string* message, std::string* reason,
                    const std::function<void()>& yield = {});

  size_t count() const { return specs_.size(); }
  // The index files set up, in slot order (a resumed run's table).
  const std::vector<std::string>& specs() const { return specs_; }
  void setSpecs(std::vector<std::string> specs) { specs_ = std::move(specs); }
  void clear() { specs_.clear(); }

 private:
  FileSystem& files_;
  const PathMap& paths_;
  std::vector<std::string> specs_;  // as written; slot 1 is specs_[0]
};

}  // namespace tavrix
