#include "testdb/definition_files.h"

#include "common/text_conventions.h"
#include "common/text_items.h"

namespace tavrix {

namespace {

// Lines of a definition file from the line after its section header; empty
// (and `found` false) when the file has no header.
struct Section {
  bool found = false;
  std::vector<std::string> lines;  // the column titles line first
  size_t firstLineNumber = 0;      // file line number of lines[0], from 1
};

Section FindSection(const std::vector<std::string>& lines, std::string_view header) {
  Section section;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (upperCase(lines[i]).find(header) == std::string::npos) continue;
    section.found = true;
    section.lines.assign(lines.begin() + static_cast<std::ptrdiff_t>(i) + 1, lines.end());
    section.firstLineNumber = i + 2;
    break;
  }
  return section;
}

std::string Field(const std::vector<std::string>& fields, size_t n) {
  return n < fields.size() ? fields[n] : std::string();
}

bool IsBlank(std::string_view line) { return trim(line).empty(); }

class Reader {
 public:
  Reader(const DefinitionReadOptions& options) : options_(options) {}

  bool fault(const std::string& text) {
    if (options_.showMessage) options_.showMessage(text);
    return false;
  }

  std::string local(const std::string& path) const {
    return options_.paths ? options_.paths->toLocal(path) : path;
  }

  // Reads `path` and finds its section. False after a fault.
  bool section(const std::string& path, std::string_view header, std::string_view columns,
               std::string_view columnsMessage, Section& out) {
    std::vector<std::string> lines;
    std::string error;
    if (!readTextLines(*options_.files, local(path), lines, &error)) {
      return fault(std::string(kMsgCannotRead) + path + " (" + error + ")");
    }
    out = FindSection(lines, header);
    if (!out.found) return true;
    if (out.lines.empty() || upperCase(out.lines.front()).find(columns) == std::string::npos) {
      return fault(std::string(columnsMessage) + path);
    }
    return true;
  }

  bool shortRow(size_t lineNumber, const std::string& path) {
    return fault(std::string(kMsgShortRow) + std::to_string(lineNumber) + " of " + path);
  }

 private:
  const DefinitionReadOptions& options_;
};

}  // namespace

std::vector<std::string> SplitTabFields(std::string_view line) {
  std::vector<std::string> fields(1);
  size_t start = 0;
  for (;;) {
    const size_t tab = line.find('\t', start);
    if (tab == std::string_view::npos) {
      fields.emplace_back(line.substr(start));
      return fields;
    }
    fields.emplace_back(line.substr(start, tab - start));
    start = tab + 1;
  }
}

namespace {

// The details file: of its rows, the one with the highest version.
bool ReadDetails(Reader& reader, const std::string& detailsPath,
                 const DefinitionReadOptions& options, TestDefinition& definition) {
  Section details;
  if (!reader.section(detailsPath, kDetailsHeader, kDetailsColumns, kMsgDetailsColumns, details)) {
    return false;
  }
  bool chosen = false;
  for (size_t i = 1; i < details.lines.size(); ++i) {
    const std::string& line = details.lines[i];
    if (IsBlank(line)) continue;
    const auto fields = SplitTabFields(line);
    // The row must name both other files.
    if (fields.size() < 7) return reader.shortRow(details.firstLineNumber + i, detailsPath);
    const float version = static_cast<float>(leadingNumber(fields[3]));
    if (!(version > definition.details.version)) continue;
    TestDetails& d = definition.details;
    d.title = fields[1];
    d.versionText = fields[3];
    d.version = version;
    d.fieldNamesFile = fields[5];
    d.stageChecksFile = fields[6];
    if (fields.size() > 7) {
      d.resultsDirectory = fields[7];
    } else {
      d.resultsDirectory = options.currentDirectory;
    }
    // An empty directory stays empty: the results writer then uses the data
    // directory.
    if (!d.resultsDirectory.empty() && d.resultsDirectory.back() != '\\') {
      d.resultsDirectory += '\\';
    }
    chosen = true;
  }
  if (!chosen) {
    return reader.fault(std::string(kMsgNoDetailsRow) + detailsPath);
  }
  return true;
}

bool ReadFieldNames(Reader& reader, TestDefinition& definition) {
  const std::string fieldNamesPath = definition.details.fieldNamesFile;
  Section names;
  if (!reader.section(fieldNamesPath, kFieldNamesHeader, kFieldNamesColumns, kMsgDetailsColumns,
                      names)) {
    return false;
  }
  for (size_t i = 1; i < names.lines.size(); ++i) {
    if (IsBlank(names.lines[i])) continue;
    const auto fields = SplitTabFields(names.lines[i]);
    FieldName record;
    record.name = fields[1];
    record.firstFlag = upperCase(Field(fields, 2)) == "TRUE";
    record.secondFlag = upperCase(Field(fields, 3)) == "TRUE";
    record.text4 = Field(fields, 4);
    if (record.secondFlag) record.text5 = Field(fields, 5);
    definition.fieldNames.push_back(std::move(record));
  }
  return true;
}

bool ReadStageChecks(Reader& reader, TestDefinition& definition) {
  const std::string stagesPath = definition.details.stageChecksFile;
  Section stages;
  if (!reader.section(stagesPath, kStagesHeader, kStagesColumns, kMsgStagesColumns, stages)) {
    return false;
  }
  for (size_t i = 1; i < stages.lines.size(); ++i) {
    if (IsBlank(stages.lines[i])) continue;
    const auto fields = SplitTabFields(stages.lines[i]);
    // A row must at least say its step and its type.
    if (fields.size() < 3) return reader.shortRow(stages.firstLineNumber + i, stagesPath);
    StageCheck row;
    const auto step = roundToInt16(leadingNumber(fields[1]));
    if (!step) {
      return reader.fault(std::string(kMsgBadStep) + std::to_string(stages.firstLineNumber + i) +
                          " of " + stagesPath);
    }
    row.step = *step;
    row.type = fields[2];
    row.channel = Field(fields, 3);
    row.secondChannel = Field(fields, 4);
    row.lower = static_cast<float>(leadingNumber(Field(fields, 5)));
    row.upper = static_cast<float>(leadingNumber(Field(fields, 6)));
    row.text7 = Field(fields, 7);
    row.text8 = Field(fields, 8);
    row.text9 = Field(fields, 9);
    definition.stageChecks.push_back(std::move(row));
  }
  return true;
}

}  // namespace

bool ReadTestDefinitionFiles(const std::string& detailsPath, const DefinitionReadOptions& options,
                             TestDefinition& definition) {
  Reader reader(options);
  return ReadDetails(reader, detailsPath, options, definition) &&
         ReadFieldNames(reader, definition) && ReadStageChecks(reader, definition);
}

}  // namespace tavrix
