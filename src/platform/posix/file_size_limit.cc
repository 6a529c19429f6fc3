#include "platform/file_size_limit.h"

#include <sys/resource.h>

#include <csignal>

namespace tavrix::platform {

struct FileSizeLimit::State {
  rlimit saved{};
  void (*previousHandler)(int) = nullptr;
};

FileSizeLimit::FileSizeLimit(uint64_t bytes) {
  auto state = std::make_unique<State>();
  if (getrlimit(RLIMIT_FSIZE, &state->saved) != 0) return;
  rlimit limit = state->saved;
  limit.rlim_cur = static_cast<rlim_t>(bytes);
  state->previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
    std::signal(SIGXFSZ, state->previousHandler);
    return;
  }
  state_ = std::move(state);
}

FileSizeLimit::~FileSizeLimit() {
  if (!state_) return;
  setrlimit(RLIMIT_FSIZE, &state_->saved);
  std::signal(SIGXFSZ, state_->previousHandler);
}

}  // namespace tavrix::platform
