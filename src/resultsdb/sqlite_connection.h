// The embedded back end: one database file, created on first use, in
// write-ahead-log mode so that readers (`tavrix-cli results`) never block the
// station that writes.
#pragma once

#include <memory>
#include <string>

#include "resultsdb/sql_connection.h"

namespace tavrix {

struct SqliteOptions {
  // How long a statement waits for another connection's lock before it
  // fails as "database is locked".
  int busyTimeoutMs = 5000;
  bool readOnly = false;
};

// Opens (creating the file and its folder when missing) the database at
// `path`; nullptr with a message when it cannot.
std::unique_ptr<SqlConnection> OpenSqlite(const std::string& path, const SqliteOptions& options,
                                          std::string* error);

}  // namespace tavrix
