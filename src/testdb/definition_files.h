// Test definition files: the details file of a test, and the field names and
// stage checks files that it names. All three are TAB-separated text; each is
// read from its section header line on, and the first line after the header
// must carry the column titles.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_system.h"
#include "common/paths.h"

namespace tavrix {

// Section headers and column titles, found by substring search on the
// upper-cased line.
inline constexpr std::string_view kDetailsHeader = "TEST SEQUENCE - DETAILS";
inline constexpr std::string_view kDetailsColumns = "TITLE";
inline constexpr std::string_view kFieldNamesHeader = "TEST SEQUENCE - FIELD NAMES";
inline constexpr std::string_view kFieldNamesColumns = "FIELD NAME";
inline constexpr std::string_view kStagesHeader = "TEST SEQUENCE - STAGE CHECKS";
inline constexpr std::string_view kStagesColumns = "STEP NUMBER";

// Header faults. The field names file's fault uses the details file's text on
// purpose: both are "not in the expected place in details file".
inline constexpr std::string_view kMsgDetailsColumns =
    "Column titles not in the expected place in details file: ";
inline constexpr std::string_view kMsgStagesColumns =
    "Column titles not in the expected place in Stages file: ";
// A data row too short to hold the fields that must be read (or a file that
// cannot be read at all).
inline constexpr std::string_view kMsgShortRow = "Too few fields in line ";
inline constexpr std::string_view kMsgCannotRead = "Cannot read test definition file: ";
inline constexpr std::string_view kMsgNoDetailsRow = "No test details row in details file: ";
// A stage row whose step number is out of the 16-bit range.
inline constexpr std::string_view kMsgBadStep = "Step number out of range in line ";

// Splits a line at every TAB. Element 0 is always empty and unused, so the
// fields are numbered from 1; a line without TABs is one field.
std::vector<std::string> SplitTabFields(std::string_view line);

struct TestDetails {
  std::string title;
  std::string versionText = "-1";
  float version = -1;
  std::string fieldNamesFile;
  std::string stageChecksFile;
  std::string resultsDirectory;  // as written, always ending in "\"
};

struct FieldName {
  std::string name;
  bool firstFlag = false;
  bool secondFlag = false;
  std::string text4;
  std::string text5;  // kept only when the second flag is set
  int16_t counter = 0;
};

struct StageCheck {
  int16_t step = 0;
  std::string type;
  std::string channel;
  std::string secondChannel;
  float lower = 0;
  float upper = 0;
  std::string text7;  // the check's name
  std::string text8;  // the units of its value
  std::string text9;  // what the operator is asked or told
};

struct TestDefinition {
  TestDetails details;
  std::vector<FieldName> fieldNames;
  std::vector<StageCheck> stageChecks;
};

struct DefinitionReadOptions {
  // Maps the paths written in the files (and the details path) to local ones.
  const PathMap* paths = nullptr;
  // The door to the files (required).
  const FileSystem* files = nullptr;
  // The folder a details row without a results directory uses, as the Windows
  // form the results writer expects (it gets a "\" appended).
  std::string currentDirectory;
  // The message (acknowledged, no title) of a header fault.
  std::function<void(const std::string&)> showMessage;
};

// Reads the details file, then the field names and stage checks files of the
// row with the highest version. Returns false after a fault; the fault's
// message box has then been shown and tables read before it stay as read.
bool ReadTestDefinitionFiles(const std::string& detailsPath, const DefinitionReadOptions& options,
                             TestDefinition& definition);

}  // namespace tavrix
