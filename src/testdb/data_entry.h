// The data-entry window's logic: the values that label a UUT's results, as
// the operator accepts them. Headless, the window is one question of kind
// DATAENTRY with the choices Accept and Cancel; its answer carries the
// fields after the choice:
//   Accept|serial=1234|date=15-11-2026|operator=Ann Lee|description=Pump A
// Fields come in any order; a missing date is today's, other missing fields
// are empty.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/civil_time.h"

namespace tavrix {

inline constexpr std::string_view kDataEntryKind = "DATAENTRY";
inline constexpr std::string_view kDataEntryTitle = "Data Entry";
inline constexpr std::string_view kDateLabel = "Test Date: (dd-mm-yyyy)";
inline constexpr std::string_view kAccept = "Accept";
inline constexpr std::string_view kCancel = "Cancel";
inline constexpr std::string_view kMsgInvalidDate =
    "You have not entered a valid date for the test date";
inline constexpr std::string_view kMsgUnknownField = "Unknown data entry field: ";

struct DataEntry {
  std::string serialNumber;  // as entered
  Micros testDate = 0;       // midnight of the entered date
  std::string operators;     // leading and trailing blanks removed
  std::string description;   // as entered
};

// A date typed as day, month and year: "15-11-2026" (also with "/" or "."
// between, and a two-digit year meaning 20yy below 30 and 19yy otherwise).
// std::nullopt when it is no date of the calendar ("31-02-2026").
std::optional<Micros> ParseEntryDate(std::string_view text);

// The outcome of one answer to the data-entry question.
struct DataEntryAnswer {
  bool accepted = false;   // Accept with valid fields
  bool cancelled = false;  // Cancel
  std::string message;     // Accept refused: the message to show
  DataEntry entry;
};

// Reads an answer; `today` is the date a missing date field takes.
DataEntryAnswer ParseDataEntryAnswer(std::string_view answer, Micros today);

}  // namespace tavrix
