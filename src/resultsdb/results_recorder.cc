#include "resultsdb/results_recorder.h"

#include "platform/process.h"

namespace tavrix {

ResultsRecorder::ResultsRecorder(ResultsQueue& queue, StoreOpener opener,
                                 ResultsRecorderOptions options)
    : queue_(queue), opener_(std::move(opener)), options_(options) {}

ResultsRecorder::~ResultsRecorder() { stop(); }

void ResultsRecorder::start() {
  if (thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stopping_ = false;
    work_ = true;  // records of earlier runs may wait
  }
  thread_ = std::thread([this] { loop(); });
}

bool ResultsRecorder::submit(const StoredUut& uut, std::string* error) {
  const bool ok = queue_.append(uut, error);
  {
    std::lock_guard lock(mutex_);
    work_ = true;
    kicked_ = true;
  }
  wake_.notify_one();
  return ok;
}

size_t ResultsRecorder::drain() {
  std::lock_guard drainLock(drainMutex_);
  size_t written = 0;
  bool failed = false;
  std::string error;
  std::string journalError;
  auto acknowledge = [&](const std::vector<StoredUut>& taken) {
    std::vector<std::string> keys;
    for (const auto& u : taken) keys.push_back(u.key);
    // A record that the store has taken but whose acknowledgement did not
    // reach the journal is sent again later, and its key makes that harmless.
    std::string e;
    if (!queue_.acknowledge(keys, &e)) journalError = e;
    written += taken.size();
  };
  for (;;) {
    const std::vector<StoredUut> batch = queue_.front(options_.batchSize, &journalError);
    if (batch.empty()) break;
    if (!store_) store_ = opener_(&error);
    if (!store_) {
      failed = true;
      break;
    }
    if (store_->record(batch, &error)) {
      acknowledge(batch);
      continue;
    }
    if (!store_->refusedContent()) {
      // After a failure the connection may be in any state: open afresh.
      store_.reset();
      failed = true;
      break;
    }
    // Something in the batch was refused: each record alone finds which.
    for (const auto& uut : batch) {
      std::string oneError;
      if (store_->record({uut}, &oneError)) {
        acknowledge({uut});
      } else if (store_->refusedContent()) {
        std::string e;
        if (!queue_.setAside(uut.key, oneError, &e)) journalError = e;
      } else {
        store_.reset();
        error = oneError;
        failed = true;
        break;
      }
    }
    if (failed) break;
  }
  std::lock_guard lock(mutex_);
  lastError_ = failed ? error : journalError;
  if (failed) ++failures_;
  ++drains_;
  progress_.notify_all();
  return written;
}

void ResultsRecorder::loop() {
  // Background work: when the cores are busy the engine thread goes first,
  // so its waits end on time while a batch is written.
  platform::lowerThisThreadPriority();
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (!work_) {
      wake_.wait(lock, [this] { return stopping_ || work_; });
      continue;
    }
    work_ = false;
    kicked_ = false;  // a kick from here on asks for another try
    const unsigned long failuresBefore = failures_;
    lock.unlock();
    drain();
    lock.lock();
    if (failures_ != failuresBefore) {
      // What waits is tried again after the delay, however it was woken.
      work_ = true;
      if (clock_->isVirtual()) {
        // No real time passes on a virtual clock: the next try waits for a
        // submit, or for a turn of flush().
        wake_.wait(lock, [this] { return stopping_ || kicked_; });
      }
      if (stopping_) break;
      const Micros delay =
          std::chrono::duration_cast<std::chrono::microseconds>(options_.retryDelay).count();
      clock_->idleUntil(
          clock_->now() + delay, wake_, lock, [this] { return stopping_; }, false);
    }
  }
}

bool ResultsRecorder::flush(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  const Micros deadline =
      clock_->now() + std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
  bool empty = false;
  for (;;) {
    lock.unlock();
    const size_t waiting = queue_.ownWaiting();
    lock.lock();
    if (waiting == 0) {
      empty = true;
      break;
    }
    if (stopping_ || clock_->now() >= deadline) break;
    work_ = true;
    kicked_ = true;
    wake_.notify_all();
    const unsigned long seen = drains_;
    // Woken by the store thread's next try; on a virtual clock its retry
    // delays move the time on towards the deadline.
    clock_->idleUntil(
        deadline, progress_, lock, [&] { return drains_ != seen || stopping_; }, true);
  }
  return empty;
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
