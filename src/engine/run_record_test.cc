// The record of every run: each run of an engine leaves runs/<id>/ with its
// trace and a summary of how it ended; lines wait to be written together but
// every other event goes out at once; a write that fails is lost output as a
// --trace file's is; old records go by age and then by size, never the
// running one, never by size one without an end, never what is not a record.
#include "engine/run_record.h"

#include <gtest/gtest.h>

#include <map>

#include "engine/engine.h"
#include "testing/memory_engine.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

// An engine with a sequence that stops after five seconds and one that
// ends in an error.
class Rig : public MemoryEngine {
 public:
  Rig() {
    files().put("/data/ok.wts", "WAITSECONDS 5\r\nSTOP\r\n");
    files().put("/data/bad.wts", "WAITSECONDS 1\r\nGOTO NOWHERE\r\n");
  }
  EndReason run(const std::string& path) {
    std::string error;
    EXPECT_TRUE(engine().sequencer().prepareFile(path, &error)) << error;
    return engine().run();
  }
};

TEST(RunRecord, EveryRunOfAnEngineLeavesItsTraceAndHowItEnded) {
  Rig rig;
  // (No limits: the memory file system's times are not the real clock's.)
  rig.engine().recordEveryRun({std::nullopt, std::nullopt}, "window");
  EXPECT_EQ(rig.run("/data/ok.wts"), EndReason::kStop);
  EXPECT_EQ(rig.run("/data/bad.wts"), EndReason::kError);

  const auto records = ListRunRecords(rig.engine().files());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_NE(records[0].id, records[1].id);
  EXPECT_EQ(records[0].sequence, "/data/ok.wts");
  EXPECT_EQ(records[0].frontEnd, "window");
  EXPECT_EQ(records[0].endReason, "stop");
  EXPECT_EQ(records[0].start, kTestStart);
  ASSERT_TRUE(records[0].end);
  EXPECT_EQ(*records[0].end, kTestStart + 5 * kMicrosPerSecond);
  EXPECT_FALSE(records[0].exitStatus);
  EXPECT_EQ(records[1].endReason, "error");
  EXPECT_EQ(records[1].folder, "/data/runs/" + records[1].id);

  // Each trace counts from its own run's start and ends with the end.
  EXPECT_EQ(rig.read(records[0].folder + "/trace.jsonl"),
            "{\"t\":0.000,\"ev\":\"status\",\"text\":\"Running\"}\n"
            "{\"t\":0.000,\"ev\":\"line\",\"n\":1,\"text\":\"WAITSECONDS 5\"}\n"
            "{\"t\":5.000,\"ev\":\"line\",\"n\":2,\"text\":\"STOP\"}\n"
            "{\"t\":5.000,\"ev\":\"status\",\"text\":\"Stopped\"}\n"
            "{\"t\":5.000,\"ev\":\"end\",\"reason\":\"stop\"}\n");
  const std::string second = rig.read(records[1].folder + "/trace.jsonl");
  EXPECT_EQ(second.find("{\"t\":0.000,\"ev\":\"status\",\"text\":\"Running\"}\n"
                        "{\"t\":0.000,\"ev\":\"line\",\"n\":1,\"text\":\"WAITSECONDS 1\"}\n"
                        "{\"t\":1.000,\"ev\":\"line\",\"n\":2,\"text\":\"GOTO NOWHERE\"}\n"),
            0u)
      << second;
  EXPECT_NE(second.find("{\"t\":1.000,\"ev\":\"end\",\"reason\":\"error\"}\n"), std::string::npos)
      << second;

  // Found by its id, or by the process id its id ends with (the latest).
  EXPECT_EQ(FindRunRecord(rig.engine().files(), records[0].id)->id, records[0].id);
  const std::string pid = records[1].id.substr(records[1].id.rfind('-') + 1);
  const auto byPid = FindRunRecord(rig.engine().files(), pid);
  ASSERT_TRUE(byPid);
  EXPECT_EQ(byPid->id.substr(0, 20), records[1].id.substr(0, 20));
  EXPECT_FALSE(FindRunRecord(rig.engine().files(), "../runs"));
  EXPECT_FALSE(FindRunRecord(rig.engine().files(), "nosuchrun"));
}

TEST(RunRecord, LinesWaitButOtherEventsGoOutAtOnceAndAFailedWriteIsLostOutput) {
  Rig rig;
  Trace& trace = rig.engine().trace();
  trace.setOrigin(kTestStart);
  std::string error;
  auto record =
      RunRecord::Begin(rig.engine().files(), trace, {"/data/ok.wts", "S2", "station", kTestStart},
                       {std::nullopt, std::nullopt}, &error);
  ASSERT_TRUE(record) << error;
  const std::string path = record->folder() + "/trace.jsonl";
  trace.event("line").field("n", 1).field("text", "SEND OUT, 1");
  trace.line(kTestStart + 1000, 2, "SEND OUT, \"2\"");
  EXPECT_EQ(rig.read(path), "");
  trace.event("hold").field("n", 3).field("reason", "pause");
  const std::string heldAt =
      "{\"t\":0.000,\"ev\":\"line\",\"n\":1,\"text\":\"SEND OUT, 1\"}\n"
      "{\"t\":0.001,\"ev\":\"line\",\"n\":2,\"text\":\"SEND OUT, \\\"2\\\"\"}\n"
      "{\"t\":0.000,\"ev\":\"hold\",\"n\":3,\"reason\":\"pause\"}\n";
  EXPECT_EQ(rig.read(path), heldAt);
  // A line waits a quarter of a second of the run at most: the line after
  // that writes both.
  trace.line(kTestStart + 200'000, 4, "A");
  EXPECT_EQ(rig.read(path), heldAt);
  trace.line(kTestStart + 250'000, 5, "B");
  EXPECT_EQ(rig.read(path), heldAt +
                                "{\"t\":0.200,\"ev\":\"line\",\"n\":4,\"text\":\"A\"}\n"
                                "{\"t\":0.250,\"ev\":\"line\",\"n\":5,\"text\":\"B\"}\n");
  // Lines in an instant of the run are written 64 KiB at a time.
  const std::string longText(1000, 'x');
  const size_t before = rig.read(path).size();
  size_t lines = 0;
  while (rig.read(path).size() == before && lines < 200) {
    trace.line(kTestStart + 250'000, 6, longText);
    ++lines;
  }
  EXPECT_GE(lines, 32u);
  EXPECT_LE(lines, 64u);
  EXPECT_GE(rig.read(path).size(), before + 64 * 1024);
  trace.event("status").field("text", "Running");
  // A line left waiting is written when the record finishes.
  trace.event("line").field("n", 3).field("text", "SEND OUT, 3");
  // The next write of the file fails: the trace counts the line as lost and
  // the file system names the record's file among the losses.
  rig.files().failWrite(1, MemoryFileSystem::Fault::kNoSpace);
  trace.event("message").field("text", "lost");
  EXPECT_EQ(trace.linesLost(), 1);
  ASSERT_EQ(rig.engine().files().losses().size(), 1u);
  EXPECT_EQ(rig.engine().files().losses()[0].path, path);
  trace.event("line").field("n", 4).field("text", "SEND OUT, 4");
  record->finish(kTestStart + kMicrosPerSecond, "stop", 3);
  EXPECT_FALSE(trace.enabled());
  const std::string text = rig.read(path);
  EXPECT_EQ(text.find("SEND OUT, 3"), std::string::npos);
  EXPECT_NE(text.find("SEND OUT, 4"), std::string::npos);

  const auto summary = FindRunRecord(rig.engine().files(), record->id());
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->testSocket, "S2");
  EXPECT_EQ(summary->endReason, "stop");
  EXPECT_EQ(summary->exitStatus, 3);

  // A record that goes without finishing stays without an end (cut short).
  auto cut = RunRecord::Begin(rig.engine().files(), trace, {"/data/bad.wts", {}, "cli", kTestStart},
                              {std::nullopt, std::nullopt}, &error);
  ASSERT_TRUE(cut) << error;
  const std::string cutId = cut->id();
  cut.reset();
  EXPECT_FALSE(trace.enabled());
  EXPECT_FALSE(FindRunRecord(rig.engine().files(), cutId)->end);
}

// A finished record of `bytes` bytes of trace, made after the ones before.
std::string MakeRecord(FileSystem& files, Trace& trace, size_t bytes, bool finish = true) {
  std::string error;
  auto record = RunRecord::Begin(files, trace, {"/data/ok.wts", {}, "cli", kTestStart},
                                 {std::nullopt, std::nullopt}, &error);
  EXPECT_TRUE(record) << error;
  trace.event("message").field("text", std::string(bytes, 'x'));
  const std::string id = record->id();
  if (finish) record->finish(kTestStart, "eof", 0);
  return id;
}

TEST(RunRecord, OldRecordsGoByAgeThenOldestFirstBySizeAndNothingElseGoes) {
  MemoryFileSystem files("/data");
  VirtualClock clock(kTestStart);
  Trace trace(clock);
  files.put("/data/runs/20260101-000000-main.checkpoint", "checkpoint");
  files.put("/data/runs/discarded/old.checkpoint", "old");
  const std::string a = MakeRecord(files, trace, 1000);
  const std::string b = MakeRecord(files, trace, 1000);
  const std::string open = MakeRecord(files, trace, 1000, false);
  const std::string c = MakeRecord(files, trace, 1000);
  const std::string d = MakeRecord(files, trace, 1000);
  auto ids = [&files] {
    std::vector<std::string> out;
    for (const auto& r : ListRunRecords(files)) out.push_back(r.id);
    return out;
  };
  ASSERT_EQ(ids().size(), 5u);
  std::map<std::string, uint64_t> bytes;
  for (const auto& r : ListRunRecords(files)) bytes[r.id] = r.bytes;
  const uint64_t each = bytes[a];
  // The memory file system's times count its writes: every file is younger
  // than `now` by more than nothing.
  const int64_t now = files.info("/data/runs/" + d + "/run.json").modifiedNs;

  // Off, off: nothing goes.
  EXPECT_EQ(PruneRunRecords(files, now + 1'000'000, {std::nullopt, std::nullopt}, "").removed, 0);
  // By size: the oldest ended records go until the rest fit; the one
  // without an end stays (its run may still go), and so does `keep`.
  const PruneResult bySize = PruneRunRecords(files, now, {std::nullopt, each * 3 + each / 2}, a);
  EXPECT_EQ(bySize.removed, 2);
  EXPECT_EQ(bySize.bytesFreed, bytes[b] + bytes[c]);
  EXPECT_EQ(ids(), (std::vector<std::string>{a, open, d}));
  // By age: all that is older than the limit goes, an open one included, but
  // not `keep`.
  const auto ageOf = files.info("/data/runs/" + a + "/run.json").modifiedNs;
  const PruneResult byAge = PruneRunRecords(files, now + 1000, {Micros{1}, std::nullopt}, d);
  EXPECT_EQ(byAge.removed, 2);
  EXPECT_EQ(ids(), std::vector<std::string>{d});
  EXPECT_GT(now + 1000 - ageOf, 1000);
  // What is not a record is never touched.
  EXPECT_TRUE(files.isFile("/data/runs/20260101-000000-main.checkpoint"));
  EXPECT_TRUE(files.isFile("/data/runs/discarded/old.checkpoint"));
  EXPECT_FALSE(files.isFolder("/data/runs/" + a));
}

TEST(RunRecord, AgesAndSizesAreReadWithTheirUnitsOrOff) {
  std::optional<Micros> age;
  std::string error;
  EXPECT_TRUE(ParseRecordAge("30d", age, &error));
  EXPECT_EQ(age, 30 * kMicrosPerDay);
  EXPECT_TRUE(ParseRecordAge("OFF", age, &error));
  EXPECT_FALSE(age);
  EXPECT_FALSE(ParseRecordAge("soon", age, &error));
  EXPECT_NE(error.find("\"soon\""), std::string::npos);
  EXPECT_FALSE(ParseRecordAge("0", age, &error));

  std::optional<uint64_t> size;
  EXPECT_TRUE(ParseRecordSize("1GiB", size, &error));
  EXPECT_EQ(size, uint64_t{1} << 30);
  EXPECT_TRUE(ParseRecordSize("500 MiB", size, &error));
  EXPECT_EQ(size, uint64_t{500} << 20);
  EXPECT_TRUE(ParseRecordSize("200MB", size, &error));
  EXPECT_EQ(size, uint64_t{200'000'000});
  EXPECT_TRUE(ParseRecordSize("4096", size, &error));
  EXPECT_EQ(size, uint64_t{4096});
  EXPECT_TRUE(ParseRecordSize("off", size, &error));
  EXPECT_FALSE(size);
  for (const char* bad : {"", "0", "-1GiB", "1.5GiB", "GiB", "1 GiBs", "99999999999TiB"})
    EXPECT_FALSE(ParseRecordSize(bad, size, &error)) << bad;
}

}  // namespace
}  // namespace tavrix
