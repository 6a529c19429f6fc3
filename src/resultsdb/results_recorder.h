// Writes UUT records to the results store from a thread of its own, so that
// the engine thread never waits on a database. The engine thread only puts
// a record in the durable queue (results_queue.h); the store thread takes
// records from its front, in order, writes a batch in one transaction and
// acknowledges it. A store that cannot be reached is tried again later; the
// records wait in the queue meanwhile, across runs if need be.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "resultsdb/results_queue.h"
#include "resultsdb/results_store.h"

namespace tavrix {

class ResultsRecorder {
 public:
  // Opens the store, nullptr with a message when it cannot be reached.
  using StoreOpener = std::function<std::unique_ptr<ResultsStore>(std::string* error)>;

  ResultsRecorder(ResultsQueue& queue, StoreOpener opener);
  ~ResultsRecorder();
  ResultsRecorder(const ResultsRecorder&) = delete;
  ResultsRecorder& operator=(const ResultsRecorder&) = delete;

  // Records per transaction.
  size_t batchSize = 64;
  // How long the store thread waits before it tries a store that failed.
  std::chrono::milliseconds retryDelay{2000};

  // Starts the store thread.
  void start();
  // Engine thread: queues `uut` durably and wakes the store thread. False
  // with a message when the journal cannot be written (the record then
  // waits in memory).
  bool submit(const StoredUut& uut, std::string* error);
  // Writes what waits, one batch after another, until the queue is empty or
  // a write fails. The store thread's step; tests call it directly.
  // Returns the number of records written.
  size_t drain();
  // Waits (at most `limit`) until the queue is empty or a write has failed
  // after this call; true when it is empty.
  bool flush(std::chrono::milliseconds limit);
  // Stops the store thread; what still waits stays in the queue.
  void stop();

  // The last failure, empty after a success.
  std::string lastError() const;
  size_t waiting() const { return queue_.size(); }

 private:
  void loop();

  ResultsQueue& queue_;
  StoreOpener opener_;
  std::unique_ptr<ResultsStore> store_;  // store thread only (or drain's caller)
  std::mutex drainMutex_;                // one drain at a time

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable progress_;
  bool stopping_ = false;
  unsigned long failures_ = 0;
  std::string lastError_;
  std::thread thread_;
};

}  // namespace tavrix
