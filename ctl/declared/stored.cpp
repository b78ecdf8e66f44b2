#include "ctl/declared/stored.h"

#include <fmt/format.h>

#include "ctl/declared/sqlText.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"

namespace {

/// The column of a task's host, to which it is given back after a takeover; NULL for the default
/// one.
std::string hostColumn(Session& session) {
  const bool hasHosts = session
                            .query(
                                "SELECT has_table_privilege(to_regclass('public.kodu_task_host'), "
                                "'SELECT') AS has_hosts")
                            .isTrue(0, "has_hosts");
  return hasHosts ? "NULLIF(COALESCE(task.cron_home, task.cron_host),"
                    " (SELECT kodu_host_default()))"
                  : "NULL";
}

/// The statement for tasks that fulfil a condition, with an expression for their host. The key of
/// most tasks without one can be told without a call of kodu_implied_key().
std::string selectWhere(const std::string& condition, const std::string& host = "NULL") {
  return fmt::format(
      R"(SELECT task.cron_id AS id,
       COALESCE(task_key, CASE WHEN EXISTS (SELECT FROM kodu_cron_key
                                            WHERE task_key = concat('task-', task.cron_id))
                               THEN kodu_implied_key(task.cron_id)
                               ELSE concat('task-', task.cron_id) END) COLLATE "C" AS key,
       task_set, plugin.plugin_path AS path, plugin.plugin_name AS name,
       cron_parameter AS parameters, cron_log_file AS file,
       {} AS every, COALESCE(cron_retries, 1) AS retries,
       COALESCE({}, '120') AS retry_after, cron_calendar AS at, cron_zone AS zone, {} AS host,
       paused, pause_reason, EXTRACT(EPOCH FROM paused_until)::bigint AS paused_until,
       floor(EXTRACT(EPOCH FROM CASE WHEN paused THEN due_at_pause
                                     ELSE COALESCE(due_after_run, due) END))::bigint AS due,
       floor(EXTRACT(EPOCH FROM now()))::bigint AS now
FROM kodu_cron_plugin AS task
JOIN kodu_plugins AS plugin ON plugin_id = cron_plugin_id
JOIN kodu_task_state AS state ON state.id = task.cron_id
LEFT JOIN kodu_cron_key AS own ON own.cron_id = task.cron_id
WHERE plugin.plugin_type = 'cron' AND NOT deleting AND {})",
      sqlPeriod("cron_interval"), sqlPeriod("cron_retries_interval"), host, condition);
}

// The ids that could have one of the keys in $1, or belong to the set $2.
constexpr const char* kHasKeyOrSet = R"(task.cron_id IN (
    SELECT cron_id FROM kodu_cron_key WHERE task_key = ANY($1::text[]) OR task_set = NULLIF($2, '')
    UNION SELECT substring(key FROM '^task-([0-9]{1,9})x*$')::integer
          FROM unnest($1::text[]) AS key))";

StoredTask taskOf(const Rows& rows, int row, const std::string& guard) {
  StoredTask task;
  task.id = static_cast<int>(rows.number(row, "id"));
  task.key = rows.text(row, "key");
  task.set = rows.text(row, "task_set");
  task.definition =
      definitionOf({rows.text(row, "path"), rows.text(row, "name"), rows.text(row, "parameters"),
                    rows.text(row, "file"), periodText(rows.text(row, "every")),
                    rows.text(row, "retries"), periodText(rows.text(row, "retry_after")),
                    rows.text(row, "at"), rows.text(row, "zone"), rows.text(row, "host")},
                   guard);
  task.isPaused = rows.isTrue(row, "paused");
  task.pauseReason = rows.text(row, "pause_reason");
  task.pausedUntil = rows.optionalNumber(row, "paused_until");
  task.due = rows.optionalNumber(row, "due");
  task.now = rows.number(row, "now");
  return task;
}

// The tasks by which sql/hosts.sql asks daemons for a sign belong to one database's hosts.
constexpr const char* kIsNoPing =
    "NOT (plugin.plugin_name = 'kodu_host_ping' AND starts_with(cron_log_file, 'kodu_host_ping_'))";

/// The condition of a selection; `ids` are its tasks.
std::string conditionOf(const Selection& selection, const Statement& ids) {
  const bool isWhole = !selection.isLimitedToSome() && !selection.limit && selection.after.empty();
  return isWhole ? "TRUE" : fmt::format("task.cron_id IN (SELECT id FROM ({}) AS chosen)", ids.sql);
}

}  // namespace

std::string readGuard(Session& session) {
  return session
      .query(
          "SELECT COALESCE((SELECT plugin_path FROM kodu_plugins"
          " WHERE plugin_path LIKE '%/koduguard' ORDER BY plugin_id LIMIT 1),"
          " '/usr/bin/koduguard') AS guard")
      .text(0, "guard");
}

std::vector<StoredTask> readStored(Session& session, const std::vector<std::string>& keys,
                                   const std::string& set, const std::string& guard) {
  const Rows rows = session.query(selectWhere(kHasKeyOrSet), {sqlArray(keys), set});
  std::vector<StoredTask> tasks;
  tasks.reserve(static_cast<std::size_t>(rows.count()));
  for (int row = 0; row < rows.count(); ++row) {
    tasks.push_back(taskOf(rows, row, guard));
  }
  return tasks;
}

void forEachStored(Session& session, const Selection& selection, const std::string& set,
                   const std::string& guard, const std::function<void(const StoredTask&)>& use) {
  Statement chosen = idsOf(selection);
  chosen.values.push_back(set);
  const std::string ofSet = fmt::format("(${0} = '' OR task_set = ${0})", chosen.values.size());
  // Held, that is copied by the server: a reader of the export may be slow, and a transaction would
  // keep the server from cleaning up behind the daemon's updates.
  session.query("DECLARE export NO SCROLL CURSOR WITH HOLD FOR " +
                    selectWhere(fmt::format("{} AND {} AND {} ORDER BY key",
                                            conditionOf(selection, chosen), ofSet, kIsNoPing),
                                hostColumn(session)),
                chosen.values);
  for (int count = 1; count > 0;) {
    const Rows rows = session.query("FETCH 50 FROM export");  // the parameters may be long
    count = rows.count();
    for (int row = 0; row < count; ++row) {
      use(taskOf(rows, row, guard));
    }
  }
}
