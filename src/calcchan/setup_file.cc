#include "calcchan/setup_file.h"

#include "common/checked_numbers.h"
#include "common/text_conventions.h"
#include "common/text_items.h"

namespace tavrix {
namespace {

constexpr Micros kMicrosPerMinute = 60 * kMicrosPerSecond;

std::string cr(std::string_view head, std::string_view tail) {
  return std::string(head) + "\r" + std::string(tail);
}

// Clears a row's counters as a finished block and CC_CHANGELOGGERS leave them.
void clearCounters(CalcChannel& row, Micros now) {
  row.counter = 0;
  row.armed = row.type != calc_type::kCremAvg;
  row.total = 0;
  row.periodResult = 0;
  row.dueTime = now;
  row.flags = 0;
  row.passes = 0;
}

// Reads on to the next line that starts a block; false at the end of the
// file.
bool nextBlockStart(TextItemReader& reader, std::string& item) {
  while (reader.next(item)) {
    if (upperCase(item).find(kCalcBlockStart) != std::string::npos) return true;
  }
  return false;
}

// One KEY=value line of the block being read, into its row (the last of
// the table); comments and the block's end line change nothing. False, with
// the message shown, for a line that is not KEY=value.
bool applyBlockEntry(const std::string& item, CalcState& state, const CalcPorts& ports) {
  CalcChannel& row = state.table.back();
  const std::string upper = upperCase(item);
  if (upper.compare(0, kCalcComment.size(), kCalcComment) == 0 || upper == kCalcBlockEnd)
    return true;
  const size_t eq = item.find('=');
  if (eq == std::string::npos) {
    ports.showMessage(cr(kTextInvalidEntry, item));
    return false;
  }
  const std::string key = upperCase(std::string_view(item).substr(0, eq + 1));
  const std::string value(trim(std::string_view(item).substr(eq + 1)));
  if (key == kKeyType) {
    row.type = upperCase(value);
  } else if (key == kKeySource) {
    row.source = value;
  } else if (key == kKeyNewName) {
    row.newName = value;
  } else if (key == kKeyParam1) {
    row.param1 = value;
  } else if (key == kKeyParam2) {
    row.param2 = value;
  }
  if (row.type == calc_type::kLoggerOnOff) {
    if (!row.param1.empty()) state.summaryFolderA = row.param1;
    if (!row.param2.empty()) state.summaryFolderB = row.param2;
    if (!row.newName.empty()) state.summaryPrefix = row.newName;
  } else if (row.type == calc_type::kAverage || row.type == calc_type::kDaily || row.type.empty()) {
    // Deliberately also for a block whose first key line is not TYPE=.
    state.dailyTrackingWanted = true;
  }
  return true;
}

// The block just read (the last row of the table) is complete: its counters
// start cleared and an average gets its first due time; a block of a type
// this program does not know is shown and dropped. False when an average's
// period does not fit the clock, an error while loading.
bool finishBlock(CalcState& state, const CalcPorts& ports, Micros now) {
  CalcChannel& row = state.table.back();
  clearCounters(row, now);
  if (row.type == calc_type::kAverage) {
    const auto period = checkedMicros(60 * leadingNumber(row.param1) * kMicrosPerMinute);
    if (!period) return false;
    row.dueTime = now + *period;
  } else if (!IsCalcChannelType(row.type)) {
    ports.showMessage(cr(kTextUnrecognisedType, row.type));
    state.table.pop_back();
  }
  return true;
}

}  // namespace

std::string SummaryPrefixOf(std::string_view fileSpec) {
  const size_t slash = fileSpec.find_last_of("\\/");
  const std::string_view name =
      slash == std::string_view::npos ? fileSpec : fileSpec.substr(slash + 1);
  return std::string(name.substr(0, 2));
}

std::string WithoutTrailingSeparator(std::string_view folder) {
  if (!folder.empty() && (folder.back() == '\\' || folder.back() == '/')) folder.remove_suffix(1);
  return std::string(folder);
}

bool LoadCalcChannelSetup(std::string_view fileSpec, CalcState& state, const CalcPorts& ports,
                          Micros now) {
  state.summaryFolderA = WithoutTrailingSeparator(ports.dataFolder ? ports.dataFolder() : "");
  state.summaryFolderB = WithoutTrailingSeparator(ports.summaryFolder ? ports.summaryFolder() : "");
  state.summaryPrefix = SummaryPrefixOf(fileSpec);
  state.dailyTrackingWanted = false;
  const std::string resolved =
      ports.resolvePath ? ports.resolvePath(fileSpec) : std::string(fileSpec);

  auto failed = [&] {
    ports.showMessage(cr(kTextCannotProcessSetup, resolved));
    return false;
  };

  TextItemReader reader("");
  if (!TextItemReader::open(ports.fileSystem(), resolved, reader, nullptr)) return failed();
  state.table.assign(1, CalcChannel{});

  std::string item;
  for (;;) {
    if (!reader.next(item)) return failed();
    if (upperCase(item).find(kCalcHeader) != std::string::npos) break;
  }

  while (!reader.atEnd()) {
    if (!nextBlockStart(reader, item)) break;
    state.table.emplace_back();
    for (;;) {
      if (upperCase(item) == kCalcBlockEnd) {
        if (!finishBlock(state, ports, now)) return failed();
        break;
      }
      if (!reader.next(item)) return failed();
      if (!applyBlockEntry(item, state, ports)) return failed();
    }
  }

  state.loadDate = now;
  state.firstPassPending = true;
  state.setupLoaded = true;
  state.ticksRemaining = state.evaluationTickCount;
  state.loadStarted = true;
  state.dayList.clear();
  state.loggingSwitch = -1;
  return true;
}

}  // namespace tavrix
