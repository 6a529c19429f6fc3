// The day example's calculated channels over a day and a half of virtual
// time on the simulated rig, across a month's end, with the logging switch
// off for ten minutes and a change of loggers at the end: the summaries, the
// session report and the alarm report come out byte for byte as pinned
// here, and so does every exchange with the rig (the trace, reduced to a
// checksum). Whatever is done to make passes cheaper must leave all of it
// unchanged.
#include <gtest/gtest.h>

#include "common/file_system.h"
#include "common/text_file.h"
#include "engine/engine.h"
#include "instrument/link/instrument_settings.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

// The trace, kept only as a line count and a 64-bit FNV-1a checksum.
class ChecksumOutput final : public OutputFile {
 public:
  ChecksumOutput(uint64_t& sum, int64_t& lines) : sum_(sum), lines_(lines) {}
  bool write(std::string_view bytes, std::string*) override {
    for (const char c : bytes) {
      sum_ = (sum_ ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
      lines_ += c == '\n';
    }
    return true;
  }

 private:
  uint64_t& sum_;
  int64_t& lines_;
};

uint64_t Checksum(std::string_view bytes) {
  uint64_t sum = 0xcbf29ce484222325ULL;
  for (const char c : bytes) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
  return sum;
}

std::string ReadExample(const std::string& name) {
  std::string text;
  std::string error;
  EXPECT_TRUE(
      readTextFile(testFiles(), std::string(TAVRIX_EXAMPLES_DIR) + "/" + name, text, &error))
      << error;
  return text;
}

TEST(CalcDay, ADayAndAHalfOfTheExampleGivesTheSameFilesAndExchangesAsAlways) {
  RecordingOperator op;
  auto owned = std::make_unique<MemoryFileSystem>("/data");
  MemoryFileSystem& files = *owned;
  EngineConfig config;
  config.clock = std::make_unique<VirtualClock>(*parseDateTime("2026-11-30 18:00:00"));
  config.files = std::move(owned);
  config.op = &op;
  std::string error;
  ASSERT_TRUE(ParseInstrumentSettings("drive.q = /rigs/q\n", "rig.cfg", config.settings, &error))
      << error;
  config.link = "sim";
  const auto built = BuildEngine(std::move(config));
  ASSERT_NE(built, nullptr);
  Engine& engine = *built;
  files.makeFolders("/rigs/q", nullptr);
  files.put("/rigs/q/calc_rig.ims", ReadExample("calc_rig.ims"));
  files.put("/rigs/q/calc_day.ccs", ReadExample("calc_day.ccs"));
  ASSERT_TRUE(writeTextFileAtomically(
      files, "/rigs/q/day.wts",
      {"IMSFILESPEC q:\\calc_rig.ims", "STARTCALCULATEDCHANNELS q:\\calc_day.ccs, 10", "CC_START",
       "WAITSECONDS 43200", "SEND LOGSW, 0", "WAITSECONDS 600", "SEND LOGSW, 1",
       "WAITSECONDS 86400", "CC_CHANGELOGGERS", "STOP"},
      nullptr));
  uint64_t traceSum = 0xcbf29ce484222325ULL;
  int64_t traceLines = 0;
  engine.trace().setOutput(std::make_unique<ChecksumOutput>(traceSum, traceLines));
  ASSERT_TRUE(engine.sequencer().prepareFile("/rigs/q/day.wts", &error)) << error;
  engine.sequencer().start();
  engine.trace().setOutput(nullptr);
  EXPECT_EQ(engine.sequencer().lastSequenceError(), "");
  EXPECT_TRUE(op.messages.empty()) << op.messages.front();

  const std::string summary = "/data/c/corvane/data/summary/";
  auto read = [&](const std::string& name) {
    std::string text;
    EXPECT_TRUE(files.readFile(summary + name, text, nullptr)) << name;
    return text;
  };
  const std::string head =
      "\r\n"
      "DAILY SUMMARY\r\n"
      "Day\tFLOWDAY\t\tT1MAX\t\tT1MIN\t\tT1C95\t\t\tT1C95B\t\t\tFLOWHI\t\t\tFLOWLO\t\t\r\n"
      "\t\tStatus\t\tStatus\t\tStatus\tEpochs\tcounted\tStatus\tEpochs\tcounted\tStatus\tScans\t"
      "Status\tin alarm\tScans\tStatus\tin alarm\r\n";
  // The first pass after each midnight writes the day that ended; the change
  // of loggers writes the day so far.
  EXPECT_EQ(read("MONTH_AB_2611.wl"),
            head +
                "30\t12.01\tOK\tn.a.\tOK\t19.50\tALARM\t5\t20.02\tOK\t5\t0\tOK\t2159\tALARM\t116\t"
                "2159\tALARM\t48\r\n");
  EXPECT_EQ(
      read("MONTH_AB_2612.wl"),
      head +
          "01\t12.01\tOK\tn.a.\tOK\t19.50\tALARM\t24\t20.02\tOK\t24\t0\tOK\t8580\tALARM\t405\t"
          "8580\tALARM\t205\r\n"
          "02\t11.99\tOK\tn.a.\tOK\t19.50\tALARM\t7\t20.02\tOK\t7\t0\tOK\t2221\tALARM\t103\t"
          "2221\tALARM\t56\r\n");
  EXPECT_EQ(read("AB_1226.wl"),
            "Date-Time\tDuration (mins)\tCREM AVG\tStatus\tChannel\r\n"
            "01-12-2026 06:00:10\t720.0\t39.81\t   OK\tCOCREM\r\n"
            "02-12-2026 06:10:00\t1439.8\t40.00\tAlarm\tCOCREM\r\n");
  const std::string alarms = read("AB_ALM.txt");
  EXPECT_EQ(alarms.size(), 16263u);
  EXPECT_EQ(Checksum(alarms), 0x38f6ba3f316199fcULL);
  size_t others = 0;
  for (const auto& [path, bytes] : files.files()) {
    others += path.rfind(summary, 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(others, 4u) << "a summary file more or less than before";
  // Every exchange with the rig, in order, with its instant and its reply.
  EXPECT_EQ(traceLines, 570465);
  EXPECT_EQ(traceSum, 0xbbe91768e4965664ULL);
}

}  // namespace
}  // namespace tavrix
