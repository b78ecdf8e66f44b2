#include "ctl/session.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "core/iniConfig.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"

namespace {

/// "NOTICE:  task 7 is paused already" on standard error, in koductl's own form.
void printNotice(void*, const char* message) {
  fmt::print(stderr, "koductl: {}\n", serverMessage(message));
}

/// Whether the server's words, in whatever language, are about a right: "ERROR:  42501: ...".
bool isAboutRights(const std::string& message) {
  return message.substr(0, message.find('\n')).find(":  42501: ") != std::string::npos;
}

/// libpq begins the further lines of some of its messages with a tab.
std::string withoutTabs(std::string message) {
  for (std::size_t at = 0; (at = message.find("\n\t", at)) != std::string::npos;) {
    message.erase(at + 1, 1);
  }
  return message;
}

/// Tells kodu_daemon_state whose sessions are the daemon's: those of the role that the INI file
/// names. And leaves off compiling: the view of all tasks looks dear to the planner, and is not.
void prepareSession(pgSafeThread& connection, const DaemonConfig& config) {
  PQclear(connection.executeParamRequest(
      "SELECT set_config('kodu.daemon_role', $1, FALSE), set_config('jit', 'off', FALSE)",
      {trim(config.user)}));
}

std::unique_ptr<pgSafeThread> connect(const DaemonConfig& config, const std::string& user) {
  try {
    auto connection = std::make_unique<pgSafeThread>(connectionString(config, user));
    PQsetErrorVerbosity(connection->connection, PQERRORS_VERBOSE);  // with the SQLSTATE
    PQsetNoticeProcessor(connection->connection, printNotice, nullptr);
    // Whatever the role or the environment says: times are UTC, and names are the schema's.
    PQclear(connection->executeRequest(
        "SET timezone = 'UTC'; SET search_path = public; SET client_encoding = 'UTF8'"));
    prepareSession(*connection, config);
    return connection;
  } catch (const PostgresqlException& e) {
    const std::string password = user.empty() ? "" : "; --user reads PGPASSWORD and ~/.pgpass";
    throw Failure(kNoDatabase,
                  fmt::format("{}\nlook whether the server runs, and at {}{}",
                              withoutTabs(trim(e.what())), config.databaseFile, password));
  }
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

Session::Session(const Options& options)
    : config(readConfig(options.configFile)), connection(connect(config, options.user)) {}

Session::~Session() = default;

void Session::makeReadOnly() {
  query("SET default_transaction_read_only = on");
}

Rows Session::query(const std::string& sql, const std::vector<std::string>& params) {
  try {
    return Rows(connection->executeParamRequest(sql, params));
  } catch (const PostgresqlException& e) {
    if (PQstatus(connection->connection) != CONNECTION_OK) {
      throw Failure(kNoDatabase, serverMessage(e.what()));
    }
    throw Failure(isAboutRights(e.what()) ? kNotPermitted : kRefused, serverMessage(e.what()));
  }
}

bool isDaemonConnected(Session& session) {
  return session.query("SELECT connected FROM kodu_daemon_state").isTrue(0, "connected");
}

long countDaemons(Session& session) {
  return session.query("SELECT daemons FROM kodu_daemon_state").number(0, "daemons");
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
