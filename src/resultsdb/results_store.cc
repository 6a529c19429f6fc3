#include "resultsdb/results_store.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>

#include "common/civil_time.h"
#include "common/clock.h"
#include "common/paths.h"
#include "resultsdb/postgres_connection.h"
#include "resultsdb/sqlite_connection.h"

namespace tavrix {

namespace {

const std::vector<Migration> kMigrations = {
#include "resultsdb/migrations.inc"
};

constexpr const char* kUutColumns =
    "uut_key, station, sequence_file, test_definition, test_title, test_version, serial, "
    "test_date, operators, description, started_at, ended_at, verdict, check_count, failed_count, "
    "resumed";
constexpr int kUutColumnCount = 16;
constexpr int kCheckColumnCount = 15;
// Rows of checks sent in one statement: few round trips to a server, and far
// below any limit on the number of parameters.
constexpr size_t kChecksPerStatement = 50;

SqlValue Reading(const std::string& value) {
  if (value.empty()) return std::nullopt;
  char* end = nullptr;
  const double number = std::strtod(value.c_str(), &end);
  if (end == value.c_str() || *end != '\0' || number != number) return std::nullopt;
  return value;
}

int Number(const std::string& text) { return std::atoi(text.c_str()); }

StoredUut UutFromRow(const std::vector<std::string>& row) {
  StoredUut uut;
  uut.key = row[0];
  uut.station = row[1];
  uut.sequenceFile = row[2];
  uut.testDefinition = row[3];
  uut.testTitle = row[4];
  uut.testVersion = row[5];
  uut.serial = row[6];
  uut.testDate = row[7];
  uut.operators = row[8];
  uut.description = row[9];
  uut.startedAt = row[10];
  uut.endedAt = row[11];
  uut.passed = row[12] == kVerdictPassText;
  uut.checkCount = Number(row[13]);
  uut.failedCount = Number(row[14]);
  uut.resumed = row[15];
  return uut;
}

std::string Limit(const UutFilter& filter) {
  if (filter.limit <= 0) return "";
  std::string sql = " LIMIT " + std::to_string(filter.limit);
  if (filter.offset > 0) sql += " OFFSET " + std::to_string(filter.offset);
  return sql;
}

// The lists' order, or its reverse when the oldest records are taken.
std::string Order(const UutFilter& filter, const char* table = "") {
  const char* way = filter.oldestFirst ? "" : " DESC";
  return std::string(" ORDER BY ") + table + "ended_at" + way + ", " + table + "uut_key" + way;
}

std::string Where(const UutFilter& filter, SqlParams& params) {
  return UutFilterSql(filter, params, " WHERE ");
}

}  // namespace

std::string UutFilterSql(const UutFilter& filter, SqlParams& params, const char* lead) {
  std::string where;
  auto add = [&](const std::string& value, const char* condition) {
    if (value.empty()) return;
    params.push_back(value);
    where += where.empty() ? lead : " AND ";
    where += std::string(condition) + " $" + std::to_string(params.size());
  };
  add(filter.serial, "serial =");
  add(filter.station, "station =");
  add(filter.test, "test_title =");
  add(filter.verdict, "verdict =");
  add(filter.from, "ended_at >=");
  add(filter.to, "ended_at <=");
  add(filter.key, "uut_key =");
  auto keyset = [&](const std::string& ended, const std::string& key, char side) {
    if (key.empty()) return;
    // Written so that an index on the end serves it as a range.
    params.push_back(ended);
    const std::string e = "$" + std::to_string(params.size());
    params.push_back(key);
    const std::string k = "$" + std::to_string(params.size());
    where += where.empty() ? lead : " AND ";
    where += std::string("ended_at ") + side + "= " + e + " AND (ended_at " + side + " " + e +
             " OR uut_key " + side + " " + k + ")";
  };
  keyset(filter.olderEnded, filter.olderKey, '<');
  keyset(filter.newerEnded, filter.newerKey, '>');
  if (!filter.socket.empty()) {
    // The station's name ends in "/SOCKET"; the socket's name is taken as
    // written, its wildcard characters too.
    std::string pattern = "%/";
    for (char c : filter.socket) {
      if (c == '%' || c == '_' || c == '\\') pattern += '\\';
      pattern += c;
    }
    params.push_back(pattern);
    where += where.empty() ? lead : " AND ";
    where += "station LIKE $" + std::to_string(params.size()) + " ESCAPE '\\'";
  }
  return where;
}

bool SqlResultsStore::files(const std::string& key, std::vector<std::string>& out,
                            std::string* error) {
  SqlRows rows;
  if (!connection_->exec("SELECT path FROM uut_file WHERE uut_key = $1 ORDER BY position", {key},
                         &rows, nullptr, error)) {
    return false;
  }
  out.clear();
  for (auto& row : rows) out.push_back(std::move(row[0]));
  return true;
}

bool SqlResultsStore::count(const UutFilter& filter, long& out, std::string* error) {
  SqlParams params;
  SqlRows rows;
  if (!connection_->exec("SELECT COUNT(*) FROM uut" + Where(filter, params), params, &rows, nullptr,
                         error)) {
    return false;
  }
  out = rows.empty() ? 0 : std::atol(rows[0][0].c_str());
  return true;
}

bool SqlConnection::each(std::string_view sql, const SqlParams& params,
                         const std::function<void(const SqlRowView&)>& each, std::string* error) {
  // Text rows, converted: what a connection without a faster way does.
  class TextRow : public SqlRowView {
   public:
    const std::vector<std::string>* row = nullptr;
    std::string_view text(int column) const override { return (*row)[column]; }
    double number(int column) const override {
      return std::strtod((*row)[column].c_str(), nullptr);
    }
  };
  SqlRows rows;
  if (!exec(sql, params, &rows, nullptr, error)) return false;
  TextRow view;
  for (const auto& row : rows) {
    view.row = &row;
    each(view);
  }
  return true;
}

const std::vector<Migration>& SchemaMigrations() { return kMigrations; }

SqlResultsStore::SqlResultsStore(std::unique_ptr<SqlConnection> connection)
    : connection_(std::move(connection)) {}

int SqlResultsStore::schemaVersion(std::string* error) {
  SqlRows rows;
  if (!connection_->exec("SELECT MAX(version) FROM schema_migrations", {}, &rows, nullptr, error)) {
    return -1;
  }
  return rows.empty() ? 0 : Number(rows[0][0]);
}

bool SqlResultsStore::migrate(std::string* error) {
  const int known = kMigrations.empty() ? 0 : kMigrations.back().number;
  // A store that is up to date is only read here, so that an account or a
  // file that may only be read can be queried.
  {
    std::string ignored;
    const int current = schemaVersion(&ignored);
    if (current == known) return true;
  }
  if (!connection_->beginExclusive(error)) return false;
  auto fail = [&] {
    connection_->script("ROLLBACK", nullptr);
    return false;
  };
  if (!connection_->script("CREATE TABLE IF NOT EXISTS schema_migrations (version INTEGER "
                           "PRIMARY KEY, name TEXT NOT NULL, applied_at TEXT NOT NULL)",
                           error)) {
    return fail();
  }
  const int current = schemaVersion(error);
  if (current < 0) return fail();
  if (current > known) {
    if (error) {
      *error = describe() + " has schema version " + std::to_string(current) +
               "; this program knows versions up to " + std::to_string(known);
    }
    return fail();
  }
  const std::string now = isoDateTime(SystemClock().now());
  for (const Migration& m : kMigrations) {
    if (m.number <= current) continue;
    if (!connection_->script(m.sql, error) ||
        !connection_->exec("INSERT INTO schema_migrations (version, name, applied_at) VALUES ($1, "
                           "$2, $3)",
                           {std::to_string(m.number), std::string(m.name), now}, nullptr, nullptr,
                           error)) {
      if (error) *error = "schema migration " + std::string(m.name) + ": " + *error;
      return fail();
    }
  }
  if (!connection_->script("COMMIT", error)) return fail();
  return true;
}

bool SqlResultsStore::recordOne(const StoredUut& original, std::string* error) {
  // Text that is not UTF-8 is converted as the trace's text is, so a server
  // that wants UTF-8 takes it and the file database holds the same.
  const StoredUut uut = Utf8Record(original);
  int failed = 0;
  for (const auto& c : uut.checks) failed += c.passed ? 0 : 1;
  static const std::string insertUut = [] {
    std::string sql = std::string("INSERT INTO uut (") + kUutColumns + ") VALUES (";
    for (int i = 1; i <= kUutColumnCount; ++i) sql += (i > 1 ? ", $" : "$") + std::to_string(i);
    return sql + ") ON CONFLICT (uut_key) DO NOTHING";
  }();
  long changed = 0;
  if (!connection_->exec(
          insertUut,
          {uut.key, uut.station, uut.sequenceFile, uut.testDefinition, uut.testTitle,
           uut.testVersion, uut.serial, uut.testDate, uut.operators, uut.description, uut.startedAt,
           uut.endedAt, std::string(uut.passed ? kVerdictPassText : kVerdictFailText),
           std::to_string(uut.checks.size()), std::to_string(failed), uut.resumed},
          nullptr, &changed, error)) {
    return false;
  }
  if (changed == 0) return true;  // written before: its checks are there too
  for (size_t i = 0; i < uut.files.size(); ++i) {
    if (!connection_->exec("INSERT INTO uut_file (uut_key, position, path) VALUES ($1, $2, $3)",
                           {uut.key, std::to_string(i + 1), uut.files[i]}, nullptr, nullptr,
                           error)) {
      return false;
    }
  }
  for (size_t first = 0; first < uut.checks.size(); first += kChecksPerStatement) {
    const size_t count = std::min(kChecksPerStatement, uut.checks.size() - first);
    std::string& sql = insertChecks_[count];
    if (sql.empty()) {
      sql =
          "INSERT INTO stage_check (uut_key, position, step, row_number, kind, parameter, channel, "
          "value, reading, units, lower_limit, upper_limit, result, message, ended_at) VALUES ";
      for (size_t r = 0; r < count; ++r) {
        sql += r ? ", (" : "(";
        for (int c = 1; c <= kCheckColumnCount; ++c) {
          sql += (c > 1 ? ", $" : "$") + std::to_string(r * kCheckColumnCount + c);
        }
        sql += ")";
      }
    }
    SqlParams params;
    params.reserve(count * kCheckColumnCount);
    for (size_t i = first; i < first + count; ++i) {
      const StoredCheck& c = uut.checks[i];
      params.insert(params.end(),
                    {uut.key, std::to_string(i + 1), std::to_string(c.step), std::to_string(c.row),
                     c.kind, c.parameter, c.channel, c.value, Reading(c.value), c.units, c.lower,
                     c.upper, std::string(c.passed ? "Pass" : "Fail"), c.message, uut.endedAt});
    }
    if (!connection_->exec(sql, params, nullptr, nullptr, error)) return false;
  }
  return true;
}

bool SqlResultsStore::refusedContent() const { return connection_->refusedContent(); }

bool SqlResultsStore::record(const std::vector<StoredUut>& batch, std::string* error) {
  if (batch.empty()) return true;
  if (!connection_->beginWrite(error)) return false;
  for (size_t i = 0; i < batch.size(); ++i) {
    if (!recordOne(batch[i], error)) {
      connection_->script("ROLLBACK", nullptr);
      return false;
    }
    if (afterRecordSent) afterRecordSent(i);
  }
  if (!connection_->script("COMMIT", error)) {
    connection_->script("ROLLBACK", nullptr);
    return false;
  }
  return true;
}

bool SqlResultsStore::list(const UutFilter& filter, std::vector<StoredUut>& out,
                           std::string* error) {
  SqlParams params;
  const std::string sql = std::string("SELECT ") + kUutColumns + " FROM uut" +
                          Where(filter, params) + Order(filter) + Limit(filter);
  SqlRows rows;
  if (!connection_->exec(sql, params, &rows, nullptr, error)) return false;
  out.clear();
  out.reserve(rows.size());
  for (const auto& row : rows) out.push_back(UutFromRow(row));
  if (filter.oldestFirst) std::reverse(out.begin(), out.end());
  return true;
}

bool SqlResultsStore::fetch(const UutFilter& filter, std::vector<StoredUut>& out,
                            std::string* error) {
  if (!list(filter, out, error)) return false;
  if (out.empty()) return true;
  // One query for every check of the listed records, in their order.
  SqlParams params;
  const std::string where = Where(filter, params);
  std::string sql =
      "SELECT c.uut_key, c.step, c.row_number, c.kind, c.parameter, c.channel, c.value, c.units, "
      "c.lower_limit, c.upper_limit, c.result, c.message FROM stage_check c JOIN (SELECT uut_key, "
      "ended_at FROM uut" +
      where + Order(filter) + Limit(filter) +
      ") u ON u.uut_key = c.uut_key ORDER BY u.ended_at DESC, c.uut_key DESC, c.position";
  SqlRows rows;
  if (!connection_->exec(sql, params, &rows, nullptr, error)) return false;
  std::map<std::string, StoredUut*> byKey;
  for (auto& uut : out) byKey[uut.key] = &uut;
  for (const auto& row : rows) {
    auto it = byKey.find(row[0]);
    if (it == byKey.end()) continue;
    StoredCheck c;
    c.step = Number(row[1]);
    c.row = Number(row[2]);
    c.kind = row[3];
    c.parameter = row[4];
    c.channel = row[5];
    c.value = row[6];
    c.units = row[7];
    c.lower = row[8];
    c.upper = row[9];
    c.passed = row[10] == "Pass";
    c.message = row[11];
    it->second->checks.push_back(std::move(c));
  }
  return true;
}

bool SqlResultsStore::yield(const UutFilter& filter, std::vector<YieldRow>& out,
                            std::string* error) {
  // A UUT is its serial number's first test of a title when no record of
  // the same serial and title ended before it (the key settles a tie); the
  // serial number's index makes that a lookup per record.
  SqlParams params;
  const std::string sql =
      "SELECT substr(ended_at, 1, 10) AS day, test_title, station, COUNT(*), SUM(CASE WHEN "
      "verdict = 'PASS' THEN 1 ELSE 0 END), SUM(first), SUM(CASE WHEN verdict = 'PASS' THEN first "
      "ELSE 0 END) FROM (SELECT ended_at, test_title, station, verdict, CASE WHEN EXISTS (SELECT 1 "
      "FROM uut p WHERE p.serial = u.serial AND p.test_title = u.test_title AND (p.ended_at < "
      "u.ended_at OR (p.ended_at = u.ended_at AND p.uut_key < u.uut_key))) THEN 0 ELSE 1 END AS "
      "first FROM uut u" +
      Where(filter, params) +
      ") t GROUP BY substr(ended_at, 1, 10), test_title, station ORDER BY day DESC, test_title, "
      "station" +
      Limit(filter);
  SqlRows rows;
  if (!connection_->exec(sql, params, &rows, nullptr, error)) return false;
  out.clear();
  for (const auto& row : rows) {
    out.push_back(
        {row[0], row[1], row[2], Number(row[3]), Number(row[4]), Number(row[5]), Number(row[6])});
  }
  return true;
}

bool ParseStoreSpec(const std::string& spec, const std::string& dataRoot, StoreSpec& out,
                    std::string* error) {
  out = StoreSpec{};
  if (!StoreBackEndsBuilt()) {
    if (spec.empty() || spec == "off") {
      out.kind = StoreSpec::Kind::kOff;
      return true;
    }
    if (error)
      *error = "this build has no results store (the Windows builds leave it out): use \"off\"";
    return false;
  }
  if (spec.empty() || spec == "sqlite") {
    out.target = join(dataRoot, kStoreFileName);
  } else if (spec == "off") {
    out.kind = StoreSpec::Kind::kOff;
  } else if (spec.rfind("sqlite:", 0) == 0 && spec.size() > 7) {
    out.target = spec.substr(7);
  } else if (IsPostgresConninfo(spec)) {
    out.kind = StoreSpec::Kind::kPostgres;
    out.target = spec;
  } else {
    if (error) {
      *error =
          "the results store is \"sqlite\", \"sqlite:FILE\", \"off\" or a connection string "
          "(postgresql://... or host=... dbname=...)";
    }
    return false;
  }
  return true;
}

std::string DescribeStoreSpec(const StoreSpec& spec) {
  switch (spec.kind) {
    case StoreSpec::Kind::kOff:
      return "off";
    case StoreSpec::Kind::kSqlite:
      return spec.target;
    case StoreSpec::Kind::kPostgres:
      return RedactConninfo(spec.target);
  }
  return {};
}

std::unique_ptr<SqlResultsStore> OpenResultsStore(const StoreSpec& spec, std::string* error,
                                                  int sqliteBusyTimeoutMs) {
  std::unique_ptr<SqlConnection> connection;
  if (spec.kind == StoreSpec::Kind::kSqlite) {
    // Stations that open one new database file together: setting its
    // journal mode wants the file to itself and does not wait its busy time
    // for it as statements do, so the opening is tried again within it.
    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(std::max(0, sqliteBusyTimeoutMs));
    for (;;) {
      SqliteOptions options;
      options.busyTimeoutMs = sqliteBusyTimeoutMs;
      std::string why;
      connection = OpenSqlite(spec.target, options, &why);
      auto store = connection ? std::make_unique<SqlResultsStore>(std::move(connection)) : nullptr;
      if (store && store->migrate(&why)) return store;
      const bool locked = why.find("database is locked") != std::string::npos;
      if (!locked || std::chrono::steady_clock::now() >= until) {
        if (error) *error = why;
        return nullptr;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  } else if (spec.kind == StoreSpec::Kind::kPostgres) {
    connection = OpenPostgres(spec.target, error);
  } else {
    if (error) *error = "the results store is off";
    return nullptr;
  }
  if (!connection) return nullptr;
  auto store = std::make_unique<SqlResultsStore>(std::move(connection));
  if (!store->migrate(error)) return nullptr;
  return store;
}

std::string StoreKey(const StoreSpec& spec) {
  if (spec.kind != StoreSpec::Kind::kSqlite) return DescribeStoreSpec(spec);
  std::error_code ec;
  const auto absolute = std::filesystem::absolute(spec.target, ec);
  return ec ? spec.target : absolute.lexically_normal().string();
}

bool NormaliseDateBound(const std::string& text, bool upper, std::string& out) {
  std::string full = text;
  if (text.size() == 10) full += upper ? " 23:59:59" : " 00:00:00";
  const auto parsed = parseDateTime(full);
  if (!parsed) return false;
  out = isoDateTime(*parsed);
  return true;
}

}  // namespace tavrix
