// The keyword table as a whole: what the engine binds, what lint checks
// with, and what the command reference lists are one and the same.

#include "engine/keyword_catalogue.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "engine/engine.h"
#include "sequencer/dispatcher.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"

namespace tavrix {
namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(KeywordTableTest, EveryKeywordIsBoundOnceHasAParseAndIsInTheReference) {
  RecordingOperator op;
  EngineConfig config;
  config.clock = std::make_unique<VirtualClock>(0);
  config.files = std::make_unique<MemoryFileSystem>("/data");
  config.op = &op;
  config.link = "sim";
  const auto built = BuildEngine(std::move(config));
  ASSERT_NE(built, nullptr);
  Engine& engine = *built;

  const Dispatcher& dispatcher = engine.sequencer().dispatcher();
  std::map<std::string, std::string> bound;  // name -> family
  for (const auto& entry : dispatcher.entries()) {
    EXPECT_TRUE(bound.emplace(entry.name, entry.family).second) << entry.name << " is bound twice";
  }
  // Every keyword of the table of 66 has its handler, and lint knows exactly
  // the keywords the engine binds, with the same families.
  for (std::string_view keyword : kKeywords) {
    EXPECT_TRUE(dispatcher.hasHandler(keyword)) << keyword;
  }
  std::map<std::string, std::string> catalogued;
  for (const auto& entry : KeywordCatalogue()) catalogued.emplace(entry.name, entry.family);
  EXPECT_EQ(bound, catalogued);
  EXPECT_EQ(bound.size(), kKeywordCount + 2);  // the 66 and the two of load maintenance

  const std::string reference = ReadAll(TAVRIX_SOURCE_DIR "/docs/commands.md");
  for (const auto& entry : KeywordCatalogue()) {
    ASSERT_TRUE(entry.check) << entry.name;
    EXPECT_TRUE(std::filesystem::exists(std::string(TAVRIX_SOURCE_DIR "/") + entry.family))
        << entry.family;
    // Its row in the reference names the keyword and its family file.
    const std::string row =
        entry.name + " | `" + entry.family.substr(entry.family.find('/') + 1) + "` |";
    EXPECT_NE(reference.find(row), std::string::npos) << row;
  }
}

}  // namespace
}  // namespace tavrix
