// Alarms. The acquisition devices evaluate their alarm conditions
// themselves; the sequencer asks every present device which are active.
//
//   WAITALARM name        hold until an active alarm's name contains the name
//                         (case-blind)
//   WAITNOALARM           hold until no alarm is active
//   ALARMDEFINE name, command
//                         when an alarm whose name contains `name` is found
//                         active between two lines, run `command` next;
//                         a name defined again gets the new command
//   ALARMDEFINE name      removes the definition of that name
//   ALARMDEFINE           removes every definition
//   PAUSEALARM [ON]       stops checking the definitions (they are kept)
//   PAUSEALARM OFF        checks them again
//   PAUSEALARM seconds    stops checking them for that many seconds
//
// The waits poll the devices every waitPollInterval of the instrument
// settings and end on Stop, a jump or the sequence time-out. The definitions
// are checked by the run loop before each line of the file while any exist,
// shown in the operator port's alarm lists, and cleared when a sequence file
// is prepared.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Instrument;
class Sequencer;

inline constexpr std::string_view kAlarmCountCommand = "ALA T";
inline constexpr std::string_view kAlarmNamesCommand = "ALA N";
inline constexpr std::string_view kTextWaitAlarmNoName = "WaitAlarm - an alarm name is needed";

// The names of the active alarms of every present device, joined with ", "
// in device order; empty when none, or when a poll fails. A present device
// without an active alarm adds an empty name.
std::string GetActiveAlarms(Instrument& instrument);

// Whether any name of an active-alarm list contains `wanted` (case-blind).
bool AlarmListContains(std::string_view activeList, std::string_view wanted);

struct AlarmDefinition {
  std::string name;
  std::string command;
};

// The command bound to the first active name that a definition matches
// (upper-cased, trailing blanks removed), or std::nullopt.
std::optional<std::string> MatchAlarmDefinitions(std::string_view activeList,
                                                 const std::vector<AlarmDefinition>& definitions);

// "Invalid parameter - " + text + " - for a PauseAlarm statement".
std::string PauseAlarmError(std::string_view text);

std::vector<KeywordEntry> AlarmKeywords();
// Registers WAITALARM, WAITNOALARM, ALARMDEFINE and PAUSEALARM and the check
// of the definitions between lines.
void RegisterAlarmCommands(Sequencer& seq, Instrument& instrument);

}  // namespace tavrix
