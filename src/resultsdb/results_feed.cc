#include "resultsdb/results_feed.h"

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
      queue_(files, join(files.dataRoot(), kQueueFileName)),
      recorder_(queue_, [spec = spec_](std::string* e) -> std::unique_ptr<ResultsStore> {
        return OpenResultsStore(spec, e);
      }) {}

std::unique_ptr<ResultsFeed> ResultsFeed::Start(FileSystem& files, const std::string& setting,
                                                std::string station, TestDatabase& testDatabase,
                                                Sequencer& sequencer, Report report,
                                                std::string* error) {
  StoreSpec spec;
  if (!ParseStoreSpec(setting, files.dataRoot(), spec, error)) return nullptr;
  if (spec.kind == StoreSpec::Kind::kOff) return nullptr;
  std::unique_ptr<ResultsFeed> feed(
      new ResultsFeed(files, std::move(spec), testDatabase, sequencer));
  std::string queueError;
  if (!feed->queue_.open(&queueError) && report) report(queueError);
  feed->recorder_.start();
  if (station.empty()) station = DefaultStationName();
  CaptureUuts(testDatabase, sequencer, feed->recorder_, std::move(station), std::move(report));
  return feed;
}

ResultsFeed::~ResultsFeed() {
  testDatabase_.uutEnded = nullptr;
  recorder_.stop();
}

bool ResultsFeed::finish(std::chrono::milliseconds limit, std::string* problem) {
  testDatabase_.uutEnded = nullptr;
  const bool written = recorder_.flush(limit);
  if (!written && problem) {
    *problem = std::to_string(recorder_.waiting()) + " UUT records wait in " + queue_.path() +
               " for " + storeName() + ": " + recorder_.lastError();
  }
  Trace& trace = sequencer_.trace();
  if (trace.enabled() && (testDatabase_.uutsFinished() > 0 || recorder_.waiting() > 0)) {
    auto event = trace.event("results_store");
    event.field("store", storeName()).field("waiting", static_cast<int64_t>(recorder_.waiting()));
    if (!written) event.field("error", recorder_.lastError());
  }
  return written;
}

}  // namespace tavrix
