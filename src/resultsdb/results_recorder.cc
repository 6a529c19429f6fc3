#include "resultsdb/results_recorder.h"

#include "platform/process.h"

namespace tavrix {

ResultsRecorder::ResultsRecorder(ResultsQueue& queue, StoreOpener opener)
    : queue_(queue), opener_(std::move(opener)) {}

ResultsRecorder::~ResultsRecorder() { stop(); }

void ResultsRecorder::start() {
  if (thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stopping_ = false;
  }
  thread_ = std::thread([this] { loop(); });
}

bool ResultsRecorder::submit(const StoredUut& uut, std::string* error) {
  const bool ok = queue_.append(uut, error);
  // Taken and let go so that the store thread is either before its check of
  // the queue or already waiting: the wake-up cannot fall between the two.
  { std::lock_guard lock(mutex_); }
  wake_.notify_one();
  return ok;
}

size_t ResultsRecorder::drain() {
  std::lock_guard drainLock(drainMutex_);
  size_t written = 0;
  for (;;) {
    const std::vector<StoredUut> batch = queue_.front(batchSize);
    if (batch.empty()) break;
    std::string error;
    if (!store_) store_ = opener_(&error);
    const bool stored = store_ && store_->record(batch, &error);
    // After a failure the connection may be in any state: open afresh.
    if (!stored) store_.reset();
    // A record that the store has taken but whose acknowledgement did not
    // reach the journal is sent again later, and its key makes that harmless.
    std::string ackError;
    if (stored && !queue_.acknowledge(batch.size(), &ackError)) error = ackError;
    std::lock_guard lock(mutex_);
    if (!stored) {
      lastError_ = error;
      ++failures_;
      progress_.notify_all();
      break;
    }
    written += batch.size();
    lastError_ = error;
    progress_.notify_all();
  }
  return written;
}

void ResultsRecorder::loop() {
  // Background work: when the cores are busy the engine thread goes first,
  // so its waits end on time while a batch is written.
  platform::lowerThisThreadPriority();
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (queue_.size() == 0) {
      wake_.wait(lock, [this] { return stopping_ || queue_.size() > 0; });
      continue;
    }
    const unsigned long failuresBefore = failures_;
    lock.unlock();
    drain();
    lock.lock();
    if (failures_ != failuresBefore) {
      wake_.wait_for(lock, retryDelay, [this] { return stopping_; });
    }
  }
}

bool ResultsRecorder::flush(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  const unsigned long failuresBefore = failures_;
  progress_.wait_for(lock, limit,
                     [&] { return queue_.size() == 0 || failures_ != failuresBefore; });
  return queue_.size() == 0;
}

void ResultsRecorder::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

std::string ResultsRecorder::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

}  // namespace tavrix
