// A connection to a SQL database, as the results store needs it: statements
// with numbered parameters ($1, $2, ...), text results, and transactions.
// Abstract so that one store serves the embedded file database and a plant's
// server with the same statements; the two implementations are in
// sqlite_connection.h and postgres_connection.h.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix {

// A parameter: text, or SQL NULL.
using SqlValue = std::optional<std::string>;
using SqlParams = std::vector<SqlValue>;
// Result rows; NULL reads as the empty text.
using SqlRows = std::vector<std::vector<std::string>>;

// False in a build without the database back ends (the Windows builds have
// neither SQLite nor libpq): there the store defaults to off and naming one
// is an error.
bool StoreBackEndsBuilt();

// One result row as a query hands it over, valid only during the call.
class SqlRowView {
 public:
  virtual ~SqlRowView() = default;
  // The column as text; NULL reads as the empty text.
  virtual std::string_view text(int column) const = 0;
  // The column as the number the database holds (a column that holds no
  // number reads as its text would convert, 0 when it does not).
  virtual double number(int column) const = 0;
};

class SqlConnection {
 public:
  virtual ~SqlConnection() = default;

  // Runs one statement. `rows` (may be null) receives its result rows and
  // `changed` (may be null) the number of rows it inserted, updated or
  // deleted. False with a message on error.
  virtual bool exec(std::string_view sql, const SqlParams& params, SqlRows* rows, long* changed,
                    std::string* error) = 0;
  // Runs a query and hands its rows to `each` as they come, without keeping
  // them: for queries of many rows. False with a message on error.
  virtual bool each(std::string_view sql, const SqlParams& params,
                    const std::function<void(const SqlRowView&)>& each, std::string* error);
  // Runs statements without parameters, separated by ";".
  virtual bool script(std::string_view sql, std::string* error) = 0;
  // Begins a transaction that no other connection's migration can run
  // beside: the first of many stations to start migrates, the others wait
  // and then find the schema current.
  virtual bool beginExclusive(std::string* error) = 0;
  // Begins a transaction that will write. The file database takes its write
  // lock here, waiting its busy time for it: a transaction that first read
  // (a statement prepared inside it reads the schema) could not wait for the
  // lock later and would fail at once with "database is locked".
  virtual bool beginWrite(std::string* error) = 0;
  // Where the connection goes, fit to show: never a password.
  virtual std::string describe() const = 0;
  // True when the last statement that failed was refused for the data it
  // was given (a value out of range, a constraint), not for the state of the
  // connection or the database.
  bool refusedContent() const { return refusedContent_; }

 protected:
  bool refusedContent_ = false;
};

}  // namespace tavrix
