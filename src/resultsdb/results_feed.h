// A run's feed of the results store: the journal in the data root, the
// recorder's thread and the capture of every UUT that ends. tavrix-cli run
// and the window set it up the same way, from the same settings.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

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
  // the store to take the records of this run (trying again meanwhile), and
  // notes in the trace what is left. False when records still wait, with
  // `problem` saying how many, where and why, or that records the journal
  // could not hold are lost (lost() then counts them).
  bool finish(std::chrono::milliseconds limit, std::string* problem);
  // Records of this run that neither the journal nor the store holds.
  size_t lost() const { return queue_.unjournaled().size(); }

  // The store, fit to show (no password).
  std::string storeName() const { return DescribeStoreSpec(spec_); }
  size_t waiting() const { return recorder_.waiting(); }
  const std::string& journal() const { return queue_.path(); }

 private:
  ResultsFeed(FileSystem& files, StoreSpec spec, TestDatabase& testDatabase, Sequencer& sequencer);

  StoreSpec spec_;
  TestDatabase& testDatabase_;
  Sequencer& sequencer_;
  // A virtual-time run times its store's retries on a virtual clock of the
  // feed's own, so the end-of-run wait costs no real time and the run's own
  // clock is never moved by the store thread.
  std::unique_ptr<Clock> clock_;
  ResultsQueue queue_;
  ResultsRecorder recorder_;
  // The results files of each record the journal could not take, by key.
  std::shared_ptr<std::map<std::string, std::vector<std::string>>> unqueuedFiles_;
};

}  // namespace tavrix
