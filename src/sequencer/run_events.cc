#include "sequencer/run_events.h"

#include <algorithm>

namespace tavrix {

const char* RunEventKindName(RunEventKind kind) {
  switch (kind) {
    case RunEventKind::kPrepared:
      return "prepared";
    case RunEventKind::kFile:
      return "file";
    case RunEventKind::kStarted:
      return "started";
    case RunEventKind::kPaused:
      return "paused";
    case RunEventKind::kResumed:
      return "resumed";
    case RunEventKind::kHold:
      return "hold";
    case RunEventKind::kRelease:
      return "release";
    case RunEventKind::kLine:
      return "line";
    case RunEventKind::kStatus:
      return "status";
    case RunEventKind::kCommand:
      return "command";
    case RunEventKind::kTimeout:
      return "timeout";
    case RunEventKind::kPrompt:
      return "prompt";
    case RunEventKind::kAnswer:
      return "answer";
    case RunEventKind::kMessage:
      return "message";
    case RunEventKind::kOutput:
      return "output";
    case RunEventKind::kUut:
      return "uut";
    case RunEventKind::kStopped:
      return "stopped";
    case RunEventKind::kStopAllowed:
      return "stop_allowed";
    case RunEventKind::kEnd:
      return "end";
  }
  return "unknown";
}

RunEventBus::Subscription& RunEventBus::Subscription::operator=(Subscription&& other) noexcept {
  if (this != &other) {
    reset();
    entry_ = std::move(other.entry_);
  }
  return *this;
}

void RunEventBus::Subscription::reset() {
  if (entry_ == nullptr) return;
  {
    // Waits for a call in progress on another thread to end.
    std::lock_guard guard(entry_->calling);
    entry_->active = false;
  }
  --*entry_->count;
  entry_.reset();
}

RunEventBus::Subscription RunEventBus::subscribe(Handler handler) {
  auto entry = std::make_shared<Subscription::Entry>();
  entry->handler = std::move(handler);
  entry->count = count_;
  ++*count_;
  std::lock_guard guard(mutex_);
  auto entries = std::make_shared<Entries>(*entries_);
  entries->push_back(entry);
  entries_ = std::move(entries);
  return Subscription(std::move(entry));
}

void RunEventBus::publish(const RunEvent& event) {
  std::shared_ptr<const Entries> entries;
  {
    std::lock_guard guard(mutex_);
    entries = entries_;
  }
  bool letGo = false;
  for (const auto& entry : *entries) {
    std::lock_guard calling(entry->calling);
    if (entry->active) {
      entry->handler(event);
    } else {
      letGo = true;
    }
  }
  if (letGo) prune();
}

void RunEventBus::prune() {
  std::lock_guard guard(mutex_);
  auto entries = std::make_shared<Entries>();
  for (const auto& entry : *entries_) {
    if (entry->active) entries->push_back(entry);
  }
  entries_ = std::move(entries);
}

}  // namespace tavrix
