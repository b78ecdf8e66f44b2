#include "ctl/session/lockWatch.h"

#include <fmt/format.h>
#include <poll.h>

#include <array>

#include "ctl/terminal/capturedErrors.h"

namespace {

// The limit for one statement of this session; only a server that hangs needs that long.
constexpr std::chrono::seconds kPatience{2};

// Its own statements must not wait.
constexpr const char* kSettings = R"(
SELECT set_config('search_path', $1, false), set_config('client_encoding', 'UTF8', false),
       set_config('lock_timeout', '200ms', false), set_config('statement_timeout', '1s', false),
       set_config('default_transaction_read_only', 'on', false))";

// A session that waits for a row waits for the end of the other transaction. It also has, or waits
// for, the lock of the tuple, which is more informative.
constexpr const char* kLock = R"(
SELECT locktype, coalesce(relation::regclass::text, ''), format('(%s,%s)', page, tuple)
FROM pg_locks AS wanted
WHERE pid = $1::int AND (NOT granted OR locktype = 'tuple')
  AND EXISTS (SELECT FROM pg_locks WHERE pid = wanted.pid AND NOT granted)
ORDER BY locktype = 'tuple' DESC LIMIT 1)";

// The sessions at the end of the chain: those in between wait themselves. A role sees pid,
// role and application name of all sessions, and further columns only of its own.
constexpr const char* kHolders = R"(
WITH RECURSIVE chain (pid) AS (
    SELECT unnest(pg_blocking_pids($1::int))
    UNION SELECT unnest(pg_blocking_pids(pid)) FROM chain WHERE pid <> 0)
SELECT pid,
       CASE WHEN pid = 0 THEN 'a prepared transaction'
            ELSE concat('session ', pid, ' of role ' || usename,
                        ' (' || nullif(concat_ws(', ', nullif(application_name, ''), state ||
                            ' for ' || floor(EXTRACT(EPOCH FROM clock_timestamp() - xact_start))
                                    || ' s'), '') || ')') END
FROM chain LEFT JOIN pg_stat_activity USING (pid)
WHERE pid = 0 OR cardinality(pg_blocking_pids(pid)) = 0
ORDER BY pid LIMIT 3)";

/// The rows of a statement with one parameter; no result when it fails or takes too long.
ResultPtr ask(PGconn* connection, const char* sql, const std::string& parameter) {
  const std::array<const char*, 1> values = {parameter.c_str()};
  if (PQsendQueryParams(connection, sql, 1, nullptr, values.data(), nullptr, nullptr, 0) == 0 ||
      !hasReplied(connection, kPatience)) {
    return nullptr;
  }
  ResultPtr result = replyOf(connection);
  return PQresultStatus(result.get()) == PGRES_TUPLES_OK ? std::move(result) : nullptr;
}

std::string cell(const ResultPtr& result, int row, int column) {
  return PQgetvalue(result.get(), row, column);
}

/// The id of the row at a position of a table; "" for tables without such ids.
std::string idOfRow(PGconn* connection, const std::string& table, const std::string& place) {
  const char* sql = table == "kodu_cron_plugin"
                        ? "SELECT cron_id FROM kodu_cron_plugin WHERE ctid = $1::tid"
                        : "SELECT plugin_id FROM kodu_plugins WHERE ctid = $1::tid";
  if (table != "kodu_cron_plugin" && table != "kodu_plugins") {
    return "";
  }
  const ResultPtr found = ask(connection, sql, place);
  return found && PQntuples(found.get()) == 1 ? cell(found, 0, 0) : "";
}

std::string rowText(PGconn* connection, const std::string& table, const std::string& place) {
  const std::string id = idOfRow(connection, table, place);
  if (id.empty()) {
    return "a row of " + table;
  }
  return fmt::format("{} {} (its row of {})", table == "kodu_plugins" ? "plugin" : "task", id,
                     table);
}

/// A description of the lock in the row of kLock.
std::string lockTextOf(PGconn* connection, const ResultPtr& lock) {
  const std::string type = cell(lock, 0, 0);
  const std::string table = cell(lock, 0, 1);
  if (type == "tuple") {
    return rowText(connection, table, cell(lock, 0, 2));
  }
  if (type == "relation") {
    return "the table " + table;
  }
  if (type == "transactionid") {
    return "a row that another session is writing";
  }
  return fmt::format("a lock of type {}", type);
}

bool isGood(const ResultPtr& result) {
  return !result || PQresultStatus(result.get()) == PGRES_COMMAND_OK ||
         PQresultStatus(result.get()) == PGRES_TUPLES_OK;
}

}  // namespace

bool hasReplied(PGconn* connection, std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  pollfd server = {PQsocket(connection), POLLIN, 0};
  while (PQisBusy(connection) == 1) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return false;
    }
    if (poll(&server, 1, static_cast<int>(left.count())) > 0 && PQconsumeInput(connection) == 0) {
      return true;
    }
  }
  return true;
}

ResultPtr replyOf(PGconn* connection) {
  ResultPtr last;
  while (PGresult* next = PQgetResult(connection)) {
    const ExecStatusType status = PQresultStatus(next);
    if (isGood(last)) {  // the first failure is the server's reason, a second one libpq's
      last.reset(next);
    } else {
      PQclear(next);
    }
    if (status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH) {
      break;  // no statement here copies, and a result of that kind never ends
    }
  }
  return last;
}

bool LockWatch::isConnected() {
  if (!isTried) {
    isTried = true;
    CapturedErrors unwanted;  // the first session has printed them
    connection.reset(PQconnectdb(conninfo.c_str()));
    PQsetNoticeProcessor(
        connection.get(), [](void*, const char*) {}, nullptr);
    ask(connection.get(), kSettings, "public");
  }
  return PQstatus(connection.get()) == CONNECTION_OK;
}

void LockWatch::readHolders() {
  const ResultPtr holders = ask(connection.get(), kHolders, std::to_string(backendId));
  holdersText = remedyText = "";
  for (int row = 0; holders && row < PQntuples(holders.get()); ++row) {
    holdersText += (row > 0 ? " and " : "") + cell(holders, row, 1);
    if (cell(holders, row, 0) != "0") {
      remedyText += (remedyText.empty() ? "SELECT " : ", ") +
                    fmt::format("pg_terminate_backend({})", cell(holders, row, 0));
    }
  }
}

void LockWatch::look() {
  if (!isConnected()) {
    return;
  }
  const ResultPtr lock = ask(connection.get(), kLock, std::to_string(backendId));
  if (lock && PQntuples(lock.get()) == 1) {
    lockText = lockTextOf(connection.get(), lock);
    readHolders();
  }
  if (PQisBusy(connection.get()) == 1) {  // the server hangs
    connection.reset();
  }
}
