#include "resultsdb/results_import.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <sstream>

#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/paths.h"

namespace tavrix {

namespace {

// Lines of a file without their CR LF or LF ends.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> Split(const std::string& line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', start)) {
    fields.push_back(line.substr(start, tab - start));
    start = tab + 1;
  }
  fields.push_back(line.substr(start));
  return fields;
}

bool AllDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c));
  });
}

// "dd-mm-yyyy" as "yyyy-mm-dd".
std::optional<std::string> IsoDay(std::string_view date) {
  if (date.size() != 10 || date[2] != '-' || date[5] != '-' || !AllDigits(date.substr(0, 2)) ||
      !AllDigits(date.substr(3, 2)) || !AllDigits(date.substr(6))) {
    return std::nullopt;
  }
  const std::string iso = std::string(date.substr(6)) + "-" + std::string(date.substr(3, 2)) + "-" +
                          std::string(date.substr(0, 2));
  if (!parseDateTime(iso + " 00:00:00")) return std::nullopt;
  return iso;
}

// The time of day that a details file's name carries ("SN_7_261115_143005"),
// or midnight.
std::string TimeOfDay(const std::string& name) {
  std::string stem = baseName(name);
  if (const size_t dot = stem.rfind('.'); dot != std::string::npos && dot > 0) stem.resize(dot);
  if (stem.size() >= 7 && stem[stem.size() - 7] == '_' && AllDigits(stem.substr(stem.size() - 6))) {
    const std::string t = stem.substr(stem.size() - 6);
    return t.substr(0, 2) + ":" + t.substr(2, 2) + ":" + t.substr(4, 2);
  }
  return "00:00:00";
}

// Walks the lines of one file; every expectation that fails names its line.
class Cursor {
 public:
  explicit Cursor(std::vector<std::string> lines) : lines_(std::move(lines)) {}
  bool atEnd() const { return next_ >= lines_.size(); }
  const std::string& peek() const { return lines_[next_]; }
  // The line a fault is reported on: the next one, or the one just taken
  // when its content was at fault.
  int line() const { return blameTaken_ ? static_cast<int>(next_) : static_cast<int>(next_) + 1; }
  void blameTaken() { blameTaken_ = true; }
  const std::string& take() { return lines_[next_++]; }
  // Takes the next line, which must begin with `prefix`; its rest goes to `rest`.
  bool expect(std::string_view prefix, std::string* rest, std::string& reason) {
    if (atEnd()) {
      reason = "the file ends where \"" + std::string(prefix) + "\" was expected";
      return false;
    }
    if (peek().rfind(prefix, 0) != 0) {
      reason = "\"" + std::string(prefix) + "\" expected";
      return false;
    }
    if (rest)
      *rest = take().substr(prefix.size());
    else
      take();
    return true;
  }
  // Skips blank lines at the end of the file.
  bool onlyBlankLeft() const {
    for (size_t i = next_; i < lines_.size(); ++i) {
      if (!lines_[i].empty()) return false;
    }
    return true;
  }

 private:
  std::vector<std::string> lines_;
  size_t next_ = 0;
  bool blameTaken_ = false;
};

bool ParseTextDetails(Cursor& in, const std::string& name, const std::string& station,
                      std::vector<StoredUut>& uuts, std::string& reason) {
  std::string date;
  if (!in.expect("Test_Details Date=", &date, reason)) return false;
  const auto day = IsoDay(date);
  if (!day) {
    reason = "the date \"" + date + "\" is not dd-mm-yyyy";
    in.blameTaken();
    return false;
  }
  const std::string ended = *day + " " + TimeOfDay(name);
  while (!in.onlyBlankLeft()) {
    StoredUut uut;
    std::string ignored, result;
    if (in.atEnd() || in.peek() != "Test") {
      reason = "\"Test\" expected";
      return false;
    }
    in.take();
    if (!in.expect("Title: ", &uut.testTitle, reason) ||
        !in.expect("Version: ", &uut.testVersion, reason) ||
        !in.expect("Results file: ", &ignored, reason) || !in.expect("UUT", nullptr, reason) ||
        !in.expect("Serial_Number: ", &uut.serial, reason) ||
        !in.expect("Description: ", &uut.description, reason) ||
        !in.expect("Operator(s): ", &uut.operators, reason)) {
      return false;
    }
    if (!in.expect("Result: ", &result, reason)) return false;
    if (result != kVerdictPassText && result != kVerdictFailText) {
      reason = "the result \"" + result + "\" is neither PASS nor FAIL";
      in.blameTaken();
      return false;
    }
    uut.passed = result == kVerdictPassText;
    if (!in.expect("Test_Data", nullptr, reason) ||
        !in.expect("Stage\tParameter", nullptr, reason)) {
      return false;
    }
    while (!in.atEnd() && in.peek() != "Test" && !in.onlyBlankLeft()) {
      const std::vector<std::string> f = Split(in.peek());
      if (f.size() < 8 || !AllDigits(f[0].substr(f[0][0] == '-' ? 1 : 0))) {
        reason =
            "a check line is \"Stage TAB Parameter TAB Channel TAB Value TAB Units TAB Lower "
            "TAB Upper TAB Result\"";
        return false;
      }
      StoredCheck c;
      c.step = std::atoi(f[0].c_str());
      c.parameter = f[1];
      c.channel = f[2];
      c.value = f[3];
      c.units = f[4];
      c.lower = f[5];
      c.upper = f[6];
      if (f[7] == "Pass" && f.size() == 8) {
        c.passed = true;
      } else if (f[7] == "Fail" && f.size() == 9) {
        c.passed = false;
        c.message = f[8];
      } else {
        reason = "a check's result is \"Pass\", or \"Fail\" TAB and the failure text";
        return false;
      }
      uut.checks.push_back(std::move(c));
      in.take();
    }
    uut.station = station;
    uut.testDate = *day + " 00:00:00";
    uut.startedAt = ended;
    uut.endedAt = ended;
    uuts.push_back(std::move(uut));
  }
  return true;
}

// The text between `open` and the last `close` of a line that must be exactly
// open + text + close.
bool Element(Cursor& in, std::string_view open, std::string_view close, std::string& text,
             std::string& reason) {
  if (in.atEnd() || in.peek().rfind(open, 0) != 0 ||
      in.peek().size() < open.size() + close.size() ||
      in.peek().compare(in.peek().size() - close.size(), close.size(), close) != 0) {
    reason = "\"" + std::string(open) + "...\" expected";
    return false;
  }
  const std::string& line = in.take();
  text = line.substr(open.size(), line.size() - open.size() - close.size());
  return true;
}

bool ParseXmlDetails(Cursor& in, const std::string& name, const std::string& station,
                     std::vector<StoredUut>& uuts, std::string& reason) {
  std::string date;
  if (!Element(in, "<Test_Details Date='", "'>", date, reason)) return false;
  const auto day = IsoDay(date);
  if (!day) {
    reason = "the date \"" + date + "\" is not dd-mm-yyyy";
    in.blameTaken();
    return false;
  }
  const std::string ended = *day + " " + TimeOfDay(name);
  for (;;) {
    if (in.atEnd()) {
      reason = "the file ends before \"</Test_Details>\"";
      return false;
    }
    if (in.peek() == "</Test_Details>") {
      in.take();
      break;
    }
    StoredUut uut;
    std::string result;
    if (!in.expect("<Test>", nullptr, reason) ||
        !Element(in, "<Title>", "</Title>", uut.testTitle, reason) ||
        !Element(in, "<Version>", "</Version>", uut.testVersion, reason) ||
        !in.expect("<UUT>", nullptr, reason) ||
        !Element(in, "<Serial_Number>", "</Serial_Number>", uut.serial, reason) ||
        !Element(in, "<Description>", "</Description>", uut.description, reason) ||
        !Element(in, "<Result>", "</Result>", result, reason)) {
      return false;
    }
    if (result != kVerdictPassText && result != kVerdictFailText) {
      reason = "the result \"" + result + "\" is neither PASS nor FAIL";
      in.blameTaken();
      return false;
    }
    uut.passed = result == kVerdictPassText;
    if (!in.expect("<Test_Data>", nullptr, reason)) return false;
    while (!in.atEnd() && in.peek() != "</Test_Data>") {
      std::string attributes;
      if (!Element(in, "<Check Name='", "'/>", attributes, reason)) return false;
      // Values are not escaped, so the separators are searched from the end.
      const size_t resultAt = attributes.rfind("' Result='");
      const size_t valueAt =
          resultAt == std::string::npos ? resultAt : attributes.rfind("' Value='", resultAt);
      if (valueAt == std::string::npos) {
        reason = "a check is \"<Check Name='...' Value='...' Result='...'/>\"";
        return false;
      }
      StoredCheck c;
      c.parameter = attributes.substr(0, valueAt);
      c.value = attributes.substr(valueAt + 9, resultAt - valueAt - 9);
      const std::string verdict = attributes.substr(resultAt + 10);
      if (verdict != "Pass" && verdict != "Fail") {
        reason = "a check's result is \"Pass\" or \"Fail\"";
        return false;
      }
      c.passed = verdict == "Pass";
      uut.checks.push_back(std::move(c));
    }
    if (!in.expect("</Test_Data>", nullptr, reason) || !in.expect("</UUT>", nullptr, reason) ||
        !in.expect("</Test>", nullptr, reason)) {
      return false;
    }
    uut.station = station;
    uut.testDate = *day + " 00:00:00";
    uut.startedAt = ended;
    uut.endedAt = ended;
    uuts.push_back(std::move(uut));
  }
  if (!in.onlyBlankLeft()) {
    reason = "text after \"</Test_Details>\"";
    return false;
  }
  return true;
}

}  // namespace

bool ParseDetailsFile(const std::string& name, const std::string& text, const std::string& station,
                      std::vector<StoredUut>& out, ImportProblem& problem) {
  Cursor in(Lines(text));
  std::vector<StoredUut> uuts;
  std::string reason;
  const bool xml = !in.atEnd() && in.peek().rfind("<Test_Details", 0) == 0;
  const bool ok = xml ? ParseXmlDetails(in, name, station, uuts, reason)
                      : ParseTextDetails(in, name, station, uuts, reason);
  if (!ok) {
    problem = {name, in.line(), reason};
    return false;
  }
  for (size_t i = 0; i < uuts.size(); ++i) {
    uuts[i].key = "import/" + name + "/" + std::to_string(i + 1);
    out.push_back(std::move(uuts[i]));
  }
  return true;
}

namespace {

bool IsResultsFileName(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return false;
  const std::string ext = name.substr(dot);
  return ext == ".txt" || ext == ".xml" || ext == ".TXT" || ext == ".XML";
}

// The results files below `folder`, each as the names of the folders down to
// it and its own name, in the order of those names.
void FindResultsFiles(const FileSystem& files, const std::string& folder,
                      std::vector<std::string>& below, std::vector<std::vector<std::string>>& found,
                      std::string& error) {
  std::vector<std::string> names;
  if (!files.list(folder, names, &error)) return;
  for (const auto& name : names) {
    const std::string path = join(folder, name);
    const FileKind kind = files.info(path).kind;
    below.push_back(name);
    if (kind == FileKind::kFolder) {
      FindResultsFiles(files, path, below, found, error);
    } else if (kind == FileKind::kFile && IsResultsFileName(name)) {
      found.push_back(below);
    }
    below.pop_back();
  }
}

}  // namespace

ImportScan ScanResultsFolder(const FileSystem& files, const std::string& folder,
                             const std::string& station) {
  ImportScan scan;
  std::vector<std::vector<std::string>> found;
  std::vector<std::string> below;
  std::string listError;
  FindResultsFiles(files, folder, below, found, listError);
  if (!listError.empty()) {
    scan.problems.push_back({folder, 0, "cannot read the folder: " + listError});
  }
  std::sort(found.begin(), found.end());
  for (const auto& parts : found) {
    std::string shown;
    for (const auto& part : parts) shown += (shown.empty() ? "" : "/") + part;
    std::string text;
    if (!files.readFile(join(folder, shown), text, nullptr)) {
      scan.problems.push_back({shown, 0, "cannot read the file"});
      continue;
    }
    if (text.rfind("Test_Results", 0) == 0 || text.rfind("<Test_Results", 0) == 0) {
      ++scan.summaryFiles;
      continue;
    }
    if (text.rfind("Test_Details", 0) != 0 && text.rfind("<Test_Details", 0) != 0) {
      scan.problems.push_back({shown, 1, "not a results file (no \"Test_Details\" at its start)"});
      continue;
    }
    ImportProblem problem;
    if (ParseDetailsFile(shown, text, station, scan.uuts, problem)) {
      ++scan.detailsFiles;
    } else {
      scan.problems.push_back(problem);
    }
  }
  return scan;
}

}  // namespace tavrix
