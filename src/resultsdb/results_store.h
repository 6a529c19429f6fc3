// The results store: every UUT record and its stage checks, kept beside the
// results files in a SQL database that a plant can query. The results files
// stay the record of truth; the store is written after them, from a queue
// (results_queue.h) by a thread of its own (results_recorder.h).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "resultsdb/sql_connection.h"
#include "resultsdb/stored_uut.h"

namespace tavrix {

// Which records a query takes; empty items do not filter.
struct UutFilter {
  std::string serial;
  std::string station;
  std::string socket;   // the socket of a station of several: station "NAME/SOCKET"
  std::string test;     // the test title
  std::string verdict;  // "PASS" or "FAIL"
  std::string from;     // "YYYY-MM-DD[ HH:MM:SS]", by the time the UUT ended
  std::string to;       // inclusive; a day alone means to its end
  std::string key;      // one record by its key
  int limit = 0;        // 0: all
  int offset = 0;       // records passed over before the first taken (with a limit)
  // Paging by a record instead of an offset, at the same cost on any page:
  // only the records older (or newer) than the one of this end and key, in
  // the order of the lists (the end, then the key).
  std::string olderEnded, olderKey;
  std::string newerEnded, newerKey;
  // The list takes the oldest `limit` records rather than the newest (and
  // still gives them newest first): the page just newer than a record, or
  // the last page.
  bool oldestFirst = false;
};

// The WHERE clause of `filter` over the uut table's own column names,
// introduced by `lead` (" WHERE " or " AND "), its parameters appended to
// `params` and numbered after those already there; empty for no filter.
std::string UutFilterSql(const UutFilter& filter, SqlParams& params, const char* lead = " WHERE ");

// Pass rate of one test on one station on one day.
struct YieldRow {
  std::string day;  // "YYYY-MM-DD"
  std::string test;
  std::string station;
  int tested = 0;
  int passed = 0;
  // Of those, the UUTs that were their serial number's first test of that
  // test title (whenever it ran), and how many of them passed.
  int firstTested = 0;
  int firstPassed = 0;
};

// Interface to the store. Abstract so the recorder can be tested against a
// store that fails on demand; the real one is SqlResultsStore.
class ResultsStore {
 public:
  virtual ~ResultsStore() = default;
  // Writes `batch` in one transaction: every record with all its checks, or
  // nothing. A record whose key is stored already is passed over.
  virtual bool record(const std::vector<StoredUut>& batch, std::string* error) = 0;
  // Records without their checks (counts filled), newest first.
  virtual bool list(const UutFilter& filter, std::vector<StoredUut>& out, std::string* error) = 0;
  // Records with their checks, newest first.
  virtual bool fetch(const UutFilter& filter, std::vector<StoredUut>& out, std::string* error) = 0;
  virtual bool yield(const UutFilter& filter, std::vector<YieldRow>& out, std::string* error) = 0;
  // Where the store is, fit to show.
  virtual std::string describe() const = 0;
  // True when the last record() failed because the store refused what a
  // record holds (a value out of its range), not because it could not be
  // reached or written: sending the same record again will fail again.
  virtual bool refusedContent() const { return false; }
};

// One schema migration: applied in order of number, each once.
struct Migration {
  int number;
  const char* name;
  const char* sql;
};
const std::vector<Migration>& SchemaMigrations();

class SqlResultsStore : public ResultsStore {
 public:
  explicit SqlResultsStore(std::unique_ptr<SqlConnection> connection);

  // Brings the schema up to date; false when it cannot, or when the
  // database was made by a newer program.
  bool migrate(std::string* error);
  int schemaVersion(std::string* error);

  bool record(const std::vector<StoredUut>& batch, std::string* error) override;
  bool list(const UutFilter& filter, std::vector<StoredUut>& out, std::string* error) override;
  bool fetch(const UutFilter& filter, std::vector<StoredUut>& out, std::string* error) override;
  bool yield(const UutFilter& filter, std::vector<YieldRow>& out, std::string* error) override;
  // The results files of the record `key`, in the order they were written.
  bool files(const std::string& key, std::vector<std::string>& out, std::string* error);
  // How many records the filter takes (its limit and offset left aside).
  bool count(const UutFilter& filter, long& out, std::string* error);
  std::string describe() const override { return connection_->describe(); }
  bool refusedContent() const override;

  SqlConnection& connection() { return *connection_; }
  // Called after each record of a batch is sent and before the commit; the
  // fault tests take the server away here.
  std::function<void(size_t index)> afterRecordSent;

 private:
  bool recordOne(const StoredUut& uut, std::string* error);

  std::unique_ptr<SqlConnection> connection_;
  std::map<size_t, std::string> insertChecks_;  // by number of rows
};

// Where the store is. An empty setting or "sqlite" is the database file
// results.sqlite in the data root; "sqlite:PATH" another file; "off" none;
// a connection string a server.
struct StoreSpec {
  enum class Kind { kOff, kSqlite, kPostgres } kind = Kind::kSqlite;
  std::string target;  // the file, or the connection string
};
bool ParseStoreSpec(const std::string& spec, const std::string& dataRoot, StoreSpec& out,
                    std::string* error);
// The store named fit to show: a connection string without its password.
std::string DescribeStoreSpec(const StoreSpec& spec);
// The store as the queue's journal names it: the database file's absolute
// path, or the connection string without its password.
std::string StoreKey(const StoreSpec& spec);

inline constexpr std::string_view kStoreFileName = "results.sqlite";

// Opens and migrates the store; nullptr with a message.
std::unique_ptr<SqlResultsStore> OpenResultsStore(const StoreSpec& spec, std::string* error,
                                                  int sqliteBusyTimeoutMs = 5000);

// "YYYY-MM-DD" or "YYYY-MM-DD HH:MM:SS" as the bound of a date range (a day
// alone starts at 00:00:00, or ends at 23:59:59 for the upper bound); false
// when the text is not a date.
bool NormaliseDateBound(const std::string& text, bool upper, std::string& out);

}  // namespace tavrix
