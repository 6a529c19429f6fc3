// Writes UUT records to the results store from a thread of its own, so that
// the engine thread never waits on a database. The engine thread only puts
// a record in the durable queue (results_queue.h); the store thread takes
// records from its front, in order, writes a batch in one transaction and
// acknowledges it. A store that cannot be reached is tried again later; the
// records wait in the queue meanwhile, across runs if need be. A batch that
// the store refuses for what a record holds is written one record at a
// time, and the record refused is set aside with the store's reason, so it
// never holds up the others.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/clock.h"
#include "resultsdb/results_queue.h"
#include "resultsdb/results_store.h"

namespace tavrix {

// How a ResultsRecorder writes and retries.
struct ResultsRecorderOptions {
  // Records per transaction.
  size_t batchSize = 64;
  // How long the store thread waits before it tries a store that failed.
  std::chrono::milliseconds retryDelay{2000};
};

class ResultsRecorder {
 public:
  // Opens the store, nullptr with a message when it cannot be reached.
  using StoreOpener = std::function<std::unique_ptr<ResultsStore>(std::string* error)>;

  ResultsRecorder(ResultsQueue& queue, StoreOpener opener, ResultsRecorderOptions options = {});
  ~ResultsRecorder();
  ResultsRecorder(const ResultsRecorder&) = delete;
  ResultsRecorder& operator=(const ResultsRecorder&) = delete;

  // The clock that times the retries and flush(): the machine's unless set.
  // On a virtual clock a retry's delay costs no real time, so after a
  // failure the store is tried again only when a record is submitted or at
  // each turn of a flush() (each try then moves the clock on by retryDelay).
  void setClock(Clock& clock) { clock_ = &clock; }

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
  // Waits (at most `limit`, the store thread trying again every retryDelay)
  // until every record submitted here has been taken by the store or set
  // aside; true when none waits.
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
  const ResultsRecorderOptions options_;
  std::unique_ptr<ResultsStore> store_;  // store thread only (or drain's caller)
  std::mutex drainMutex_;                // one drain at a time

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable progress_;
  bool stopping_ = false;
  SystemClock systemClock_;
  Clock* clock_ = &systemClock_;
  bool work_ = true;     // the store thread has something to look at
  bool kicked_ = false;  // a record was submitted, or flush() turned, since the last failure
  unsigned long failures_ = 0;
  unsigned long drains_ = 0;
  std::string lastError_;
  std::thread thread_;
};

}  // namespace tavrix
