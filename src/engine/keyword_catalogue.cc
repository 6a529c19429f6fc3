#include "engine/keyword_catalogue.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include "calcchan/calc_commands.h"
#include "indexing/indexing_commands.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/outputs/alarms.h"
#include "instrument/outputs/load_maintenance.h"
#include "instrument/outputs/pulse_sine.h"
#include "instrument/outputs/ramps.h"
#include "sequencer/core_commands.h"
#include "testdb/test_database.h"

namespace tavrix {

namespace {

std::vector<KeywordEntry> Collect() {
  std::vector<KeywordEntry> all = SequencerKeywords();
  for (auto family :
       {IndexingKeywords, TestDatabaseKeywords, InstrumentKeywords, RampKeywords, PulseSineKeywords,
        AlarmKeywords, LoadMaintenanceKeywords, CalcChannelKeywords}) {
    for (auto& entry : family()) all.push_back(std::move(entry));
  }
  std::set<std::string, std::less<>> names;
  for (const auto& entry : all) {
    if (!names.insert(entry.name).second)
      throw std::logic_error("keyword " + entry.name + " is given twice");
  }
  return all;
}

}  // namespace

const std::vector<KeywordEntry>& KeywordCatalogue() {
  static const std::vector<KeywordEntry> catalogue = Collect();
  return catalogue;
}

const KeywordEntry* FindKeyword(std::string_view name) {
  const auto& all = KeywordCatalogue();
  const auto it =
      std::find_if(all.begin(), all.end(), [&](const KeywordEntry& e) { return e.name == name; });
  return it == all.end() ? nullptr : &*it;
}

}  // namespace tavrix
