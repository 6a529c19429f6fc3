// A run's feed of the results store: the journal in the data root, the
// recorder's thread and the capture of every UUT that ends. tavrix-cli run
// and the window set it up the same way, from the same settings.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "resultsdb/results_queue.h"
#include "resultsdb/results_recorder.h"
#include "resultsdb/results_store.h"

namespace tavrix {

class FileSystem;
class Sequencer;
class TestDatabase;

class ResultsFeed {
 public:
  using Report = std::function<void(const std::string&)>;

  // Starts feeding the store that `setting` names (the results_store
  // setting: empty for the database file in the data root, "off", "sqlite",
  // "sqlite:FILE" or a server's connection string) with every UUT of
  // `testDatabase`, under the name `station` (empty: this computer's name).
  // The journal is kResultsQueueFileName in `files`' data root; one that
  // cannot be read or written is told to `report` and the run goes on.
  // nullptr for "off", and nullptr with a message for a bad setting.
  static std::unique_ptr<ResultsFeed> Start(FileSystem& files, const std::string& setting,
                                            std::string station, TestDatabase& testDatabase,
                                            Sequencer& sequencer, Report report,
                                            std::string* error);
  // Unplugs from the test database and stops the recorder's thread; what
  // the store has not taken waits in the journal for the next run.
  ~ResultsFeed();
  ResultsFeed(const ResultsFeed&) = delete;
  ResultsFeed& operator=(const ResultsFeed&) = delete;

  // The end of the feed: no more UUTs are taken; waits at most `limit` for
  // the store to take what waits, and notes in the trace what is left. False when records still
  // wait, with `problem` saying how many, where and why.
  bool finish(std::chrono::milliseconds limit, std::string* problem);

  // The store, fit to show (no password).
  std::string storeName() const { return DescribeStoreSpec(spec_); }
  size_t waiting() const { return recorder_.waiting(); }
  const std::string& journal() const { return queue_.path(); }

 private:
  ResultsFeed(FileSystem& files, StoreSpec spec, TestDatabase& testDatabase, Sequencer& sequencer);

  StoreSpec spec_;
  TestDatabase& testDatabase_;
  Sequencer& sequencer_;
  ResultsQueue queue_;
  ResultsRecorder recorder_;
};

}  // namespace tavrix
