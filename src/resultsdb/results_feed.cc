#include "resultsdb/results_feed.h"

#include <algorithm>

#include "common/file_system.h"
#include "common/paths.h"
#include "resultsdb/uut_capture.h"
#include "sequencer/sequencer.h"
#include "testdb/test_database.h"

namespace tavrix {

ResultsFeed::ResultsFeed(FileSystem& files, StoreSpec spec, TestDatabase& testDatabase,
                         Sequencer& sequencer)
    : spec_(std::move(spec)),
      testDatabase_(testDatabase),
      sequencer_(sequencer),
      queue_(files, join(files.dataRoot(), kQueueFileName), StoreKey(spec_)),
      recorder_(queue_,
                [spec = spec_](std::string* e) -> std::unique_ptr<ResultsStore> {
                  return OpenResultsStore(spec, e);
                }),
      unqueuedFiles_(std::make_shared<std::map<std::string, std::vector<std::string>>>()) {}

std::unique_ptr<ResultsFeed> ResultsFeed::Start(FileSystem& files, const std::string& setting,
                                                std::string station, TestDatabase& testDatabase,
                                                Sequencer& sequencer, Report report,
                                                std::string* error) {
  StoreSpec spec;
  if (!ParseStoreSpec(setting, files.dataRoot(), spec, error)) return nullptr;
  if (spec.kind == StoreSpec::Kind::kOff) return nullptr;
  std::unique_ptr<ResultsFeed> feed(
      new ResultsFeed(files, std::move(spec), testDatabase, sequencer));
  if (sequencer.clock().isVirtual()) {
    feed->clock_ = std::make_unique<VirtualClock>(sequencer.clock().now());
    feed->recorder_.setClock(*feed->clock_);
  }
  std::string queueError;
  if (!feed->queue_.open(&queueError) && report) report(queueError);
  feed->recorder_.start();
  if (station.empty()) station = DefaultStationName();
  CaptureUuts(testDatabase, sequencer, feed->recorder_, std::move(station), std::move(report),
              [unqueued = feed->unqueuedFiles_](const StoredUut& uut,
                                                const std::vector<std::string>& files) {
                (*unqueued)[uut.key] = files;
              });
  return feed;
}

ResultsFeed::~ResultsFeed() {
  testDatabase_.setUutEnded(nullptr);
  recorder_.stop();
}

bool ResultsFeed::finish(std::chrono::milliseconds limit, std::string* problem) {
  testDatabase_.setUutEnded(nullptr);
  const bool written = recorder_.flush(limit);
  const std::vector<StoredUut> lost = queue_.unjournaled();
  if (!written && problem) {
    if (!lost.empty()) {
      // The journal could not take them and the store has not: nothing but
      // the results files holds them once the process ends.
      std::string files;
      std::vector<std::string> named;
      for (const auto& uut : lost) {
        auto it = unqueuedFiles_->find(uut.key);
        if (it == unqueuedFiles_->end() || it->second.empty()) continue;
        for (const auto& file : it->second) {
          if (std::find(named.begin(), named.end(), file) != named.end()) continue;
          named.push_back(file);
          files += (files.empty() ? "" : ", ") + file;
        }
      }
      *problem = std::to_string(lost.size()) + " UUT record" +
                 (lost.size() == 1 ? " is" : "s are") + " lost to " + storeName() +
                 ": the journal " + queue_.path() + " could not hold " +
                 (lost.size() == 1 ? "it" : "them") +
                 (files.empty() ? std::string(" and no results file holds them")
                                : "; the results files still hold them: " + files);
    } else {
      *problem = std::to_string(recorder_.waiting()) + " UUT records wait in " + queue_.path() +
                 " for " + storeName() + ": " + recorder_.lastError();
    }
  }
  Trace& trace = sequencer_.trace();
  if (trace.enabled() && (testDatabase_.uutsFinished() > 0 || recorder_.waiting() > 0)) {
    auto event = trace.event("results_store");
    event.field("store", storeName()).field("waiting", static_cast<int64_t>(recorder_.waiting()));
    if (!lost.empty()) event.field("lost", static_cast<int64_t>(lost.size()));
    if (!written) event.field("error", recorder_.lastError());
  }
  return written;
}

}  // namespace tavrix
