// Results files: one summary file per test title and day that gains an entry
// per UUT, and one details file per UUT test. The text layout is appended to;
// the XML layout is rewritten whole through a temporary file so that its
// closing tag stays last. Neither ever loses an earlier UUT's entry.
#pragma once

#include <string>
#include <string_view>

#include "common/civil_time.h"
#include "common/paths.h"
#include "testdb/definition_files.h"
#include "testdb/uut_record.h"

namespace tavrix {

inline constexpr std::string_view kResultsXml = ".xml";
inline constexpr std::string_view kResultsText = ".txt";

// Where and how WriteTestResults writes.
struct ResultsSettings {
  // The results-writing switch: off, nothing is written.
  bool writeResults = true;
  // Selects the XML layout instead of the text layout.
  bool xmlLayout = false;
  // The results directory used when the details give an empty one (Windows
  // form; a "\" is appended when missing).
  std::string dataDirectory;
};

// The results extension the writer uses: ".xml" is set first and then, on
// the next statement, ".txt" - so the text layout is written unless the XML
// layout is selected.
std::string ResultsExtension(const ResultsSettings& settings);

// The names built for one UUT written at `now` (Windows form, "\" separated).
struct ResultsNames {
  std::string directory;         // ends in "\"
  std::string summary;           // directory + title_yymmdd + ext
  std::string details;           // directory + SN_serial_yymmdd_hhmmss + ext
  std::string detailsReference;  // SNserial_yymmdd + ext (deliberately unlike `details`)
};
ResultsNames BuildResultsNames(const TestDetails& details, const UutRecord& uut,
                               const ResultsSettings& settings, Micros now);

// Writes the summary file and then the details file of `uut`. Returns false
// with a message naming the file when one cannot be written; what was
// written before stays whole, and when the details cannot be written the
// summary is put back as it was, so that a UUT's two records stay a pair.
bool WriteTestResults(FileSystem& files, const TestDetails& details, const UutRecord& uut,
                      const ResultsSettings& settings, const PathMap& paths, Micros now,
                      std::string* error);

}  // namespace tavrix
