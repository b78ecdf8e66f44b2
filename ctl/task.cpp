#include "ctl/task.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/failure.h"
#include "ctl/session.h"
#include "ctl/text.h"
#include "sched/outputPath.h"
#include "task/serviceCron.h"

namespace {

// "series" is the unbroken series of failures that the latest one belongs to: where two lie further
// apart than a run that succeeded in between needs, the series ends. It counts only while the
// latest completed run is one of its failures. A pause is a next time in 2036, see
// sql/functions.sql; its view of the tasks says the same, but the daemon's role may not read it.
constexpr const char* kSelect = R"(
SELECT task.cron_id AS id, plugin_name AS name, plugin_path AS path, plugin_type AS type,
       coalesce(cron_parameter, '') AS parameter, coalesce(cron_log_file, '') AS file,
       cron_status AS status, cron_delete IS TRUE AS flagged, cron_retries AS retries,
       coalesce(cron_next_exec >= '2036-01-01', false) AS paused,
       CASE WHEN cron_last_exec < '2036-01-01'
             AND isfinite(cron_last_exec)
            THEN floor(EXTRACT(EPOCH FROM cron_last_exec))::bigint END AS last,
       floor(EXTRACT(EPOCH FROM cron_next_exec))::bigint AS next,
       floor(EXTRACT(EPOCH FROM cron_interval))::bigint AS every,
       coalesce(EXTRACT(YEAR FROM cron_interval) <> 0 OR EXTRACT(MONTH FROM cron_interval) <> 0
                OR EXTRACT(DAY FROM cron_interval) < 0
                OR EXTRACT(EPOCH FROM cron_interval) < 86400 * EXTRACT(DAY FROM cron_interval),
                false) AS is_uneven,
       floor(EXTRACT(EPOCH FROM cron_retries_interval))::bigint AS retry_after,
       coalesce(recent.hour, 0) AS hour, coalesce(recent.day, 0) AS day,
       coalesce(series.attempts, 0) AS attempts,
       CASE WHEN cron_status = 'FAILED' OR series.attempts > 0
                 OR series.of_last_run > coalesce(cron_retries, 1)
            THEN floor(EXTRACT(EPOCH FROM series.since))::bigint END AS failing_since,
       floor(EXTRACT(EPOCH FROM now()))::bigint AS now
FROM kodu_cron_plugin AS task
JOIN kodu_plugins ON plugin_id = cron_plugin_id
LEFT JOIN (SELECT cron_id,
                  count(*) FILTER (WHERE cron_date > now() - interval '1 hour') AS hour,
                  count(*) AS day
           FROM kodu_cron_error WHERE cron_date > now() - interval '1 day'
           GROUP BY cron_id) AS recent ON recent.cron_id = task.cron_id
LEFT JOIN LATERAL (
    SELECT min(cron_date) FILTER (WHERE breaks = 0) AS since,
           count(*) FILTER (WHERE cron_date >= cron_next_exec) AS attempts,
           count(*) FILTER (WHERE cron_date >= cron_last_exec
                              AND cron_date < cron_next_exec) AS of_last_run
    FROM (SELECT cron_date,
                 count(*) FILTER (WHERE gap > 1.5 * greatest(cron_interval,
                                            coalesce(cron_retries_interval, '120 seconds')))
                     OVER (ORDER BY cron_date DESC) AS breaks
          FROM (SELECT cron_date, lead(cron_date) OVER (ORDER BY cron_date) - cron_date AS gap
                FROM kodu_cron_error AS error
                WHERE error.cron_id = task.cron_id AND isfinite(cron_date)) AS gaps
         ) AS failures
    ) AS series ON cron_status IN ('FAILED', 'PROCESS')
)";

Task taskOf(const Rows& rows, int row) {
  Task task;
  task.id = static_cast<int>(rows.number(row, "id"));
  task.name = rows.text(row, "name");
  task.path = rows.text(row, "path");
  task.type = rows.text(row, "type");
  task.parameter = rows.text(row, "parameter");
  task.fileName = rows.text(row, "file");
  task.status = rows.optionalText(row, "status");
  task.lastDue = rows.optionalNumber(row, "last");
  task.next = rows.optionalNumber(row, "next");
  task.every = rows.optionalNumber(row, "every");
  task.isIntervalUneven = rows.isTrue(row, "is_uneven");
  task.retries = rows.optionalNumber(row, "retries");
  task.retryAfter = rows.optionalNumber(row, "retry_after");
  task.isPaused = rows.isTrue(row, "paused");
  task.isFlagged = rows.isTrue(row, "flagged");
  task.failuresHour = rows.number(row, "hour");
  task.failuresDay = rows.number(row, "day");
  task.failedAttempts = rows.number(row, "attempts");
  task.failingSince = rows.optionalNumber(row, "failing_since");
  task.now = rows.number(row, "now");
  return task;
}

}  // namespace

long Task::lateSeconds() const {
  const bool isWaiting = isRunning() || isPaused || isFlagged || !next;
  return isWaiting ? 0 : std::max(0L, now - *next);
}

std::shared_ptr<serviceCron> Task::record() const {
  auto task = std::make_shared<serviceCron>();
  task->SetService_id(static_cast<unsigned long long>(id));
  task->Setname(name);
  task->Setpath(path);
  task->Setparameter(parameter);
  task->SetFilename(fileName);
  return task;
}

std::string Task::outputPath() const {
  return currentOutputPath(record());
}

std::string Task::archivePath() const {
  return archiveDirectory(std::to_string(id));
}

std::vector<Task> readTasks(Session& session) {
  const Rows rows = session.query(std::string(kSelect) + "ORDER BY task.cron_id");
  std::vector<Task> tasks;
  tasks.reserve(static_cast<std::size_t>(rows.count()));
  for (int row = 0; row < rows.count(); ++row) {
    tasks.push_back(taskOf(rows, row));
  }
  return tasks;
}

Task readTask(Session& session, int id) {
  const Rows rows =
      session.query(std::string(kSelect) + "WHERE task.cron_id = $1::int", {std::to_string(id)});
  if (rows.count() == 0) {
    throw Failure(kNotFound, fmt::format("there is no task {}; koductl status lists them", id));
  }
  return taskOf(rows, 0);
}

long countRunning(Session& session) {
  return session
      .query(
          "SELECT count(*) AS running FROM kodu_cron_plugin"
          " WHERE cron_status = 'PROCESS' AND cron_next_exec <= now()")
      .number(0, "running");
}

Json::Value toJson(const Task& task) {
  Json::Value json(Json::objectValue);
  json["id"] = task.id;
  json["name"] = task.name;
  json["plugin"] = task.path;
  json["parameters"] = task.parameter;
  json["status"] = jsonText(task.status);
  json["due"] = jsonTime(task.isPaused ? std::nullopt : task.next);
  json["last_due"] = jsonTime(task.lastDue);
  json["late_seconds"] = Json::Int64{task.lateSeconds()};
  json["every_seconds"] = jsonNumber(task.every);
  json["retries"] = Json::Int64{task.maxRetries()};
  json["retry_after_seconds"] = Json::Int64{task.retryDelay()};
  json["retries_used"] = Json::Int64{task.failedAttempts};
  json["failures_hour"] = Json::Int64{task.failuresHour};
  json["failures_day"] = Json::Int64{task.failuresDay};
  json["failing_since"] = jsonTime(task.failingSince);
  json["paused"] = task.isPaused;
  json["deleted"] = task.isFlagged;
  json["output_file"] = task.outputPath();
  json["archive"] = task.archivePath();
  return json;
}
