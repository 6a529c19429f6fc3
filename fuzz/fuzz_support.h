// Shared pieces of the fuzz targets.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "sequencer/operator.h"
#include "sequencer/run_events.h"

namespace tavrix::fuzz {

// A folder of this process's own in the temporary folder, removed with
// everything in it when the process ends.
inline const std::string& ScratchFolder() {
  static const std::string* folder = [] {
    const char* tmp = std::getenv("TMPDIR");
    auto* path = new std::string(std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                                 "/tavrix-fuzz-XXXXXX");
    if (::mkdtemp(path->data()) == nullptr) std::abort();
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(ScratchFolder(), ignored);
    });
    return path;
  }();
  return *folder;
}

// Writes the input to a scratch file and returns its path (one per process).
inline std::string ScratchFile(const uint8_t* data, size_t size, const char* suffix = "") {
  static const std::string path = ScratchFolder() + "/input" + suffix;
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
    answered(q.choices.empty() ? std::string("x") : q.choices.front());
  }
  void showMessage(std::string_view, std::string_view) override {}
  // Counts the lines of `bus` and ends the run after too many.
  void watch(RunEventBus& bus) {
    lineWatch_ = bus.subscribe([this](const RunEvent& event) {
      if (event.kind == RunEventKind::kCommand && ++lines == 5000 && onTooManyLines)
        onTooManyLines();
    });
  }

 private:
  RunEventBus::Subscription lineWatch_;
};

}  // namespace tavrix::fuzz
