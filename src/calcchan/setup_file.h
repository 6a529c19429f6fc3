// The calculated channel setup file and its loader. The file is read item by
// item (a comma or a line end ends an item; double quotes keep commas and
// blanks): anything before the "[CALCULATED CHANNELS]" header is ignored, then
// each "[CHANNEL]" ... "[END CHANNEL]" block is one row:
//
//   [CALCULATED CHANNELS]
//   [CHANNEL]
//   TYPE=AVERAGE
//   SOURCE=T1
//   NEWNAME=T1AVG
//   PARAM1=1
//   [END CHANNEL]
//
// The file format is described in docs/calculated-channels.md.
#pragma once

#include <string_view>

#include "calcchan/calc_ports.h"
#include "calcchan/calc_table.h"

namespace tavrix {

inline constexpr std::string_view kCalcHeader = "[CALCULATED CHANNELS]";
inline constexpr std::string_view kCalcBlockStart = "[CHANNEL]";
inline constexpr std::string_view kCalcBlockEnd = "[END CHANNEL]";
inline constexpr std::string_view kCalcComment = "REM";
inline constexpr std::string_view kKeyType = "TYPE=";
inline constexpr std::string_view kKeySource = "SOURCE=";
inline constexpr std::string_view kKeyNewName = "NEWNAME=";
inline constexpr std::string_view kKeyParam1 = "PARAM1=";
inline constexpr std::string_view kKeyParam2 = "PARAM2=";

inline constexpr std::string_view kTextUnrecognisedType = "Calculated Channel - Unrecognised type:";
inline constexpr std::string_view kTextInvalidEntry = "Invalid Calculated Channel file entry:";
inline constexpr std::string_view kTextCannotProcessSetup =
    "Unable to find or process calculated channel setup file:";

// Reads the setup file `fileSpec` (as written in a sequence) into `state`:
// the table, the summary prefix and folders, the daily tracking flag, and on
// success LoadDate (`now`), FirstPassPending, SetupLoaded and TicksRemaining.
// Every problem is shown through ports.showMessage. Returns false when the
// file could not be read to its end; the rows read so far then stay.
bool LoadCalcChannelSetup(std::string_view fileSpec, CalcState& state, const CalcPorts& ports,
                          Micros now);

// The summary prefix that a setup file's name gives: the two characters after
// its last folder separator.
std::string SummaryPrefixOf(std::string_view fileSpec);

// Removes one trailing "\" (or "/").
std::string WithoutTrailingSeparator(std::string_view folder);

}  // namespace tavrix
