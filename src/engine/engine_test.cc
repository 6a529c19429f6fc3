// The engine on an in-memory file system: the settings file's drive map
// reaches every command that names a file, and the trace stays valid UTF-8
// JSON whatever bytes the sequence file holds.
#include "engine/engine.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "common/file_system.h"
#include "common/text_file.h"
#include "instrument/link/instrument_settings.h"
#include "testing/memory_engine.h"

namespace tavrix {
namespace {

constexpr std::string_view kRig =
    "D 1 MONITORS=1\n"
    "  10001 E=1 M=A N=HEATER U=%\n"
    "  10002 E=1 M=A N=OUT\n";

// An engine whose settings file maps drive Q to /rigs/q; the data root is
// /data, so a path of drive Q that missed the map would land in /data/q.
class EngineFiles : public MemoryEngine {
 public:
  EngineFiles()
      : MemoryEngine([](EngineConfig& config) {
          std::string error;
          EXPECT_TRUE(
              ParseInstrumentSettings("drive.q = /rigs/q\n", "rig.cfg", config.settings, &error))
              << error;
          config.link = "sim";
        }) {
    files().makeFolders("/rigs/q", nullptr);
    files().makeFolders("/data/q", nullptr);
  }

  std::string Run(const std::string& path) {
    std::string error;
    EXPECT_TRUE(engine().sequencer().prepareFile(path, &error)) << error;
    engine().sequencer().start();
    return engine().sequencer().lastSequenceError();
  }
};

TEST(EngineFiles, EveryFileCommandFindsItsFileThroughTheSettingsDriveMap) {
  EngineFiles e;
  MemoryFileSystem& files = e.files();
  files.put("/rigs/q/rig.ims", std::string(kRig));
  files.put("/rigs/q/a.txt", "copied\r\n");
  files.put("/rigs/q/old.dat", "x");
  files.put("/rigs/q/rec/STATUS.HDW", "CAPTURED\r\n");
  files.put("/rigs/q/rec/chn0.bin", "zero\r\n");
  files.put("/rigs/q/calc.ccs",
            "[CALCULATED CHANNELS]\r\n[CHANNEL]\r\nTYPE=SCALE\r\nSOURCE=HEATER\r\nNEWNAME=OUT\r\n"
            "PARAM1=2\r\n[END CHANNEL]\r\n");
  ASSERT_TRUE(writeTextFileAtomically(
      files, "/rigs/q/next.wts",
      {"COPYFILE q:\\a.txt, q:\\b.txt", "LOGONCE q:\\log.txt, chained", "FILEDELETE q:\\old.dat",
       "WAIT580 q:\\rec", "INDEXINIT q:\\idx\\save.idx, q:\\save\\T???\\, 50",
       "INDEXSAVE580 q:\\rec, bin", "STARTCALCULATEDCHANNELS q:\\calc.ccs, 1"},
      nullptr));
  ASSERT_TRUE(writeTextFileAtomically(files, "/data/main.wts",
                                      {"IMSFILESPEC q:\\rig.ims", "CHAIN q:\\next.wts"}, nullptr));
  EXPECT_EQ(e.Run("/data/main.wts"), "");
  EXPECT_TRUE(e.op().messages.empty()) << e.op().messages.front();

  EXPECT_EQ(e.read("/rigs/q/b.txt"), "copied\r\n");                               // COPYFILE
  EXPECT_NE(e.read("/rigs/q/log.txt").find("\tchained\r\n"), std::string::npos);  // LOGONCE
  EXPECT_FALSE(files.isFile("/rigs/q/old.dat"));                                  // FILEDELETE
  EXPECT_TRUE(files.isFile("/rigs/q/idx/save.idx"));                              // INDEXINIT
  EXPECT_EQ(e.read("/rigs/q/save/T001/chn0.bin"), "zero\r\n");                    // INDEXSAVE580
  ASSERT_NE(e.engine().calcChannels(), nullptr);
  EXPECT_EQ(e.engine().calcChannels()->state().table.back().newName,
            "OUT");  // STARTCALCULATEDCHANNELS
  // Nothing went below the data root's own folder of drive Q.
  for (const auto& [path, bytes] : files.files()) {
    EXPECT_NE(path.rfind("/data/q/", 0), 0u) << path;
  }
}

// A sequence file written in the Windows-1252 code page, as such files
// usually are: the trace holds its text as UTF-8, and every line parses.
TEST(EngineFiles, TheTraceIsUtf8JsonWhateverTheSequenceFileHolds) {
  EngineFiles e;
  MemoryFileSystem& files = e.files();
  auto trace = files.create("/data/trace.jsonl", nullptr);
  ASSERT_NE(trace, nullptr);
  e.engine().trace().setOutput(std::move(trace));
  // "25 °C – 3 €" in Windows-1252, a byte no code page assigns (0x81), a
  // control character, and text that already is UTF-8 ("é").
  files.put("/data/cp.wts",
            "' 25 \xB0"
            "C \x96 3 \x80 \x81 \x01 \xC3\xA9\r\nSTOP\r\n");
  EXPECT_EQ(e.Run("/data/cp.wts"), "");
  e.engine().trace().setOutput(nullptr);

  const std::string text = e.read("/data/trace.jsonl");
  std::vector<std::string> texts;
  size_t lines = 0;
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    const std::string line = text.substr(start, end - start);
    ++lines;
    const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
    ASSERT_FALSE(event.is_discarded()) << line;
    if (event.value("ev", "") == "line") texts.push_back(event.value("text", ""));
  }
  EXPECT_GE(lines, 2u);
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.front(), "' 25 \u00B0C \u2013 3 \u20AC \u0081 \u0001 \u00E9");
}

}  // namespace
}  // namespace tavrix
