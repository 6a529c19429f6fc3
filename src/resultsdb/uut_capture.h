// Takes each finished UUT from the test database into the results store's
// queue, on the engine thread: the record is built, given its key and
// handed to the recorder, whose store thread does the rest.
#pragma once

#include <string>

#include "common/civil_time.h"
#include "resultsdb/results_recorder.h"
#include "resultsdb/stored_uut.h"
#include "testdb/test_database.h"

namespace tavrix {

class Sequencer;

// The store's record of `uut`, without a key.
StoredUut MakeStoredUut(const TestDefinition& definition, const std::string& detailsPath,
                        const UutRecord& uut, Micros ended, const std::string& station,
                        const std::string& sequenceFile);

// A key no other UUT record has: the station, the start, the serial number
// and 64 random bits (two runs on a virtual clock may start at one instant).
std::string NewUutKey(const StoredUut& uut);

// The name of this station: the host name, or "station" when there is none.
std::string DefaultStationName();

// Plugs `recorder` into the end of every UUT of `testDatabase`. A record
// that cannot be queued durably is reported once in the trace and on
// `report` (which may be empty), and told to `unqueued` (which may be empty)
// with the results files that hold it; the run goes on.
void CaptureUuts(
    TestDatabase& testDatabase, Sequencer& sequencer, ResultsRecorder& recorder,
    std::string station, std::function<void(const std::string&)> report,
    std::function<void(const StoredUut&, const std::vector<std::string>& files)> unqueued = {});

}  // namespace tavrix
