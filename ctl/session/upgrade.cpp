#include "ctl/session/upgrade.h"

#include <fmt/format.h>

#include <optional>
#include <string>
#include <thread>

#include "ctl/failure.h"
#include "ctl/session/schemaSql.h"
#include "ctl/session/schemaVersion.h"
#include "ctl/session/session.h"
#include "ctl/session/transaction.h"

namespace {

// Between two tries the daemon can use the tables. It never queues behind a waiting upgrade.
constexpr std::chrono::milliseconds kPause{50};

constexpr const char* kLockNotAvailable = "55P03";

// Requested by the upgrades of all releases, so it must never change.
constexpr const char* kTakeTurn = "SELECT pg_try_advisory_xact_lock(6420241122) AS is_mine";

// Views first: a reader of a view locks it before the tables. NOWAIT: a waiting lock blocks all
// later ones, also the daemon's, and waiting while holding other locks can cause a deadlock, which
// may end the daemon.
constexpr const char* kLockAll = R"(
DO $$
DECLARE
    names text;
BEGIN
    SELECT string_agg(oid::regclass::text, ', ' ORDER BY relkind DESC, relname) INTO names
    FROM pg_class
    WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p', 'v')
      AND starts_with(relname, 'kodu_');
    EXECUTE 'LOCK TABLE ' || names || ' IN ACCESS EXCLUSIVE MODE NOWAIT';
END
$$)";

constexpr const char* kHolders = R"(
SELECT string_agg(DISTINCT format('session %s of %s%s', pid, usename,
                                  nullif(' (' || application_name || ')', ' ()')), ', ') AS holders
FROM pg_locks JOIN pg_stat_activity USING (pid)
WHERE granted AND pid <> pg_backend_pid() AND locktype = 'relation'
  AND relation IN (SELECT oid FROM pg_class WHERE relnamespace = 'public'::regnamespace
                                              AND relkind IN ('r', 'p', 'v')
                                              AND starts_with(relname, 'kodu_')))";

constexpr const char* kHasFunctions =
    "SELECT to_regproc('public.kodu_notify_of_task') IS NOT NULL AS has_functions";

// No limit of time: this one is about locks, and its statements may take as long as they do. But a
// koductl that was stopped, or whose host is gone, must not keep the tables from the daemon.
constexpr const char* kTransactionSettings =
    "SET LOCAL lock_timeout = '500ms'; SET LOCAL statement_timeout = 0;"
    "SET LOCAL idle_in_transaction_session_timeout = '5s';"
    "SET LOCAL client_min_messages = warning; SET LOCAL search_path = public";

constexpr const char* kHasCalendars =
    "SELECT to_regproc('public.kodu_calendar_parse') IS NOT NULL AS has_calendars";

constexpr const char* kHasWindows =
    "SELECT to_regclass('public.kodu_window') IS NOT NULL AS has_windows";

constexpr const char* kHasConsole =
    "SELECT to_regclass('public.kodu_audit') IS NOT NULL AS has_console";

constexpr const char* kHasHosts = "SELECT to_regclass('public.kodu_host') IS NOT NULL AS has_hosts";

void takeTurn(Session& session) {
  if (!session.query(kTakeTurn).isTrue(0, "is_mine")) {
    throw Failure(kRefused, "another upgrade of this database is in progress");
  }
}

/// False when another session uses one of the tables.
bool lockAll(Session& session) {
  try {
    session.execute(kLockAll);
    return true;
  } catch (const Failure& e) {
    if (e.sqlState != kLockNotAvailable) {
      throw;
    }
    return false;
  }
}

[[noreturn]] void failWithoutLock(Session& session, std::chrono::seconds patience) {
  const std::string holders = session.query(kHolders).text(0, "holders");
  throw Failure(kNoDatabase,
                fmt::format("the tables were in use for {} s, and nothing was changed: {}; use "
                            "--wait SECONDS to try longer",
                            patience.count(), holders.empty() ? "by short statements" : holders));
}

void applyMigrations(Session& session, int version) {
  for (const Migration& migration : migrations()) {
    if (migration.version > version) {
      session.execute(migration.sql);
      session.query("INSERT INTO kodu_schema_version (version, title) VALUES ($1::int, $2)",
                    {std::to_string(migration.version), migration.title});
    }
  }
}

void redefine(Session& session) {
  // A database without the functions gets none: their triggers notify the daemon. If a platform
  // notifies it too, each new task would run twice.
  const bool hasFunctions = session.query(kHasFunctions).isTrue(0, "has_functions");
  const bool hasCalendars = session.query(kHasCalendars).isTrue(0, "has_calendars");
  const bool hasWindows = session.query(kHasWindows).isTrue(0, "has_windows");
  const bool hasConsole = session.query(kHasConsole).isTrue(0, "has_console");
  const bool hasHosts = session.query(kHasHosts).isTrue(0, "has_hosts");
  session.execute(beforeSql);
  session.execute(schemaSql);
  if (hasFunctions) {
    session.execute(functionsSql);
    session.execute(ledgerSql);
    session.execute(eventsSql);
    session.execute(metricsSql);
  }
  if (hasCalendars) {
    session.execute(calendarSql);
  }
  if (hasWindows) {
    session.execute(windowsSql);
  }
  if (hasConsole) {
    session.execute(consoleSql);
  }
  if (hasHosts) {
    session.execute(hostsSql);  // last: it copies the rights that the others have given
  }
  session.execute(afterSql);
}

/// The previous version; nothing when the tables are in use.
std::optional<int> tryUpgrade(Session& session, bool isDryRun) {
  Transaction transaction(session, kTransactionSettings);
  takeTurn(session);
  const SchemaState state = readSchemaState(session);
  if (!state.tablesExist) {
    throw Failure(kRefused,
                  "this database has no tables of koducron: load sql/schema.sql as its owner");
  }
  refuseNewerSchema(state);
  if (!lockAll(session)) {
    return std::nullopt;
  }
  applyMigrations(session, state.version);
  redefine(session);
  if (!isDryRun) {
    transaction.commit();
  }
  return state.version;
}

}  // namespace

int upgradeSchema(Session& session, const UpgradeMode& mode) {
  const auto end = std::chrono::steady_clock::now() + mode.patience;
  while (true) {
    if (const std::optional<int> before = tryUpgrade(session, mode.isDryRun)) {
      return *before;
    }
    if (std::chrono::steady_clock::now() >= end) {
      failWithoutLock(session, mode.patience);
    }
    std::this_thread::sleep_for(kPause);
  }
}
