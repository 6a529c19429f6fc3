#include "results_commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/file_system.h"
#include "common/paths.h"
#include "common/text_items.h"
#include "common/trace.h"
#include "instrument/link/instrument_settings.h"
#include "resultsdb/postgres_connection.h"
#include "resultsdb/results_analytics.h"
#include "resultsdb/results_import.h"
#include "resultsdb/results_queue.h"
#include "resultsdb/results_recorder.h"
#include "resultsdb/results_store.h"
#include "resultsdb/uut_capture.h"

namespace tavrix {

namespace {

using nlohmann::json;

// Columns wider than this are cut (the last character shown as "~"), so a
// table fits a terminal whatever the data.
constexpr size_t kWidestColumn = 28;

// Every cell as the store holds it, its control characters made visible (a
// serial number or a refusal text may hold any byte). The last column is
// shown whole: nothing follows it that it could push out of line.
void PrintTable(std::FILE* out, const std::vector<std::string>& headers,
                const std::vector<std::vector<std::string>>& rawRows) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(rawRows.size());
  for (const auto& raw : rawRows) {
    auto& row = rows.emplace_back();
    for (const auto& cell : raw) row.push_back(visibleText(cell));
  }
  std::vector<size_t> widths;
  for (const auto& h : headers) widths.push_back(h.size());
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
      widths[c] = std::max(widths[c], std::min(row[c].size(), kWidestColumn));
    }
  }
  auto print = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t c = 0; c < cells.size() && c < widths.size(); ++c) {
      std::string cell = cells[c];
      const bool last = c + 1 == cells.size();
      if (!last && cell.size() > widths[c]) cell = cell.substr(0, widths[c] - 1) + "~";
      if (!last) cell.resize(widths[c], ' ');
      line += (c ? "  " : "") + cell;
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    std::fprintf(out, "%s\n", line.c_str());
  };
  print(headers);
  std::vector<std::string> rule;
  for (size_t w : widths) rule.push_back(std::string(w, '-'));
  print(rule);
  for (const auto& row : rows) print(row);
}

json CheckJson(const StoredCheck& c) {
  return {{"step", c.step},       {"row", c.row},
          {"kind", c.kind},       {"parameter", c.parameter},
          {"channel", c.channel}, {"value", c.value},
          {"units", c.units},     {"lower", c.lower},
          {"upper", c.upper},     {"result", c.passed ? "Pass" : "Fail"},
          {"message", c.message}};
}

json UutJson(const StoredUut& u, bool withChecks) {
  json j = {{"key", u.key},
            {"station", u.station},
            {"sequence_file", u.sequenceFile},
            {"test_definition", u.testDefinition},
            {"test", u.testTitle},
            {"version", u.testVersion},
            {"serial", u.serial},
            {"test_date", u.testDate},
            {"operators", u.operators},
            {"description", u.description},
            {"started", u.startedAt},
            {"ended", u.endedAt},
            {"verdict", u.passed ? "PASS" : "FAIL"}};
  // Only a test that went on after an abrupt end has resume notes.
  if (!u.resumed.empty()) j["resumed"] = u.resumed;
  if (withChecks) {
    json checks = json::array();
    for (const auto& c : u.checks) checks.push_back(CheckJson(c));
    j["checks"] = checks;
  } else {
    j["checks"] = u.checkCount;
    j["failed"] = u.failedCount;
  }
  return j;
}

void PrintJson(std::FILE* out, const json& j) {
  std::fprintf(out, "%s\n", j.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

std::string Csv(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

std::string Percent(int passed, int tested) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f%%", tested ? 100.0 * passed / tested : 0.0);
  return buf;
}

}  // namespace

ResultsCommands::ResultsCommands(CLI::App& app) {
  results_ = app.add_subcommand(
      "results",
      "Query the results store: list, show, export, yield, cpk, top-failures, import, queue");
  results_->require_subcommand(1);
  auto common = [this](CLI::App* c) {
    c->add_option("--store", options_.store,
                  "The results store: sqlite (the file in the data root), sqlite:FILE or a "
                  "connection string");
    c->add_option("--instrument-settings", options_.settings,
                  "Settings file whose results_store names the store");
    c->add_flag("--json", options_.json, "JSON for scripts instead of a table");
  };
  auto filters = [this](CLI::App* c) {
    c->add_option("--serial", options_.serial, "Only this serial number");
    c->add_option("--station", options_.station, "Only this station");
    c->add_option("--socket", options_.socket,
                  "Only this socket of a station of several (station NAME/SOCKET)");
    c->add_option("--test", options_.test, "Only this test title");
    c->add_option("--verdict", options_.verdict, "Only PASS or FAIL")
        ->check(CLI::IsMember({"PASS", "FAIL"}, CLI::ignore_case));
    c->add_option("--from", options_.from, "UUTs that ended on or after: YYYY-MM-DD[ HH:MM:SS]");
    c->add_option("--to", options_.to, "UUTs that ended on or before: YYYY-MM-DD[ HH:MM:SS]");
  };
  list_ = results_->add_subcommand("list", "UUT records, newest first");
  common(list_);
  filters(list_);
  list_->add_option("--limit", options_.limit, "At most this many (default 50; 0: all)")
      ->check(CLI::NonNegativeNumber);
  show_ = results_->add_subcommand("show", "The UUTs of a serial number with their stage checks");
  common(show_);
  show_->add_option("SERIAL", options_.serial, "The serial number")->required();
  export_ = results_->add_subcommand("export", "Records with their checks, as CSV or JSON");
  common(export_);
  filters(export_);
  export_->add_flag("--csv", options_.csv, "Comma-separated values, one line a check");
  export_->add_option("--output", options_.output, "Write to FILE instead of standard output");
  yield_ = results_->add_subcommand("yield", "Pass rate per test and station per day");
  common(yield_);
  filters(yield_);
  yield_->add_flag("--first-pass", options_.firstPass,
                   "Also the first-pass yield (each serial number's first test of a title) and "
                   "the serial numbers tested more than once");
  cpk_ = results_->add_subcommand(
      "cpk", "Mean, standard deviation and Cp/Cpk, Pp/Ppk of one check's readings");
  common(cpk_);
  filters(cpk_);
  cpk_->add_option("CHECK", options_.check, "The check's parameter name")->required();
  cpk_->add_option("--step", options_.step,
                   "Only the check at this stage (a name checked at several stages may have "
                   "other limits at each)")
      ->check(CLI::PositiveNumber);
  cpk_->add_option("--limit", options_.limit, "Only the newest this many readings (0: all)")
      ->check(CLI::NonNegativeNumber);
  topFailures_ = results_->add_subcommand("top-failures", "The checks that failed most");
  common(topFailures_);
  filters(topFailures_);
  topFailures_
      ->add_option("--limit", options_.limit, "At most this many checks (default 10; 0: all)")
      ->check(CLI::NonNegativeNumber);
  import_ = results_->add_subcommand("import", "Load the details files of a results folder");
  common(import_);
  import_->add_option("FOLDER", options_.folder, "Folder of results files (.txt, .xml)")
      ->required();
  import_->add_option("--station", options_.station, "Station of the imported records");
  queue_ = results_->add_subcommand(
      "queue", "UUT records that wait in the data root's journal, and the store each waits for");
  common(queue_);
  queue_->add_flag("--retry", options_.retry, "Deliver what waits to its store now");
}

int ResultsCommands::runQueue(const Host& host, const std::optional<StoreSpec>& only,
                              std::FILE* out, std::FILE* err) {
  const ResultsOptions& o = options_;
  const std::string& root = host.dataRoot;
  const std::string journal = join(root, kQueueFileName);
  const std::string defaultStore = StoreKey({StoreSpec::Kind::kSqlite, join(root, kStoreFileName)});
  const std::string onlyKey = only ? StoreKey(*only) : "";
  std::string error;
  std::vector<QueuedRecord> records;
  auto read = [&] {
    records.clear();
    if (!ResultsQueue::ReadAll(host.files, journal, defaultStore, records, &error)) return false;
    if (!onlyKey.empty()) {
      std::erase_if(records, [&](const QueuedRecord& r) { return r.store != onlyKey; });
    }
    return true;
  };
  if (!read()) {
    std::fprintf(err, "tavrix-cli results: %s\n", error.c_str());
    return kResultsFailed;
  }
  int status = kResultsDone;
  if (o.retry) {
    // Each store once, in the order its first record waits.
    std::vector<std::string> stores;
    for (const auto& r : records) {
      if (!r.setAside && std::find(stores.begin(), stores.end(), r.store) == stores.end())
        stores.push_back(r.store);
    }
    for (const auto& store : stores) {
      StoreSpec spec;
      if (only && onlyKey == store) {
        spec = *only;  // as given: its password too
      } else if (IsPostgresConninfo(store)) {
        spec = {StoreSpec::Kind::kPostgres, store};
      } else {
        spec = {StoreSpec::Kind::kSqlite, store};
      }
      ResultsQueue queue(host.files, journal, store);
      ResultsRecorder recorder(queue, [spec](std::string* e) -> std::unique_ptr<ResultsStore> {
        return OpenResultsStore(spec, e);
      });
      const size_t written = recorder.drain();
      const size_t left = queue.size();
      std::fprintf(err, "tavrix-cli results: %zu UUT record%s delivered to %s\n", written,
                   written == 1 ? "" : "s", visibleText(DescribeStoreSpec(spec)).c_str());
      if (left > 0) {
        std::fprintf(err, "tavrix-cli results: %zu still wait%s: %s\n", left, left == 1 ? "s" : "",
                     visibleText(recorder.lastError()).c_str());
        status = kResultsFailed;
      }
    }
    if (!read()) {
      std::fprintf(err, "tavrix-cli results: %s\n", error.c_str());
      return kResultsFailed;
    }
  }
  if (o.json) {
    json array = json::array();
    for (const auto& r : records) {
      json j = {{"store", r.store},
                {"key", r.uut.key},
                {"serial", r.uut.serial},
                {"ended", r.uut.endedAt},
                {"state", r.setAside ? "set aside" : "waiting"}};
      if (r.setAside) j["reason"] = r.reason;
      array.push_back(j);
    }
    PrintJson(out, array);
    return status;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& r : records) {
    rows.push_back(
        {r.uut.endedAt, r.uut.serial, r.store, r.setAside ? "set aside: " + r.reason : "waiting"});
  }
  PrintTable(out, {"Ended", "Serial", "Store", "State"}, rows);
  return status;
}

namespace {

int Usage(std::FILE* err, const std::string& text) {
  std::fprintf(err, "tavrix-cli results: %s\n", text.c_str());
  return kResultsUsage;
}

int Failed(std::FILE* err, const std::string& error) {
  std::fprintf(err, "tavrix-cli results: %s\n", visibleText(error).c_str());
  return kResultsFailed;
}

// The records the filter options ask for; false, with what is wrong in
// `problem`, on a date bound it cannot read. The station of an import names
// the records it loads and filters nothing.
bool ParseFilter(const ResultsOptions& o, bool importing, UutFilter& filter, std::string& problem) {
  filter.serial = o.serial;
  filter.station = importing ? "" : o.station;
  filter.socket = o.socket;
  filter.test = o.test;
  filter.verdict = o.verdict;
  if (!o.from.empty() && !NormaliseDateBound(o.from, false, filter.from)) {
    problem = "--from wants YYYY-MM-DD or \"YYYY-MM-DD HH:MM:SS\", not \"" + o.from + "\"";
    return false;
  }
  if (!o.to.empty() && !NormaliseDateBound(o.to, true, filter.to)) {
    problem = "--to wants YYYY-MM-DD or \"YYYY-MM-DD HH:MM:SS\", not \"" + o.to + "\"";
    return false;
  }
  return true;
}

// The store --store names, else the one the settings file names, else the
// data root's; `named` tells whether either option named one.
bool ResolveStore(const Host& host, const ResultsOptions& o, StoreSpec& spec, bool& named,
                  std::string& problem) {
  InstrumentSettings settings;
  if (o.settings && !LoadInstrumentSettings(host.files, *o.settings, settings, &problem))
    return false;
  if (!ParseStoreSpec(o.store.value_or(settings.resultsStore), host.dataRoot, spec, &problem)) {
    return false;
  }
  named = o.store || !settings.resultsStore.empty();
  return true;
}

int ListUuts(SqlResultsStore& store, const UutFilter& filter, const ResultsOptions& o,
             std::FILE* out, std::FILE* err) {
  std::string error;
  std::vector<StoredUut> uuts;
  if (!store.list(filter, uuts, &error)) return Failed(err, error);
  if (o.json) {
    json array = json::array();
    for (const auto& u : uuts) array.push_back(UutJson(u, false));
    PrintJson(out, array);
    return kResultsDone;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& u : uuts) {
    rows.push_back({u.endedAt, u.station, u.testTitle, u.serial, u.passed ? "PASS" : "FAIL",
                    std::to_string(u.checkCount), std::to_string(u.failedCount)});
  }
  PrintTable(out, {"Ended", "Station", "Test", "Serial", "Result", "Checks", "Failed"}, rows);
  return kResultsDone;
}

// One UUT as `show` prints it: its record, then a table of its checks.
void PrintUut(std::FILE* out, const StoredUut& u) {
  std::fprintf(out,
               "Serial_Number: %s\nResult: %s\nTest: %s (version %s)\nStation: %s\n"
               "Sequence: %s\nDefinition: %s\nOperator(s): %s\nDescription: %s\n"
               "Test date: %s\nStarted: %s\nEnded: %s\n",
               visibleText(u.serial).c_str(), u.passed ? "PASS" : "FAIL",
               visibleText(u.testTitle).c_str(), visibleText(u.testVersion).c_str(),
               visibleText(u.station).c_str(), visibleText(u.sequenceFile).c_str(),
               visibleText(u.testDefinition).c_str(), visibleText(u.operators).c_str(),
               visibleText(u.description).c_str(), visibleText(u.testDate.substr(0, 10)).c_str(),
               visibleText(u.startedAt).c_str(), visibleText(u.endedAt).c_str());
  if (!u.resumed.empty()) {
    for (const auto& note : splitLines(u.resumed))
      std::fprintf(out, "Resumed: %s\n", visibleText(note).c_str());
  }
  std::fputs("\n", out);
  std::vector<std::vector<std::string>> rows;
  for (const auto& c : u.checks) {
    rows.push_back({std::to_string(c.step), std::to_string(c.row), c.kind, c.parameter, c.channel,
                    c.value, c.units, c.lower, c.upper, c.passed ? "Pass" : "Fail", c.message});
  }
  PrintTable(out,
             {"Stage", "Row", "Kind", "Parameter", "Channel", "Value", "Units", "Lower", "Upper",
              "Result", "Message"},
             rows);
}

int ShowSerial(SqlResultsStore& store, const UutFilter& filter, const ResultsOptions& o,
               std::FILE* out, std::FILE* err) {
  std::string error;
  std::vector<StoredUut> uuts;
  if (!store.fetch(filter, uuts, &error)) return Failed(err, error);
  if (uuts.empty()) {
    std::fprintf(err, "tavrix-cli results: no UUT with serial number %s in %s\n", o.serial.c_str(),
                 store.describe().c_str());
    return kResultsFailed;
  }
  if (o.json) {
    json array = json::array();
    for (const auto& u : uuts) array.push_back(UutJson(u, true));
    PrintJson(out, array);
    return kResultsDone;
  }
  for (size_t i = 0; i < uuts.size(); ++i) {
    if (i) std::fputs("\n", out);
    PrintUut(out, uuts[i]);
  }
  return kResultsDone;
}

// The records as CSV: a header line, then one line a check (a UUT without
// checks has one line, its check columns empty).
std::string ExportCsv(const std::vector<StoredUut>& uuts) {
  std::string text =
      "key,station,sequence_file,test_definition,test,version,serial,test_date,"
      "operators,description,started,ended,verdict,step,row,kind,parameter,channel,"
      "value,units,lower,upper,result,message\r\n";
  for (const auto& u : uuts) {
    std::string head;
    for (const std::string* f :
         {&u.key, &u.station, &u.sequenceFile, &u.testDefinition, &u.testTitle, &u.testVersion,
          &u.serial, &u.testDate, &u.operators, &u.description, &u.startedAt, &u.endedAt}) {
      head += Csv(*f) + ",";
    }
    head += u.passed ? "PASS" : "FAIL";
    if (u.checks.empty()) text += head + ",,,,,,,,,,,\r\n";
    for (const auto& c : u.checks) {
      text += head + "," + std::to_string(c.step) + "," + std::to_string(c.row) + "," +
              Csv(c.kind) + "," + Csv(c.parameter) + "," + Csv(c.channel) + "," + Csv(c.value) +
              "," + Csv(c.units) + "," + Csv(c.lower) + "," + Csv(c.upper) + "," +
              (c.passed ? "Pass" : "Fail") + "," + Csv(c.message) + "\r\n";
    }
  }
  return text;
}

int ExportUuts(const Host& host, SqlResultsStore& store, const UutFilter& filter,
               const ResultsOptions& o, std::FILE* out, std::FILE* err) {
  std::string error;
  std::vector<StoredUut> uuts;
  if (!store.fetch(filter, uuts, &error)) return Failed(err, error);
  std::string text;
  if (o.json) {
    json array = json::array();
    for (const auto& u : uuts) array.push_back(UutJson(u, true));
    text = array.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  } else {
    text = ExportCsv(uuts);
  }
  if (o.output.empty()) {
    std::fwrite(text.data(), 1, text.size(), out);
    return kResultsDone;
  }
  // Only a complete export takes the file's name.
  const auto file = host.files.rewrite(o.output, &error);
  if (!file) return Usage(err, "cannot write " + o.output);
  if (!file->write(text, &error) || !file->commit(&error)) {
    std::fprintf(err, "tavrix-cli results: cannot write %s\n", o.output.c_str());
    return kResultsFailed;
  }
  return kResultsDone;
}

void PrintYieldJson(std::FILE* out, const std::vector<YieldRow>& rows,
                    const std::vector<RetestRow>& retests, bool firstPass) {
  json array = json::array();
  for (const auto& r : rows) {
    json j = {{"day", r.day},
              {"test", r.test},
              {"station", r.station},
              {"tested", r.tested},
              {"passed", r.passed},
              {"yield", r.tested ? static_cast<double>(r.passed) / r.tested : 0.0}};
    if (firstPass) {
      j["first_tested"] = r.firstTested;
      j["first_passed"] = r.firstPassed;
      j["first_pass_yield"] =
          r.firstTested ? static_cast<double>(r.firstPassed) / r.firstTested : 0.0;
      j["retests"] = r.tested - r.firstTested;
    }
    array.push_back(j);
  }
  if (!firstPass) {
    PrintJson(out, array);
    return;
  }
  json serials = json::array();
  for (const auto& r : retests) {
    serials.push_back(
        {{"serial", r.serial}, {"test", r.test}, {"tests", r.tests}, {"passed", r.passed}});
  }
  PrintJson(out, {{"yield", array}, {"retested", serials}});
}

void PrintYieldTable(std::FILE* out, const std::vector<YieldRow>& rows,
                     const std::vector<RetestRow>& retests, bool firstPass) {
  std::vector<std::vector<std::string>> table;
  for (const auto& r : rows) {
    table.push_back({r.day, r.test, r.station, std::to_string(r.tested), std::to_string(r.passed),
                     Percent(r.passed, r.tested)});
    if (firstPass) {
      table.back().insert(table.back().end(),
                          {std::to_string(r.firstTested), std::to_string(r.firstPassed),
                           r.firstTested ? Percent(r.firstPassed, r.firstTested) : "-",
                           std::to_string(r.tested - r.firstTested)});
    }
  }
  if (!firstPass) {
    PrintTable(out, {"Day", "Test", "Station", "Tested", "Passed", "Yield"}, table);
    return;
  }
  PrintTable(out,
             {"Day", "Test", "Station", "Tested", "Passed", "Yield", "First", "First passed",
              "First-pass yield", "Retests"},
             table);
  int extra = 0;
  for (const auto& r : retests) extra += r.tests - 1;
  std::fprintf(out, "\n%zu serial number%s tested more than once (%d retest%s)\n", retests.size(),
               retests.size() == 1 ? "" : "s", extra, extra == 1 ? "" : "s");
}

int PrintYield(SqlResultsStore& store, const UutFilter& filter, const ResultsOptions& o,
               std::FILE* out, std::FILE* err) {
  std::string error;
  std::vector<YieldRow> rows;
  if (!store.yield(filter, rows, &error)) return Failed(err, error);
  std::vector<RetestRow> retests;
  if (o.firstPass && !Retests(store, filter, retests, &error)) return Failed(err, error);
  if (o.json) {
    PrintYieldJson(out, rows, retests, o.firstPass);
  } else {
    PrintYieldTable(out, rows, retests, o.firstPass);
  }
  return kResultsDone;
}

void PrintCapabilityJson(std::FILE* out, const ResultsOptions& o, const CheckStatistics& s) {
  auto number = [](const std::optional<double>& v) -> json { return v ? json(*v) : json(nullptr); };
  PrintJson(out, {{"check", o.check},
                  {"step", o.step},
                  {"readings", s.count},
                  {"failed", s.failed},
                  {"mean", s.mean},
                  {"std_dev", s.stdDev},
                  {"sigma_within", s.sigmaWithin},
                  {"min", s.minimum},
                  {"max", s.maximum},
                  {"lower", number(s.lower)},
                  {"upper", number(s.upper)},
                  {"limits_varied", s.limitsVaried},
                  {"cp", number(s.cp)},
                  {"cpk", number(s.cpk)},
                  {"pp", number(s.pp)},
                  {"ppk", number(s.ppk)}});
}

void PrintCapabilityText(std::FILE* out, const ResultsOptions& o,
                         const std::vector<CheckReading>& readings, const CheckStatistics& s) {
  auto text = [](const std::optional<double>& v) {
    if (!v) return std::string("-");
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", *v);
    return std::string(buf);
  };
  auto g = [](double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return std::string(buf);
  };
  std::fprintf(out,
               "Check: %s\nReadings: %zu (%zu failed), %s to %s\nLimits: %s to %s%s\n"
               "Mean: %s\nStd dev: %s (overall), %s (within)\nMin: %s  Max: %s\n"
               "Cp: %s  Cpk: %s\nPp: %s  Ppk: %s\n",
               visibleText(o.check).c_str(), s.count, s.failed, readings.front().endedAt.c_str(),
               readings.back().endedAt.c_str(), text(s.lower).c_str(), text(s.upper).c_str(),
               s.limitsVaried ? " (older readings had other limits)" : "", g(s.mean).c_str(),
               g(s.stdDev).c_str(), g(s.sigmaWithin).c_str(), g(s.minimum).c_str(),
               g(s.maximum).c_str(), text(s.cp).c_str(), text(s.cpk).c_str(), text(s.pp).c_str(),
               text(s.ppk).c_str());
}

int PrintCapability(SqlResultsStore& store, const UutFilter& filter, const ResultsOptions& o,
                    std::FILE* out, std::FILE* err) {
  std::string error;
  std::vector<CheckReading> readings;
  if (!CheckReadings(store, o.check, o.step, filter, readings, &error)) return Failed(err, error);
  if (readings.empty()) {
    std::fprintf(err, "tavrix-cli results: no numeric reading of check \"%s\" in %s\n",
                 visibleText(o.check).c_str(), store.describe().c_str());
    return kResultsFailed;
  }
  const CheckStatistics s = ComputeCheckStatistics(readings);
  if (o.json) {
    PrintCapabilityJson(out, o, s);
  } else {
    PrintCapabilityText(out, o, readings, s);
  }
  return kResultsDone;
}

int PrintTopFailures(SqlResultsStore& store, const UutFilter& filter, const ResultsOptions& o,
                     std::FILE* out, std::FILE* err) {
  std::string error;
  std::vector<FailureRow> rows;
  if (!TopFailures(store, filter, rows, &error)) return Failed(err, error);
  if (o.json) {
    json array = json::array();
    for (const auto& r : rows) {
      array.push_back({{"test", r.test},
                       {"step", r.step},
                       {"check", r.parameter},
                       {"failed", r.failed},
                       {"checked", r.checked}});
    }
    PrintJson(out, array);
    return kResultsDone;
  }
  std::vector<std::vector<std::string>> table;
  for (const auto& r : rows) {
    table.push_back({r.test, std::to_string(r.step), r.parameter, std::to_string(r.failed),
                     std::to_string(r.checked), Percent(r.failed, r.checked)});
  }
  PrintTable(out, {"Test", "Stage", "Check", "Failed", "Checked", "Failure rate"}, table);
  return kResultsDone;
}

int ImportFolder(const Host& host, SqlResultsStore& store, const ResultsOptions& o, std::FILE* out,
                 std::FILE* err) {
  const std::string station = o.station.empty() ? DefaultStationName() : o.station;
  if (!host.files.isFolder(o.folder)) return Usage(err, "no folder " + o.folder);
  ImportScan scan = ScanResultsFolder(host.files, o.folder, station);
  // Each file is loaded in a transaction of its own: a value the store
  // refuses skips its file, named, and the others are loaded.
  std::string error;
  size_t loaded = 0;
  for (const ImportedFile& f : scan.files) {
    const std::vector<StoredUut> batch(scan.uuts.begin() + static_cast<long>(f.first),
                                       scan.uuts.begin() + static_cast<long>(f.first + f.count));
    if (store.record(batch, &error)) {
      loaded += batch.size();
      continue;
    }
    --scan.detailsFiles;
    constexpr size_t kShown = 300;
    scan.problems.push_back({f.name, 0,
                             "the results store refused it: " + error.substr(0, kShown) +
                                 (error.size() > kShown ? "..." : "")});
  }
  for (const auto& p : scan.problems) {
    const std::string where = p.line > 0 ? " line " + std::to_string(p.line) : "";
    std::fprintf(err, "tavrix-cli results: %s%s: %s; the file is skipped\n",
                 visibleText(p.file).c_str(), where.c_str(), visibleText(p.reason).c_str());
  }
  if (o.json) {
    json problems = json::array();
    for (const auto& p : scan.problems) {
      problems.push_back({{"file", p.file}, {"line", p.line}, {"reason", p.reason}});
    }
    PrintJson(out, {{"uuts", loaded},
                    {"details_files", scan.detailsFiles},
                    {"summary_files", scan.summaryFiles},
                    {"skipped", problems}});
  } else {
    std::fprintf(out,
                 "%zu UUTs from %d details files (%d summary files passed over, %zu skipped)\n",
                 loaded, scan.detailsFiles, scan.summaryFiles, scan.problems.size());
  }
  return scan.problems.empty() ? kResultsDone : kResultsFailed;
}

}  // namespace

// Parse the options into a filter and a store, open the store, and hand it
// to the subcommand given.
std::optional<int> ResultsCommands::run(const Host& host, std::FILE* out, std::FILE* err) {
  if (!results_->parsed()) return std::nullopt;
  ResultsOptions& o = options_;
  if (export_->parsed() && o.csv == o.json) {
    return Usage(err, "export wants one of --csv and --json");
  }
  std::transform(o.verdict.begin(), o.verdict.end(), o.verdict.begin(), ::toupper);
  UutFilter filter;
  std::string problem;
  if (!ParseFilter(o, import_->parsed(), filter, problem)) return Usage(err, problem);
  if (list_->parsed()) filter.limit = o.limit.value_or(50);
  if (cpk_->parsed()) filter.limit = o.limit.value_or(0);
  if (topFailures_->parsed()) filter.limit = o.limit.value_or(10);

  StoreSpec spec;
  bool named = false;
  if (!ResolveStore(host, o, spec, named, problem)) return Usage(err, problem);
  if (queue_->parsed()) {
    // Every store's records unless one is named.
    if (named && spec.kind == StoreSpec::Kind::kOff) return Usage(err, "the results store is off");
    return runQueue(host, named ? std::optional<StoreSpec>(spec) : std::nullopt, out, err);
  }
  if (spec.kind == StoreSpec::Kind::kOff) return Usage(err, "the results store is off");
  std::unique_ptr<SqlResultsStore> store = OpenResultsStore(spec, &problem);
  if (!store) return Failed(err, problem);

  if (list_->parsed()) return ListUuts(*store, filter, o, out, err);
  if (show_->parsed()) return ShowSerial(*store, filter, o, out, err);
  if (export_->parsed()) return ExportUuts(host, *store, filter, o, out, err);
  if (yield_->parsed()) return PrintYield(*store, filter, o, out, err);
  if (cpk_->parsed()) return PrintCapability(*store, filter, o, out, err);
  if (topFailures_->parsed()) return PrintTopFailures(*store, filter, o, out, err);
  return ImportFolder(host, *store, o, out, err);
}

}  // namespace tavrix
