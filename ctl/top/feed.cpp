#include "ctl/top/feed.h"

#include <fmt/format.h>

#include "ctl/session/session.h"
#include "ctl/terminal/text.h"

namespace {

// Ordering all tasks by the view of their states takes three times as long as by their table. So
// the candidates are chosen from the table by conditions that hold for every task that the view
// would choose, and the view is asked about those alone. A condition that also holds for many
// others would leave no place for the right ones.
constexpr const char* kIsRunning = "kodu_is_running(cron_status, cron_next_exec, cron_wanted, utc)";
constexpr const char* kIsLate =
    "cron_status IS DISTINCT FROM 'PROCESS' AND NOT cron_delete"
    " AND cron_next_exec < utc - interval '2 s'";

std::string conditionOf(TopView view) {
  switch (view) {
    case TopView::kLate:
      return kIsLate;
    case TopView::kRunning:
      return kIsRunning;
    case TopView::kFailing:
      // Only the history tells which of the tasks in PROCESS are failing.
      return "(cron_status = 'FAILED' OR cron_id IN"
             " (SELECT id FROM kodu_task_state WHERE status = 'PROCESS' AND failing))";
    case TopView::kLatest:
      return "cron_last_exec IS NOT NULL";
    case TopView::kAll:
      break;
  }
  return "TRUE";
}

/// What of the view a row must have to stay: kIsLate holds for a second longer.
const char* requirementOf(TopView view) {
  switch (view) {
    case TopView::kLate:
      return "late";
    case TopView::kRunning:
      return "running";
    case TopView::kFailing:
      return "failing";
    default:
      return "TRUE";
  }
}

std::string orderOf(const TopQuery& query) {
  const char* up = query.isReversed ? "DESC" : "ASC";
  const char* down = query.isReversed ? "ASC" : "DESC";
  switch (query.sort) {
    case TopSort::kId:
      return fmt::format("cron_id {}", up);
    case TopSort::kName:
      return fmt::format("plugin_name COLLATE \"C\" {}, cron_id", up);
    case TopSort::kDue:
      return fmt::format("cron_next_exec {}, cron_id", up);
    case TopSort::kLast:
      return fmt::format("cron_last_exec {} NULLS LAST, cron_id", down);
    case TopSort::kUrgency:
      break;
  }
  const std::string urgency = fmt::format(
      "CASE WHEN {} THEN 1 WHEN {} THEN 2 WHEN cron_status = 'FAILED' THEN 3 ELSE 4 END", kIsLate,
      kIsRunning);
  // What has waited longest comes first, and then what ran last.
  return fmt::format(
      "{} {}, CASE WHEN cron_next_exec < utc THEN cron_next_exec END {}, cron_last_exec {} NULLS "
      "LAST, cron_id",
      urgency, up, up, down);
}

/// The rank keeps the order of the candidates.
std::string statementOf(const TopQuery& query) {
  return fmt::format(
      R"(
WITH candidate AS MATERIALIZED (
    SELECT cron_id AS id, row_number() OVER () AS rank
    FROM (SELECT cron_id
          FROM (SELECT now() AT TIME ZONE 'UTC' AS utc) AS moment,
               kodu_cron_plugin JOIN kodu_plugins ON plugin_id = cron_plugin_id
          WHERE plugin_type = 'cron' AND {}{}
          ORDER BY {} LIMIT {}) AS ordered)
SELECT id, name, coalesce(status, '-') AS status, late, running, awaiting_retry, failing, paused,
       due_seconds, failures_day,
       floor(EXTRACT(EPOCH FROM due))::bigint AS due,
       floor(EXTRACT(EPOCH FROM last_due))::bigint AS last_due,
       floor(EXTRACT(EPOCH FROM failing_since))::bigint AS failing_since
FROM candidate JOIN kodu_task_state USING (id)
WHERE {} ORDER BY rank)",
      conditionOf(query.view),
      query.filter.empty() ? "" : " AND strpos(lower(plugin_name), lower($1)) > 0", orderOf(query),
      query.limit, requirementOf(query.view));
}

TopRow rowOf(const Rows& rows, int row) {
  TopRow result;
  result.id = static_cast<int>(rows.number(row, "id"));
  result.name = rows.text(row, "name");
  result.status = rows.text(row, "status");
  result.isLate = rows.isTrue(row, "late");
  result.isRunning = rows.isTrue(row, "running");
  result.awaitsRetry = rows.isTrue(row, "awaiting_retry");
  result.isFailing = rows.isTrue(row, "failing");
  result.isPaused = rows.isTrue(row, "paused");
  result.dueSeconds = rows.number(row, "due_seconds");
  result.due = rows.optionalNumber(row, "due");
  result.lastDue = rows.optionalNumber(row, "last_due");
  result.failingSince = rows.optionalNumber(row, "failing_since");
  result.failuresDay = rows.number(row, "failures_day");
  return result;
}

}  // namespace

std::vector<TopRow> readTop(Session& session, const TopQuery& query) {
  const std::vector<std::string> parameters =
      query.filter.empty() ? std::vector<std::string>{} : std::vector{query.filter};
  const Rows rows = session.query(statementOf(query), parameters);
  std::vector<TopRow> result;
  result.reserve(static_cast<std::size_t>(rows.count()));
  for (int row = 0; row < rows.count(); ++row) {
    result.push_back(rowOf(rows, row));
  }
  return result;
}

TopCounts readTopCounts(Session& session) {
  const Rows rows = session.query(
      "SELECT count(*) AS tasks, count(*) FILTER (WHERE late) AS late,"
      " count(*) FILTER (WHERE running) AS running,"
      " count(*) FILTER (WHERE status = 'FAILED') AS failed"
      " FROM kodu_task_state WHERE plugin_type = 'cron'");
  return {rows.number(0, "tasks"), rows.number(0, "late"), rows.number(0, "running"),
          rows.number(0, "failed")};
}

std::string stateWord(const TopRow& row) {
  if (row.isRunning) {
    return row.awaitsRetry ? "retry" : "running";
  }
  if (row.isPaused) {
    return "paused";
  }
  if (row.isLate) {
    return "late";
  }
  return row.isFailing ? "failing" : row.status;
}

Json::Value toJson(const TopCounts& counts, const std::vector<TopRow>& rows) {
  Json::Value json;
  json["tasks"] = Json::Int64{counts.tasks};
  json["late"] = Json::Int64{counts.late};
  json["running"] = Json::Int64{counts.running};
  json["failed"] = Json::Int64{counts.failed};
  json["rows"] = Json::Value(Json::arrayValue);
  for (const TopRow& row : rows) {
    Json::Value entry;
    entry["id"] = row.id;
    entry["name"] = row.name;
    entry["state"] = stateWord(row);
    entry["due"] = jsonTime(row.due);
    entry["due_seconds"] = Json::Int64{row.dueSeconds};
    entry["last_due"] = jsonTime(row.lastDue);
    entry["failing_since"] = jsonTime(row.failingSince);
    entry["failures_day"] = Json::Int64{row.failuresDay};
    json["rows"].append(entry);
  }
  return json;
}
