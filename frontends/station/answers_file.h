// Scripted operator answers for unattended runs. One answer a line: the
// caption of the button pressed, exactly as the window shows it. Blank lines
// and lines starting with '#' are skipped.
//   CAPTION          answers the next question of any kind
//   KIND: CAPTION    answers the next question of that kind only
//   KIND*: CAPTION   answers every question of that kind that no other line
//                    answers
// A question of kind K takes the first unused line, in file order, that is
// untagged or tagged K; failing that a K* line; failing that it has no answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

class AnswersFile {
 public:
  struct Line {
    int number = 0;      // line number in the file, from 1
    std::string kind;    // empty: any kind
    bool every = false;  // "KIND*:"
    std::string caption;
    bool used = false;
  };

  // Parses the text of an answers file.
  static AnswersFile parse(std::string_view text);
  // Reads a file; std::nullopt with a message when it cannot be read.
  static std::optional<AnswersFile> load(const FileSystem& files, const std::string& path,
                                         std::string* error);

  // The answer to the next question of `kind` (the line is used up unless
  // it is a KIND* line); std::nullopt when no line answers it.
  const Line* take(std::string_view kind);

  const std::vector<Line>& lines() const { return lines_; }
  // Marks the line with that number used; false when there is none.
  bool markUsed(int number);

 private:
  std::vector<Line> lines_;
};

}  // namespace tavrix
