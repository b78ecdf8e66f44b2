#include "ctl/session.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "core/iniConfig.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/schemaVersion.h"
#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"

namespace {

/// "NOTICE:  task 7 is paused already" on standard error, in koductl's own form.
void printNotice(void*, const char* message) {
  fmt::print(stderr, "koductl: {}\n", serverMessage(message));
}

/// The server's code, whatever the language of its words: "42501" of "ERROR:  42501: ..."; "" when
/// there is none.
std::string sqlStateOf(const std::string& message) {
  constexpr std::size_t kLength = 5;
  const std::string line = message.substr(0, message.find('\n'));
  for (auto at = line.find(":  "); at != std::string::npos; at = line.find(":  ", at + 1)) {
    const auto end = at + 3 + kLength;
    // Behind a word of five letters, as ERROR, there are two blanks.
    if (line.find(": ", at + 3) == end && line.find(":  ", at + 3) != end) {
      return line.substr(at + 3, kLength);
    }
  }
  return "";
}

/// Whether an error is about a table, a column or a function that is not there.
bool isAboutMissing(const std::string& sqlState) {
  return sqlState == "42P01" || sqlState == "42703" || sqlState == "42883";
}

/// libpq begins the further lines of some of its messages with a tab.
std::string withoutTabs(std::string message) {
  for (std::size_t at = 0; (at = message.find("\n\t", at)) != std::string::npos;) {
    message.erase(at + 1, 1);
  }
  return message;
}

std::unique_ptr<pgSafeThread> connect(const DaemonConfig& config, const Options& options) {
  try {
    auto connection = std::make_unique<pgSafeThread>(options.connection.empty()
                                                         ? connectionString(config, options.user)
                                                         : connectionString(options.connection));
    PQsetErrorVerbosity(connection->connection, PQERRORS_VERBOSE);  // with the SQLSTATE
    PQsetNoticeProcessor(connection->connection, printNotice, nullptr);
    // Whatever the role or the environment says: times are UTC, and names are the schema's.
    PQclear(connection->executeRequest(
        "SET timezone = 'UTC'; SET search_path = public; SET client_encoding = 'UTF8'"));
    return connection;
  } catch (const PostgresqlException& e) {
    const std::string password =
        options.user.empty() ? "" : "; --user reads PGPASSWORD and ~/.pgpass";
    const std::string place =
        options.connection.empty() ? config.databaseFile : "what --connect says";
    throw Failure(kNoDatabase, fmt::format("{}\nlook whether the server runs, and at {}{}",
                                           withoutTabs(trim(e.what())), place, password));
  }
}

/// The sessions of the daemon's role in the database that `condition` holds for.
long countSessions(Session& session, const std::string& condition) {
  const Rows rows = session.query(
      "SELECT count(*) AS sessions FROM pg_stat_activity"
      " WHERE usename = $1 AND datname = current_database() AND " +
          condition,
      {trim(session.config.user)});
  return rows.number(0, "sessions");
}

}  // namespace

int Rows::indexOf(const char* column) const {
  const int index = PQfnumber(result.get(), column);
  if (index < 0) {
    throw std::logic_error(std::string("no column ") + column);
  }
  return index;
}

bool Rows::isNull(int row, const char* column) const {
  return PQgetisnull(result.get(), row, indexOf(column)) == 1;
}

std::string Rows::text(int row, const char* column) const {
  return PQgetvalue(result.get(), row, indexOf(column));
}

std::optional<std::string> Rows::optionalText(int row, const char* column) const {
  return isNull(row, column) ? std::nullopt : std::optional(text(row, column));
}

long Rows::number(int row, const char* column) const {
  return optionalNumber(row, column).value_or(0);
}

std::optional<long> Rows::optionalNumber(int row, const char* column) const {
  return isNull(row, column) ? std::nullopt : std::optional(std::stol(text(row, column)));
}

Session::Session(const Options& options, SchemaRule rule)
    : config(options.connection.empty() ? readConfig(options.configFile) : DaemonConfig{}),
      connection(connect(config, options)) {
  if (rule == SchemaRule::kKnownVersion) {
    const SchemaState state = readSchemaState(*this);
    refuseNewerSchema(state);
    advice = state.isBehind() ? fmt::format("\n{}", upgradeAdvice(state)) : "";
  }
}

Session::~Session() = default;

void Session::makeReadOnly() {
  query("SET default_transaction_read_only = on");
}

Rows Session::query(const std::string& sql, const std::vector<std::string>& params) {
  try {
    return Rows(connection->executeParamRequest(sql, params));
  } catch (const PostgresqlException& e) {
    fail(e.what());
  }
}

void Session::execute(const std::string& sql) {
  try {
    PQclear(connection->executeRequest(sql));
  } catch (const PostgresqlException& e) {
    fail(e.what());
  }
}

void Session::fail(const std::string& message) const {
  if (PQstatus(connection->connection) != CONNECTION_OK) {
    throw Failure(kNoDatabase, serverMessage(message));
  }
  const std::string sqlState = sqlStateOf(message);
  throw Failure(sqlState == "42501" ? kNotPermitted : kRefused,
                serverMessage(message) + (isAboutMissing(sqlState) ? advice : ""), sqlState);
}

bool isDaemonConnected(Session& session) {
  // Tools name themselves kodu_ and something; the daemon does not name itself.
  return countSessions(session, "coalesce(application_name, '') NOT LIKE 'kodu\\_%'") > 0;
}

long countDaemons(Session& session) {
  // By the empty name, not by those that are no kodu_ one: an operator's psql may take the role
  // too.
  return countSessions(session, "application_name = '' AND backend_type = 'client backend'");
}

std::string serverMessage(const std::string& text) {
  std::string message = text;
  // "Execute failed:  ERROR:  ..." or "NOTICE:  ..."; severities come in the server's language.
  for (int part = 0; part < 2; ++part) {
    const auto end = message.find(":  ");
    if (end != std::string::npos && end < message.find('\n')) {
      message.erase(0, end + 3);
    }
  }
  // The SQLSTATE, five letters or digits.
  if (message.find(": ") == 5) {
    message.erase(0, 7);
  }
  for (const char* developers : {"\nCONTEXT:", "\nSCHEMA NAME:", "\nLOCATION:"}) {
    message.erase(std::min(message.find(developers), message.size()));
  }
  if (const auto hint = message.find("\nHINT:  "); hint != std::string::npos) {
    message.replace(hint + 1, 7, "hint: ");
  }
  return withoutTabs(trim(message));
}
