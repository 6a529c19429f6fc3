#include "testdb/results_files.h"

#include <vector>

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/text_items.h"
#include "platform/files.h"

namespace tavrix {

namespace {

constexpr char kTab = '\t';

std::string StageText(int16_t stage) { return formatNumber(stage, "0"); }

std::string WithBackslash(std::string dir) {
  if (dir.empty() || dir.back() != '\\') dir += '\\';
  return dir;
}

// The file name as a directory look-up returns it: no folder.
std::string BareName(const std::string& localPath) {
  const size_t slash = localPath.rfind('/');
  return slash == std::string::npos ? localPath : localPath.substr(slash + 1);
}

// Lines of an existing XML file without those holding `closingTag`; the
// opening line when the file does not exist. False when it cannot be read.
bool KeptXmlLines(FileSystem& files, const std::string& localPath, std::string_view closingTag,
                  const std::string& opening, std::vector<std::string>& kept, std::string* error) {
  if (!files.isFile(localPath)) {
    kept = {opening};
    return true;
  }
  std::vector<std::string> lines;
  if (!readTextLines(files, localPath, lines, error)) return false;
  for (auto& line : lines) {
    if (line.find(closingTag) == std::string::npos) kept.push_back(std::move(line));
  }
  return true;
}

bool WriteTextSummary(FileSystem& files, const TestDetails& details, const UutRecord& uut,
                      const ResultsNames& names, const std::string& local, Micros now,
                      std::string* error) {
  std::vector<std::string> lines;
  std::string start;
  if (!files.isFile(local)) {
    lines.push_back("Test_Results");
    lines.push_back("Test_Name: " + details.title);
    lines.push_back("Date: " + formatDate(now, "dd-mm-yyyy"));
    lines.push_back("Serial_Number\tResult\tDetails\tFailures");
    lines.push_back(std::string(13, ' ') + kTab + std::string(6, ' ') + kTab + std::string(7, ' ') +
                    "\tStage\tTest Item\tValue\tMessage");
  } else {
    // The look-up's answer stays at the start of the appended text.
    start = BareName(local);
  }
  lines.push_back(start + uut.serialNumber + kTab + (uut.passed ? "PASS" : "FAIL") + kTab +
                  names.detailsReference);
  if (!uut.passed) {
    for (const auto& f : uut.failures) {
      lines.push_back(std::string(17, ' ') + kTab + std::string(6, ' ') + kTab +
                      std::string(7, ' ') + kTab + StageText(f.stage) + kTab + f.parameter + kTab +
                      f.value + kTab + f.message);
    }
  }
  return appendLines(files, local, lines, error);
}

bool WriteTextDetails(FileSystem& files, const TestDetails& details, const UutRecord& uut,
                      const ResultsNames& names, const std::string& local, Micros now,
                      std::string* error) {
  std::vector<std::string> lines;
  if (!files.isFile(local)) lines.push_back("Test_Details Date=" + formatDate(now, "dd-mm-yyyy"));
  lines.push_back("Test");
  lines.push_back("Title: " + details.title);
  lines.push_back("Version: " + details.versionText);
  lines.push_back("Results file: " + names.details);
  lines.push_back("UUT");
  lines.push_back("Serial_Number: " + uut.serialNumber);
  lines.push_back("Description: " + uut.description);
  lines.push_back("Operator(s): " + uut.operators);
  lines.push_back(std::string("Result: ") + (uut.passed ? "PASS" : "FAIL"));
  lines.push_back("Test_Data");
  lines.push_back("Stage\tParameter\tChannel\tValue\tUnits\tLower\tUpper\tResult");
  for (const auto& c : uut.checks) {
    std::string line = StageText(c.stage) + kTab + c.parameter + kTab + c.channel + kTab + c.value +
                       kTab + c.units + kTab + c.lower + kTab + c.upper + kTab;
    line += c.passed ? std::string("Pass") : "Fail" + std::string(1, kTab) + c.failureText;
    lines.push_back(std::move(line));
  }
  for (const auto& note : uut.resumeNotes) lines.push_back("Resumed: " + note);
  return appendLines(files, local, lines, error);
}

bool WriteXmlSummary(FileSystem& files, const TestDetails& details, const UutRecord& uut,
                     const std::string& local, Micros now, std::string* error) {
  std::vector<std::string> lines;
  const std::string opening = "<Test_Results Test_Name='" + details.title + "' Date='" +
                              formatDate(now, "dd-mm-yyyy") + "'>";
  if (!KeptXmlLines(files, local, "</Test_Results>", opening, lines, error)) return false;
  const std::string reference =
      "Details='SN" + uut.serialNumber + "_" + formatDate(now, "yymmdd") + ".xml'";
  if (uut.passed) {
    lines.push_back("<UUT Serial_Number='" + uut.serialNumber + "' Result='PASS' " + reference +
                    "/>");
  } else {
    lines.push_back("<UUT Serial_Number='" + uut.serialNumber + "' Result='FAIL' " + reference +
                    ">");
    for (const auto& f : uut.failures) {
      lines.push_back("<FAILURE Stage='" + StageText(f.stage) + "' Parameter='" + f.parameter +
                      "' Value='" + f.value + "' Message='" + f.message + "'/>");
    }
    lines.push_back("</UUT>");
  }
  lines.push_back("</Test_Results>");
  return writeTextFileAtomically(files, local, lines, error);
}

bool WriteXmlDetails(FileSystem& files, const TestDetails& details, const UutRecord& uut,
                     const std::string& local, Micros now, std::string* error) {
  std::vector<std::string> lines;
  const std::string opening = "<Test_Details Date='" + formatDate(now, "dd-mm-yyyy") + "'>";
  if (!KeptXmlLines(files, local, "</Test_Details>", opening, lines, error)) return false;
  const std::string result = uut.passed ? "PASS" : "FAIL";
  for (const std::string& line :
       {std::string("<Test>"), "<Title>" + details.title + "</Title>",
        "<Version>" + details.versionText + "</Version>", std::string("<UUT>"),
        "<Serial_Number>" + uut.serialNumber + "</Serial_Number>",
        "<Description>" + uut.description + "</Description>", "<Result>" + result + "</Result>",
        std::string("<Test_Data>")}) {
    lines.push_back(line);
  }
  for (const auto& c : uut.checks) {
    lines.push_back("<Check Name='" + c.parameter + "' Value='" + c.value + "' Result='" +
                    (c.passed ? "Pass" : "Fail") + "'/>");
  }
  lines.push_back("</Test_Data>");
  for (const auto& note : uut.resumeNotes) lines.push_back("<Resumed>" + note + "</Resumed>");
  lines.push_back("</UUT>");
  lines.push_back("</Test>");
  lines.push_back("</Test_Details>");
  return writeTextFileAtomically(files, local, lines, error);
}

// `path` (a local path) with a file name the system accepts: a test's title
// may hold a TAB, which Windows does not allow in names.
std::string WithAllowedName(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, start) + platform::allowedFileName(path.substr(start));
}

}  // namespace

std::string ResultsExtension(const ResultsSettings& settings) {
  std::string extension(kResultsXml);
  extension = kResultsText;
  if (settings.xmlLayout) extension = kResultsXml;
  return extension;
}

ResultsNames BuildResultsNames(const TestDetails& details, const UutRecord& uut,
                               const ResultsSettings& settings, Micros now) {
  const std::string extension = ResultsExtension(settings);
  ResultsNames names;
  names.directory = WithBackslash(details.resultsDirectory.empty() ? settings.dataDirectory
                                                                   : details.resultsDirectory);
  const std::string day = formatDate(now, "yymmdd");
  names.summary = names.directory + details.title + "_" + day + extension;
  names.details = names.directory + "SN_" + uut.serialNumber + "_" + day + "_" +
                  formatDate(now, "hhmmss") + extension;
  names.detailsReference = "SN" + uut.serialNumber + "_" + day + extension;
  return names;
}

bool WriteTestResults(FileSystem& files, const TestDetails& details, const UutRecord& uut,
                      const ResultsSettings& settings, const PathMap& paths, Micros now,
                      std::string* error) {
  if (!settings.writeResults) return true;
  const ResultsNames names = BuildResultsNames(details, uut, settings, now);
  const std::string summary = WithAllowedName(paths.toLocal(names.summary));
  const std::string detailsFile = WithAllowedName(paths.toLocal(names.details));
  const size_t slash = summary.rfind('/');
  if (slash != std::string::npos && slash != 0 &&
      !files.makeFolders(summary.substr(0, slash), error)) {
    if (error) *error = "Cannot create the results directory of " + summary + ": " + *error;
    return false;
  }
  // Other runs may write into the same folder: the summary and the details
  // are written under one lock, from the look at whether they exist on.
  const auto held = files.lock(summary, error);
  if (!held) return false;
  // The summary as it was, to put back when the details cannot be written:
  // a UUT's two records stay a pair.
  const FileInfo before = files.info(summary);
  std::string oldSummary;
  if (settings.xmlLayout && before.kind == FileKind::kFile &&
      !files.readFile(summary, oldSummary, error)) {
    return false;
  }
  const bool summaryWritten =
      settings.xmlLayout ? WriteXmlSummary(files, details, uut, summary, now, error)
                         : WriteTextSummary(files, details, uut, names, summary, now, error);
  if (!summaryWritten) return false;
  const bool detailsWritten =
      settings.xmlLayout ? WriteXmlDetails(files, details, uut, detailsFile, now, error)
                         : WriteTextDetails(files, details, uut, names, detailsFile, now, error);
  if (detailsWritten) return true;
  if (before.kind != FileKind::kFile) {
    files.remove(summary, nullptr);
  } else if (settings.xmlLayout) {
    files.writeAtomically(summary, oldSummary, nullptr);
  } else {
    files.truncate(summary, before.size, nullptr);
  }
  return false;
}

}  // namespace tavrix
