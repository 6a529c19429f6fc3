#include "resultsdb/postgres_connection.h"

#include <libpq-fe.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

namespace tavrix {

namespace {

struct Conninfo {
  bool readable = false;
  std::string shown;     // every option but the password
  std::string password;  // to scrub from the server's messages
};

Conninfo ParseConninfo(const std::string& conninfo) {
  Conninfo result;
  char* message = nullptr;
  PQconninfoOption* options = PQconninfoParse(conninfo.c_str(), &message);
  PQfreemem(message);  // it may quote the string, password and all
  if (options == nullptr) return result;
  result.readable = true;
  for (PQconninfoOption* o = options; o->keyword != nullptr; ++o) {
    if (o->val == nullptr || *o->val == '\0') continue;
    const std::string keyword = o->keyword;
    if (keyword == "password") {
      result.password = o->val;
      continue;
    }
    if (keyword != "host" && keyword != "hostaddr" && keyword != "port" && keyword != "dbname" &&
        keyword != "user") {
      continue;
    }
    if (!result.shown.empty()) result.shown += ' ';
    result.shown += keyword + "=" + o->val;
  }
  PQconninfoFree(options);
  return result;
}

}  // namespace

std::string MaskPassword(std::string text, const std::string& password) {
  // The value of every password field ("password=..." with or without
  // quotes) and the password part of a URL's "user:password@".
  auto lower = [](std::string t) {
    for (char& c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return t;
  };
  for (size_t at = lower(text).find("password="); at != std::string::npos;
       at = lower(text).find("password=", at)) {
    const size_t from = at + 9;
    size_t to = from;
    if (to < text.size() && text[to] == '\'') {
      for (++to; to < text.size() && text[to] != '\''; ++to) {
        if (text[to] == '\\') ++to;
      }
      to = std::min(text.size(), to + 1);
    } else {
      while (to < text.size() && !std::isspace(static_cast<unsigned char>(text[to])) &&
             text[to] != '"' && text[to] != '&') {
        ++to;
      }
    }
    text.replace(from, to - from, "***");
    at = from + 3;
  }
  for (size_t scheme = text.find("://"); scheme != std::string::npos;
       scheme = text.find("://", scheme + 3)) {
    const size_t start = scheme + 3;
    const size_t end = text.find_first_of("/?# \t\n\"'", start);
    const size_t atSign = text.rfind('@', end == std::string::npos ? text.size() : end);
    if (atSign == std::string::npos || atSign < start) continue;
    const size_t colon = text.find(':', start);
    if (colon == std::string::npos || colon > atSign) continue;
    text.replace(colon + 1, atSign - colon - 1, "***");
  }
  // The password quoted some other way is masked where it cannot be taken
  // for a word of the message: a short one is left, as masking it would
  // show where it stands in the words around it.
  if (password.size() >= 8) {
    for (size_t at = text.find(password); at != std::string::npos; at = text.find(password, at)) {
      text.replace(at, password.size(), "***");
    }
  }
  return text;
}

namespace {

std::string Trimmed(const char* message) {
  std::string text = message ? message : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

class PostgresConnection : public SqlConnection {
 public:
  PostgresConnection(PGconn* conn, Conninfo info) : conn_(conn), info_(std::move(info)) {}
  ~PostgresConnection() override { PQfinish(conn_); }

  bool exec(std::string_view sql, const SqlParams& params, SqlRows* rows, long* changed,
            std::string* error) override {
    std::vector<const char*> values;
    values.reserve(params.size());
    for (const auto& p : params) values.push_back(p ? p->c_str() : nullptr);
    PGresult* result =
        PQexecParams(conn_, std::string(sql).c_str(), static_cast<int>(values.size()), nullptr,
                     values.data(), nullptr, nullptr, 0);
    const bool ok = check(result, error);
    if (ok && rows != nullptr) {
      const int n = PQntuples(result);
      const int columns = PQnfields(result);
      rows->reserve(rows->size() + n);
      for (int r = 0; r < n; ++r) {
        auto& row = rows->emplace_back();
        row.reserve(columns);
        for (int c = 0; c < columns; ++c) {
          row.emplace_back(PQgetvalue(result, r, c), PQgetlength(result, r, c));
        }
      }
    }
    if (ok && changed != nullptr) {
      const char* count = PQcmdTuples(result);
      *changed = (count && *count) ? std::stol(count) : 0;
    }
    PQclear(result);
    return ok;
  }

  bool script(std::string_view sql, std::string* error) override {
    PGresult* result = PQexec(conn_, std::string(sql).c_str());
    const bool ok = check(result, error);
    PQclear(result);
    return ok;
  }

  bool beginExclusive(std::string* error) override {
    // One lock number for the schema of the results store, held to commit.
    return script("BEGIN; SELECT pg_advisory_xact_lock(7301646)", error);
  }

  bool beginWrite(std::string* error) override { return script("BEGIN", error); }

  std::string describe() const override { return "the results server " + info_.shown; }

 private:
  bool check(PGresult* result, std::string* error) {
    const ExecStatusType status = result ? PQresultStatus(result) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return true;
    // Data exceptions (class 22) and integrity violations (class 23) are
    // about the values sent; anything else is about the server or the link.
    const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    refusedContent_ = state != nullptr && (std::string_view(state).substr(0, 2) == "22" ||
                                           std::string_view(state).substr(0, 2) == "23");
    if (error) {
      *error = describe() + ": " +
               MaskPassword(Trimmed(result ? PQresultErrorMessage(result) : PQerrorMessage(conn_)),
                            info_.password);
    }
    return false;
  }

  PGconn* conn_;
  Conninfo info_;
};

}  // namespace

bool IsPostgresConninfo(const std::string& spec) {
  return spec.rfind("postgresql://", 0) == 0 || spec.rfind("postgres://", 0) == 0 ||
         spec.find('=') != std::string::npos;
}

std::string RedactConninfo(const std::string& conninfo) {
  const Conninfo info = ParseConninfo(conninfo);
  return info.readable ? info.shown : "(a connection string that cannot be read)";
}

std::unique_ptr<SqlConnection> OpenPostgres(const std::string& conninfo, std::string* error) {
  Conninfo info = ParseConninfo(conninfo);
  if (!info.readable) {
    if (error) *error = "the results server: the connection string cannot be read";
    return nullptr;
  }
  // A server that does not answer is given up after a few seconds; a
  // connect_timeout in the string wins.
  const char* keywords[] = {"connect_timeout", "application_name", "dbname", nullptr};
  const char* values[] = {"5", "tavrix", conninfo.c_str(), nullptr};
  PGconn* conn = PQconnectdbParams(keywords, values, 1);
  if (conn == nullptr || PQstatus(conn) != CONNECTION_OK) {
    if (error) {
      *error = "the results server " + info.shown + ": " +
               MaskPassword(Trimmed(conn ? PQerrorMessage(conn) : "out of memory"), info.password);
    }
    PQfinish(conn);
    return nullptr;
  }
  // Notices (a server going down says so) are not for the operator's screen.
  PQsetNoticeProcessor(
      conn, [](void*, const char*) {}, nullptr);
  auto connection = std::make_unique<PostgresConnection>(conn, std::move(info));
  if (!connection->script("SET client_min_messages = warning", error)) return nullptr;
  return connection;
}

}  // namespace tavrix
