#include "instrument/link/instrument_settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "common/paths.h"
#include "platform/files.h"
#include "testing/memory_file_system.h"

namespace tavrix {
namespace {

TEST(InstrumentSettings, ReadFromAKeyValueFile) {
  InstrumentSettings settings;
  std::string error;
  ASSERT_TRUE(
      ParseInstrumentSettings("# rig computer 3\r\n"
                              "no_hardware = yes\n"
                              "use_reply_timeout = 0\n"
                              "reply_timeout_secs = 30\n"
                              "check_channel = TEMP1\n"
                              "data_root = d:\\rigdata\n"
                              "drive.C = /srv/corvane\n"
                              "  ; a comment\n"
                              "reply_poll_ms = 5\n"
                              "wait_poll_ms = 250\n",
                              "rig.cfg", settings, &error))
      << error;
  EXPECT_TRUE(settings.noHardware);
  EXPECT_FALSE(settings.useReplyTimeout);
  EXPECT_EQ(settings.replyTimeoutSecs, 30);
  EXPECT_EQ(settings.checkChannel, "TEMP1");
  EXPECT_EQ(settings.dataRoot, "d:\\rigdata");
  EXPECT_EQ(settings.driveMap.at('c'), "/srv/corvane");
  EXPECT_EQ(settings.replyPollInterval, 5'000);
  EXPECT_EQ(settings.waitPollInterval, 250'000);

  const std::pair<std::string_view, std::string_view> bad[] = {
      {"\nno_hardware = maybe\n", "rig.cfg line 2: no_hardware takes 0 or 1"},
      {"reply_timeout_secs = -1\n",
       "rig.cfg line 1: reply_timeout_secs takes whole seconds 0-32767"},
      {"reply_timeout_secs = 40000\n",
       "rig.cfg line 1: reply_timeout_secs takes whole seconds 0-32767"},
      {"wait_poll_ms = 0\n", "rig.cfg line 1: wait_poll_ms takes milliseconds 1-60000"},
      {"speed = 3\n", "rig.cfg line 1: unknown setting \"speed\""},
      {"drive.cd = /x\n", "rig.cfg line 1: unknown setting \"drive.cd\""},
      {"just words\n", "rig.cfg line 1: expected \"key = value\""},
  };
  for (const auto& [text, message] : bad) {
    EXPECT_FALSE(ParseInstrumentSettings(text, "rig.cfg", settings, &error)) << text;
    EXPECT_EQ(error, message);
  }
  MemoryFileSystem files;
  EXPECT_FALSE(LoadInstrumentSettings(files, "/nonexistent/rig.cfg", settings, &error));
  EXPECT_EQ(error.rfind("cannot read the settings file /nonexistent/rig.cfg: ", 0), 0u) << error;
  const std::string path = "/data/instrument.cfg";
  files.put(path, "check_channel = P1\n");
  ASSERT_TRUE(LoadInstrumentSettings(files, path, settings, &error));
  EXPECT_EQ(settings.checkChannel, "P1");
}

TEST(InstrumentSettings, WindowsPathsAreMappedThroughTheDriveMap) {
  InstrumentSettings settings;
  settings.driveMap['c'] = "/srv/corvane/";
  const PathMap map = MakePathMap("/home/op/.tavrix", settings);
  EXPECT_EQ(map.toLocal("c:\\corvane\\setups\\rig.ims"), "/srv/corvane/corvane/setups/rig.ims");
  EXPECT_EQ(map.toLocal("C:rig.ims"), "/srv/corvane/rig.ims");
  // An unmapped drive: the real drive on Windows, a folder under the data
  // root elsewhere.
  EXPECT_EQ(map.toLocal("d:\\x\\y.ims"),
            platform::hasDriveLetters() ? "d:/x/y.ims" : "/home/op/.tavrix/d/x/y.ims");
  EXPECT_EQ(map.toLocal("setups\\rig.ims"), "setups/rig.ims");
  EXPECT_EQ(map.toLocal("/home/rig/rig.ims"), "/home/rig/rig.ims");
}

}  // namespace
}  // namespace tavrix
