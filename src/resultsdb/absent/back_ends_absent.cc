// The database back ends of a build without SQLite and libpq (the Windows
// builds): nothing can be opened, and the store setting says so before a run
// starts.
#include "resultsdb/postgres_connection.h"
#include "resultsdb/sqlite_connection.h"

namespace tavrix {

namespace {
constexpr const char* kAbsent = "this build has no results store (the Windows builds leave it out)";
}

bool StoreBackEndsBuilt() { return false; }

std::unique_ptr<SqlConnection> OpenSqlite(const std::string&, const SqliteOptions&,
                                          std::string* error) {
  if (error) *error = kAbsent;
  return nullptr;
}

std::unique_ptr<SqlConnection> OpenPostgres(const std::string&, std::string* error) {
  if (error) *error = kAbsent;
  return nullptr;
}

bool IsPostgresConninfo(const std::string& spec) {
  return spec.rfind("postgresql://", 0) == 0 || spec.rfind("postgres://", 0) == 0 ||
         spec.find('=') != std::string::npos;
}

std::string RedactConninfo(const std::string&) { return "(a results server)"; }

}  // namespace tavrix
