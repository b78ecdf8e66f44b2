#pragma once

#include <array>
#include <string>
#include <vector>

class pgSafeThread;

// Every SQL text of the daemon. The texts stay letter for letter, doubled blanks included, so that
// what the server logs and counts for a statement is comparable from one version to the next.

/// A statement that start-up prepares: its name on the server, its text, its parameter count.
struct NamedStatement {
  const char* name;
  const char* sql;
  int nParams;
};

/// The named statements, in the order in which start-up prepares them. Times are whole seconds
/// since the epoch. `SelectCronHistory` is not used by the daemon.
inline constexpr std::array<NamedStatement, 8> kNamedStatements = {{
    {"UpdateCronProcess",
     "UPDATE kodu_cron_plugin SET cron_status='PROCESS' WHERE cron_id=$1::int;", 1},
    {"SelectDeleteCron", "SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE;", 0},
    {"DeleteCron", "DELETE FROM kodu_cron_plugin WHERE cron_id=$1::int;", 1},
    {"DeleteCronHistory", "DELETE FROM kodu_cron_error WHERE cron_id=$1::int;", 1},
    {"SelectCronHistory",
     "SELECT cron_date,cron_logfile FROM kodu_cron_error WHERE cron_id=$1::int;", 1},
    {"UpdateCronState",
     "UPDATE kodu_cron_plugin SET cron_status=$2::varchar, cron_last_exec=cron_next_exec, "
     "cron_next_exec=cron_next_exec+cron_interval WHERE cron_id=$1::int RETURNING  EXTRACT(EPOCH "
     "FROM cron_next_exec)::int;",
     2},
    {"insertCronError",
     "INSERT INTO kodu_cron_error(cron_error_id, cron_id, cron_date, cron_logfile) VALUES "
     "(DEFAULT,$1::int,NOW(),$2::varchar);",
     2},
    {"updateCronExecTask",
     "UPDATE kodu_cron_plugin SET cron_next_exec=cron_next_exec+(cron_interval*$2::int) WHERE "
     "cron_id=$1::int RETURNING  EXTRACT(EPOCH FROM cron_next_exec)::int;",
     2},
}};

/// Subscribes the session to the platform's notifications.
inline constexpr const char* kListen = "LISTEN koducronchannel;";

/// Prepares the named statements, in order. Throws PostgresqlException at the first that fails.
void prepareNamedStatements(pgSafeThread& connection);

/// The loader's query: all tasks when `ids` is null, else those that it lists, in its order. An
/// empty list gives the query for all tasks without its final ";". The columns, by index:
/// 0 cron_id, 1 plugin_name, 3 interval (seconds, perhaps with a fraction), 6 nextexec (seconds
/// since the epoch), 7 cron_log_file, 8 cron_retries, 9 retries_interval (seconds),
/// 10 plugin_path, 11 cron_parameter; 2, 4 and 5 are not used. Rows come in the server's order,
/// those flagged for deletion among them.
std::string taskQuery(const std::vector<int>* ids);
