#include "resultsdb/uut_capture.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

#include "platform/process.h"
#include "sequencer/sequencer.h"

namespace tavrix {

StoredUut MakeStoredUut(const TestDefinition& definition, const std::string& detailsPath,
                        const UutRecord& uut, Micros ended, const std::string& station,
                        const std::string& sequenceFile) {
  StoredUut s;
  s.station = station;
  s.sequenceFile = sequenceFile;
  s.testDefinition = detailsPath;
  s.testTitle = definition.details.title;
  s.testVersion = definition.details.versionText;
  s.serial = uut.serialNumber;
  s.testDate = isoDateTime(uut.testDate);
  s.operators = uut.operators;
  s.description = uut.description;
  s.startedAt = isoDateTime(uut.started);
  s.endedAt = isoDateTime(ended);
  s.passed = uut.passed;
  for (const auto& note : uut.resumeNotes) s.resumed += (s.resumed.empty() ? "" : "\n") + note;
  for (size_t i = 0; i < uut.checks.size(); ++i) {
    const CheckEntry& c = uut.checks[i];
    StoredCheck check;
    check.step = c.stage;
    if (i < uut.checkOrigins.size()) {
      check.row = static_cast<int>(uut.checkOrigins[i].row);
      check.kind = uut.checkOrigins[i].kind;
    }
    check.parameter = c.parameter;
    check.channel = c.channel;
    check.value = c.value;
    check.units = c.units;
    check.lower = c.lower;
    check.upper = c.upper;
    check.passed = c.passed;
    check.message = c.failureText;
    s.checks.push_back(std::move(check));
  }
  return s;
}

std::string NewUutKey(const StoredUut& uut) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  char nonce[24];
  std::snprintf(nonce, sizeof nonce, "%016llx", static_cast<unsigned long long>(random()));
  return uut.station + "/" + uut.startedAt + "/" + uut.serial + "/" + nonce;
}

std::string DefaultStationName() {
  const std::string name = platform::hostName();
  return name.empty() ? "station" : name;
}

void CaptureUuts(
    TestDatabase& testDatabase, Sequencer& sequencer, ResultsRecorder& recorder,
    std::string station, std::function<void(const std::string&)> report,
    std::function<void(const StoredUut&, const std::vector<std::string>& files)> unqueued) {
  // The results files of the UUT that ends, told just before uutEnded.
  auto files = std::make_shared<std::vector<std::string>>();
  testDatabase.addUutFinishedHook(
      [files](const UutRecord&, const std::vector<std::string>& written) { *files = written; });
  testDatabase.setUutEnded([&sequencer, &recorder, station = std::move(station),
                            report = std::move(report), unqueued = std::move(unqueued), files,
                            reported = false](const TestDefinition& definition,
                                              const std::string& detailsPath, const UutRecord& uut,
                                              Micros ended) mutable {
    StoredUut record =
        MakeStoredUut(definition, detailsPath, uut, ended, station, sequencer.sequenceFileName());
    record.key = NewUutKey(record);
    // Absolute, so that a reader elsewhere (the plant view) finds them
    // whatever folder the run was started in.
    for (const std::string& file : *files) {
      std::error_code ec;
      const auto absolute = std::filesystem::absolute(file, ec);
      record.files.push_back(ec ? file : absolute.lexically_normal().string());
    }
    std::string error;
    const bool queued = recorder.submit(record, &error);
    if (sequencer.trace().enabled()) {
      auto event = sequencer.trace().event("results_store");
      event.field("serial", record.serial).field("key", record.key).field("queued", queued);
      if (!queued) event.field("error", error);
    }
    if (!queued && unqueued) unqueued(record, *files);
    if (!queued && !reported && report) {
      reported = true;
      report(error +
             "; records wait in memory and are lost if the store does not take them before the "
             "run ends");
    }
  });
}

}  // namespace tavrix
