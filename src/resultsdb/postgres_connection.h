// The plant back end: a database server reached with a connection string,
// shared by many stations.
#pragma once

#include <memory>
#include <string>

#include "resultsdb/sql_connection.h"

namespace tavrix {

// Connects with `conninfo` (either "postgresql://user:pw@host/db" or
// "host=... dbname=..."); nullptr with a message when it cannot. Neither the
// message nor describe() ever holds the password.
std::unique_ptr<SqlConnection> OpenPostgres(const std::string& conninfo, std::string* error);

// `conninfo` fit to show: the password left out; a string that cannot be
// read is not shown at all.
std::string RedactConninfo(const std::string& conninfo);

// A message of the server's library with the password masked: the value of
// each password field and of a URL's "user:password@" (never the password's
// text wherever it happens to appear, which would give a short one away).
std::string MaskPassword(std::string text, const std::string& password);

// True when `spec` names a server rather than a database file.
bool IsPostgresConninfo(const std::string& spec);

}  // namespace tavrix
