#include "resultsdb/results_import.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <set>
#include <sstream>

#include "common/civil_time.h"
#include "common/file_system.h"
#include "common/paths.h"
#include "common/text_file.h"
#include "common/trace.h"
#include "platform/keyed_hash.h"

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

// A value of the file as a message quotes it: printable, and cut short, so
// that a message never carries a whole file.
std::string Quoted(std::string_view text) {
  constexpr size_t kShown = 60;
  const std::string shown = visibleText(text.substr(0, kShown));
  return "\"" + shown + (text.size() > kShown ? "...\"" : "\"");
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

// The time of day that a details file's name carries ("SN_7_261115_143005"):
// midnight when the name carries none, nothing when what it carries is no
// time of day ("SN_7_261115_999999").
std::optional<std::string> TimeOfDay(const std::string& name, std::string& reason) {
  std::string stem = baseName(name);
  if (const size_t dot = stem.rfind('.'); dot != std::string::npos && dot > 0) stem.resize(dot);
  if (stem.size() >= 7 && stem[stem.size() - 7] == '_' && AllDigits(stem.substr(stem.size() - 6))) {
    const std::string t = stem.substr(stem.size() - 6);
    const std::string time = t.substr(0, 2) + ":" + t.substr(2, 2) + ":" + t.substr(4, 2);
    if (std::stoi(t.substr(0, 2)) > 23 || std::stoi(t.substr(2, 2)) > 59 ||
        std::stoi(t.substr(4, 2)) > 59) {
      reason = "the time " + Quoted(time) + " in the file's name is not a time of day";
      return std::nullopt;
    }
    return time;
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

// The line a results file adds for each resume of a test.
constexpr std::string_view kResumedLine = "Resumed: ";

void AddResumeNote(StoredUut& uut, std::string_view note) {
  if (!uut.resumed.empty()) uut.resumed += '\n';
  uut.resumed += note;
}

// A check line of a text results file: "Stage TAB Parameter TAB Channel TAB
// Value TAB Units TAB Lower TAB Upper TAB Result".
bool ParseTextCheck(const std::string& line, StoredCheck& c, std::string& reason) {
  const std::vector<std::string> f = Split(line);
  if (f.size() < 8 || !AllDigits(f[0].substr(f[0][0] == '-' ? 1 : 0))) {
    reason =
        "a check line is \"Stage TAB Parameter TAB Channel TAB Value TAB Units TAB Lower "
        "TAB Upper TAB Result\"";
    return false;
  }
  const char* first = f[0].data();
  const char* last = first + f[0].size();
  const auto parsed = std::from_chars(first, last, c.step);
  if (parsed.ec != std::errc() || parsed.ptr != last) {
    reason = "the stage number " + Quoted(f[0]) + " is out of range";
    return false;
  }
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
  return true;
}

bool ParseTextDetails(Cursor& in, const std::string& time, const std::string& station,
                      std::vector<StoredUut>& uuts, std::string& reason) {
  std::string date;
  if (!in.expect("Test_Details Date=", &date, reason)) return false;
  const auto day = IsoDay(date);
  if (!day) {
    reason = "the date " + Quoted(date) + " is not dd-mm-yyyy";
    in.blameTaken();
    return false;
  }
  const std::string ended = *day + " " + time;
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
      reason = "the result " + Quoted(result) + " is neither PASS nor FAIL";
      in.blameTaken();
      return false;
    }
    uut.passed = result == kVerdictPassText;
    if (!in.expect("Test_Data", nullptr, reason) ||
        !in.expect("Stage\tParameter", nullptr, reason)) {
      return false;
    }
    while (!in.atEnd() && in.peek() != "Test" && !in.onlyBlankLeft()) {
      // A test that went on after an abrupt end says so after its checks.
      if (in.peek().rfind(kResumedLine, 0) == 0) {
        AddResumeNote(uut, in.peek().substr(kResumedLine.size()));
        in.take();
        continue;
      }
      StoredCheck c;
      if (!ParseTextCheck(in.peek(), c, reason)) return false;
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

bool ParseXmlDetails(Cursor& in, const std::string& time, const std::string& station,
                     std::vector<StoredUut>& uuts, std::string& reason) {
  std::string date;
  if (!Element(in, "<Test_Details Date='", "'>", date, reason)) return false;
  const auto day = IsoDay(date);
  if (!day) {
    reason = "the date " + Quoted(date) + " is not dd-mm-yyyy";
    in.blameTaken();
    return false;
  }
  const std::string ended = *day + " " + time;
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
      reason = "the result " + Quoted(result) + " is neither PASS nor FAIL";
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
    if (!in.expect("</Test_Data>", nullptr, reason)) return false;
    while (!in.atEnd() && in.peek().rfind("<Resumed>", 0) == 0) {
      std::string note;
      if (!Element(in, "<Resumed>", "</Resumed>", note, reason)) return false;
      AddResumeNote(uut, note);
    }
    if (!in.expect("</UUT>", nullptr, reason) || !in.expect("</Test>", nullptr, reason)) {
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

std::string ContentKey(std::string_view text) {
  platform::Sha256Mac mac{};
  if (!platform::hmacSha256("tavrix results import", text, mac)) return {};
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (uint8_t b : mac) {
    hex += kHex[b >> 4];
    hex += kHex[b & 15];
  }
  return hex;
}

bool ParseDetailsFile(const std::string& name, const std::string& text, const std::string& station,
                      std::vector<StoredUut>& out, ImportProblem& problem) {
  // A NUL would cut a serial number or a value short where it is stored.
  if (const size_t nul = text.find('\0'); nul != std::string::npos) {
    const int line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + nul, '\n'));
    problem = {name, line, "a NUL character in the line"};
    return false;
  }
  // Records are known by what the file holds, not by where it lies: the
  // same file imported again, from another folder or under another name,
  // is loaded once.
  const std::string key = ContentKey(text);
  if (key.empty()) {
    problem = {name, 0, "the system's hash function failed"};
    return false;
  }
  std::string reason;
  const auto time = TimeOfDay(name, reason);
  if (!time) {
    problem = {name, 0, reason};
    return false;
  }
  Cursor in(Lines(text));
  std::vector<StoredUut> uuts;
  const bool xml = !in.atEnd() && in.peek().rfind("<Test_Details", 0) == 0;
  const bool ok = xml ? ParseXmlDetails(in, *time, station, uuts, reason)
                      : ParseTextDetails(in, *time, station, uuts, reason);
  if (!ok) {
    problem = {name, in.line(), reason};
    return false;
  }
  for (size_t i = 0; i < uuts.size(); ++i) {
    uuts[i].key = "import/" + key + "/" + std::to_string(i + 1);
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
// it and its own name, in the order of those names. A folder or file reached
// again through a link (a link to a folder above it, two links to one file)
// is taken once.
void FindResultsFiles(const FileSystem& files, const std::string& folder,
                      std::vector<std::string>& below, std::vector<std::vector<std::string>>& found,
                      std::set<std::pair<uint64_t, uint64_t>>& seen, std::string& error) {
  std::vector<std::string> names;
  if (!files.list(folder, names, &error)) return;
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    const std::string path = join(folder, name);
    const FileInfo info = files.info(path);
    const bool known = info.device != 0 || info.inode != 0;
    if (info.kind != FileKind::kFolder &&
        !(info.kind == FileKind::kFile && IsResultsFileName(name)))
      continue;
    if (known && !seen.insert({info.device, info.inode}).second) continue;
    below.push_back(name);
    if (info.kind == FileKind::kFolder) {
      FindResultsFiles(files, path, below, found, seen, error);
    } else {
      found.push_back(below);
    }
    below.pop_back();
  }
}

// Whether the file begins as a results file does, read from its first bytes
// only: a large file of something else is not read.
bool BeginsWith(const FileSystem& files, const std::string& path,
                std::initializer_list<std::string_view> heads, std::string* error) {
  const auto in = files.openInput(path, error);
  if (!in) return false;
  char buf[32];
  size_t got = 0;
  if (!in->read(buf, sizeof buf, got, error)) return false;
  const std::string_view start(buf, got);
  for (const auto head : heads) {
    if (start.substr(0, head.size()) == head) return true;
  }
  return false;
}

}  // namespace

ImportScan ScanResultsFolder(const FileSystem& files, const std::string& folder,
                             const std::string& station) {
  ImportScan scan;
  std::vector<std::vector<std::string>> found;
  std::vector<std::string> below;
  std::set<std::pair<uint64_t, uint64_t>> seen;
  const FileInfo top = files.info(folder);
  if (top.device != 0 || top.inode != 0) seen.insert({top.device, top.inode});
  std::string listError;
  FindResultsFiles(files, folder, below, found, seen, listError);
  if (!listError.empty()) {
    scan.problems.push_back({folder, 0, "cannot read the folder: " + listError});
  }
  std::sort(found.begin(), found.end());
  for (const auto& parts : found) {
    std::string shown;
    for (const auto& part : parts) shown += (shown.empty() ? "" : "/") + part;
    const std::string path = join(folder, shown);
    std::string readError;
    if (!BeginsWith(files, path, {"Test_Details", "<Test_Details", "Test_Results", "<Test_Results"},
                    &readError)) {
      scan.problems.push_back({shown, readError.empty() ? 1 : 0,
                               readError.empty()
                                   ? "not a results file (no \"Test_Details\" at its start)"
                                   : "cannot read the file: " + readError});
      continue;
    }
    std::string text;
    if (!readTextFile(files, path, text, &readError)) {
      scan.problems.push_back({shown, 0, readError});
      continue;
    }
    if (text.rfind("Test_Results", 0) == 0 || text.rfind("<Test_Results", 0) == 0) {
      ++scan.summaryFiles;
      continue;
    }
    ImportProblem problem;
    const size_t first = scan.uuts.size();
    if (ParseDetailsFile(shown, text, station, scan.uuts, problem)) {
      ++scan.detailsFiles;
      scan.files.push_back({shown, first, scan.uuts.size() - first});
    } else {
      scan.problems.push_back(problem);
    }
  }
  return scan;
}

}  // namespace tavrix
