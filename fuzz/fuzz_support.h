// Shared pieces of the fuzz targets.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "sequencer/operator.h"

namespace tavrix::fuzz {

// Writes the input to a scratch file and returns its path (one per process).
inline std::string ScratchFile(const uint8_t* data, size_t size, const char* suffix = "") {
  static const std::string path = "/tmp/tavrix-fuzz-" + std::to_string(getpid()) + suffix;
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f != nullptr) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  return path;
}

// Answers every question with its first button and ends a run that has
// dispatched too many lines (a sequence may loop for ever without waiting).
class FuzzOperator : public Operator {
 public:
  std::function<void()> onTooManyLines;
  int lines = 0;
  void ask(const Question& q, std::function<void(Answer)> answered) override {
    answered(q.buttons.empty() ? std::string("x") : q.buttons.front());
  }
  void showMessage(std::string_view, std::string_view) override {}
  void showCurrentCommand(std::string_view) override {
    if (++lines == 5000 && onTooManyLines) onTooManyLines();
  }
};

}  // namespace tavrix::fuzz
