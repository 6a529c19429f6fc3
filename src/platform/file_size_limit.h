// For tests of a full disk: while it lives, a write that would make any file
// of this process larger than the limit fails (with no signal), as on a full
// disk. Only POSIX systems can do this; elsewhere active() is false.
#pragma once

#include <cstdint>
#include <memory>

namespace tavrix::platform {

class FileSizeLimit {
 public:
  explicit FileSizeLimit(uint64_t bytes);
  ~FileSizeLimit();
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  bool active() const { return state_ != nullptr; }

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace tavrix::platform
