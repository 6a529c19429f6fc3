#include "resultsdb/sqlite_connection.h"

#include <sqlite3.h>

#include <cctype>
#include <cstdlib>
#include <unordered_map>

#include "common/file_system.h"

namespace tavrix {

bool StoreBackEndsBuilt() { return true; }

namespace {

// "$3" becomes "?3": the file database numbers its parameters the same way
// under another sign. Quoted text is left alone.
std::string NumberedParameters(std::string_view sql) {
  std::string out;
  out.reserve(sql.size());
  char quote = 0;
  for (size_t i = 0; i < sql.size(); ++i) {
    const char c = sql[i];
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '\'' || c == '"') {
      quote = c;
    } else if (c == '$' && i + 1 < sql.size() &&
               std::isdigit(static_cast<unsigned char>(sql[i + 1]))) {
      out += '?';
      continue;
    }
    out += c;
  }
  return out;
}

class SqliteConnection : public SqlConnection {
 public:
  SqliteConnection(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
  ~SqliteConnection() override {
    for (auto& [sql, stmt] : statements_) sqlite3_finalize(stmt);
    sqlite3_close_v2(db_);
  }

  bool exec(std::string_view sql, const SqlParams& params, SqlRows* rows, long* changed,
            std::string* error) override {
    sqlite3_stmt* stmt = prepare(sql, error);
    if (stmt == nullptr) return false;
    if (!bind(stmt, params, error)) return false;
    for (;;) {
      const int rc = sqlite3_step(stmt);
      if (rc == SQLITE_DONE) break;
      if (rc != SQLITE_ROW) return fail(stmt, error);
      if (rows == nullptr) continue;
      const int columns = sqlite3_column_count(stmt);
      auto& row = rows->emplace_back();
      row.reserve(columns);
      for (int c = 0; c < columns; ++c) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
        row.emplace_back(text ? std::string(text, sqlite3_column_bytes(stmt, c)) : std::string());
      }
    }
    if (changed) *changed = sqlite3_changes(db_);
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    return true;
  }

  bool each(std::string_view sql, const SqlParams& params,
            const std::function<void(const SqlRowView&)>& each, std::string* error) override {
    // Numbers straight from the database, with no text in between.
    class Row : public SqlRowView {
     public:
      sqlite3_stmt* stmt = nullptr;
      std::string_view text(int column) const override {
        const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
        return value ? std::string_view(value, sqlite3_column_bytes(stmt, column))
                     : std::string_view();
      }
      double number(int column) const override {
        if (sqlite3_column_type(stmt, column) == SQLITE_TEXT) {
          return std::strtod(std::string(text(column)).c_str(), nullptr);
        }
        return sqlite3_column_double(stmt, column);
      }
    };
    Row row;
    row.stmt = prepare(sql, error);
    if (row.stmt == nullptr) return false;
    if (!bind(row.stmt, params, error)) return false;
    for (;;) {
      const int rc = sqlite3_step(row.stmt);
      if (rc == SQLITE_DONE) break;
      if (rc != SQLITE_ROW) return fail(row.stmt, error);
      each(row);
    }
    sqlite3_reset(row.stmt);
    sqlite3_clear_bindings(row.stmt);
    return true;
  }

  bool script(std::string_view sql, std::string* error) override {
    char* message = nullptr;
    if (sqlite3_exec(db_, std::string(sql).c_str(), nullptr, nullptr, &message) == SQLITE_OK) {
      return true;
    }
    refusedContent_ = false;
    if (error) *error = describe() + ": " + (message ? message : sqlite3_errmsg(db_));
    sqlite3_free(message);
    return false;
  }

  bool beginExclusive(std::string* error) override { return script("BEGIN IMMEDIATE", error); }
  bool beginWrite(std::string* error) override { return script("BEGIN IMMEDIATE", error); }

  std::string describe() const override { return "the results database " + path_; }

 private:
  bool bind(sqlite3_stmt* stmt, const SqlParams& params, std::string* error) {
    for (size_t i = 0; i < params.size(); ++i) {
      const int at = static_cast<int>(i + 1);
      const int rc = params[i]
                         ? sqlite3_bind_text(stmt, at, params[i]->data(),
                                             static_cast<int>(params[i]->size()), SQLITE_TRANSIENT)
                         : sqlite3_bind_null(stmt, at);
      if (rc != SQLITE_OK) return fail(stmt, error);
    }
    return true;
  }

  sqlite3_stmt* prepare(std::string_view sql, std::string* error) {
    auto it = statements_.find(std::string(sql));
    if (it != statements_.end()) return it->second;
    sqlite3_stmt* stmt = nullptr;
    const std::string text = NumberedParameters(sql);
    if (sqlite3_prepare_v2(db_, text.c_str(), static_cast<int>(text.size()), &stmt, nullptr) !=
        SQLITE_OK) {
      if (error) *error = describe() + ": " + sqlite3_errmsg(db_);
      sqlite3_finalize(stmt);
      return nullptr;
    }
    statements_.emplace(std::string(sql), stmt);
    return stmt;
  }

  bool fail(sqlite3_stmt* stmt, std::string* error) {
    const int code = sqlite3_errcode(db_);
    refusedContent_ = code == SQLITE_TOOBIG || code == SQLITE_CONSTRAINT ||
                      code == SQLITE_MISMATCH || code == SQLITE_RANGE;
    if (error) *error = describe() + ": " + sqlite3_errmsg(db_);
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    return false;
  }

  sqlite3* db_;
  std::string path_;
  std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

}  // namespace

std::unique_ptr<SqlConnection> OpenSqlite(const std::string& path, const SqliteOptions& options,
                                          std::string* error) {
  // SQLite opens the database file itself; its folder is made here.
  // A new database is for its owner alone to read, as is its journal; the
  // database's log files take its permissions.
  // SQLite reaches the disk by itself, past any file system a run is
  // given, so its file is prepared on the disk directly.
  if (!options.readOnly) {
    LocalFileSystem disk;
    disk.makeFolders(parentFolder(path), nullptr);
    disk.createPrivate(path, nullptr);
  }
  sqlite3* db = nullptr;
  const int flags =
      (options.readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
      SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    if (error) {
      *error = "the results database " + path + ": " + (db ? sqlite3_errmsg(db) : "out of memory");
    }
    sqlite3_close_v2(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, options.busyTimeoutMs);
  sqlite3_extended_result_codes(db, 0);
  auto connection = std::make_unique<SqliteConnection>(db, path);
  // A write-ahead log lets readers work beside the writer. With FULL the
  // log is flushed to the disk at every commit, so a commit that returned
  // survives a power cut; NORMAL would flush it only at checkpoints, and the
  // last commits could vanish while the queue's journal says they were taken.
  const char* setup = options.readOnly ? "PRAGMA foreign_keys = ON"
                                       : "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; "
                                         "PRAGMA wal_autocheckpoint = 4000; "
                                         "PRAGMA foreign_keys = ON";
  if (!connection->script(setup, error)) return nullptr;
  return connection;
}

}  // namespace tavrix
