#include "ctl/task/task.h"

#include <fmt/format.h>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/terminal/text.h"
#include "sched/outputPath.h"
#include "task/serviceCron.h"

namespace {

constexpr const char* kSelect = R"(
SELECT id, name, plugin_path AS path, plugin_type AS type,
       coalesce(cron_parameter, '') AS parameter, coalesce(cron_log_file, '') AS file,
       status, deleting, running, awaiting_retry, late, late_seconds,
       paused, paused_by, pause_reason,
       floor(EXTRACT(EPOCH FROM paused_at))::bigint AS paused_at,
       floor(EXTRACT(EPOCH FROM paused_until))::bigint AS paused_until,
       floor(EXTRACT(EPOCH FROM last_due))::bigint AS last,
       floor(EXTRACT(EPOCH FROM due))::bigint AS next,
       floor(EXTRACT(EPOCH FROM due_after_run))::bigint AS after_run,
       floor(EXTRACT(EPOCH FROM cron_interval))::bigint AS every,
       coalesce(EXTRACT(YEAR FROM cron_interval) <> 0 OR EXTRACT(MONTH FROM cron_interval) <> 0
                OR EXTRACT(DAY FROM cron_interval) < 0
                OR EXTRACT(EPOCH FROM cron_interval) < 86400 * EXTRACT(DAY FROM cron_interval),
                false) AS is_uneven,
       -- A run that ends during a pause adds an interval of up to a year to the pause's time.
       cron_next_exec > kodu_pause_time() + interval '366 days' AS beyond_limit,
       cron_retries AS retries,
       floor(EXTRACT(EPOCH FROM cron_retries_interval))::bigint AS retry_after,
       floor(EXTRACT(EPOCH FROM retry_due))::bigint AS retry_due,
       failures_hour AS hour, failures_day AS day, attempts, failing,
       floor(EXTRACT(EPOCH FROM failing_since))::bigint AS failing_since,
       floor(EXTRACT(EPOCH FROM now()))::bigint AS now
FROM kodu_task_state JOIN kodu_cron_plugin ON cron_id = id
)";

/// Nothing for a task that is not paused.
std::optional<Pause> pauseOf(const Rows& rows, int row) {
  if (!rows.isTrue(row, "paused")) {
    return std::nullopt;
  }
  return Pause{rows.optionalNumber(row, "paused_at"), rows.optionalNumber(row, "paused_until"),
               rows.text(row, "paused_by"), rows.text(row, "pause_reason")};
}

/// The definition of the task in its row.
Task definitionOf(const Rows& rows, int row) {
  Task task;
  task.id = static_cast<int>(rows.number(row, "id"));
  task.name = rows.text(row, "name");
  task.path = rows.text(row, "path");
  task.type = rows.text(row, "type");
  task.parameter = rows.text(row, "parameter");
  task.fileName = rows.text(row, "file");
  task.every = rows.optionalNumber(row, "every");
  task.isIntervalUneven = rows.isTrue(row, "is_uneven");
  task.isNextBeyondLimit = rows.isTrue(row, "beyond_limit");
  task.retries = rows.optionalNumber(row, "retries");
  task.retryAfter = rows.optionalNumber(row, "retry_after");
  return task;
}

Task taskOf(const Rows& rows, int row, const std::string& outputDirectory) {
  Task task = definitionOf(rows, row);
  task.outputDirectory = outputDirectory;
  task.status = rows.optionalText(row, "status");
  task.lastDue = rows.optionalNumber(row, "last");
  task.next = rows.optionalNumber(row, "next");
  task.afterRun = rows.optionalNumber(row, "after_run");
  task.isRunning = rows.isTrue(row, "running");
  task.awaitsRetry = rows.isTrue(row, "awaiting_retry");
  task.retryDue = rows.optionalNumber(row, "retry_due");
  task.isLate = rows.isTrue(row, "late");
  task.lateSeconds = rows.number(row, "late_seconds");
  task.pause = pauseOf(rows, row);
  task.isFlagged = rows.isTrue(row, "deleting");
  task.failuresHour = rows.number(row, "hour");
  task.failuresDay = rows.number(row, "day");
  task.failedAttempts = rows.number(row, "attempts");
  task.isFailing = rows.isTrue(row, "failing");
  task.failingSince = rows.optionalNumber(row, "failing_since");
  task.now = rows.number(row, "now");
  return task;
}

Json::Value toJson(const std::optional<Pause>& pause) {
  if (!pause) {
    return {};
  }
  Json::Value json;
  json["since"] = jsonTime(pause->since);
  json["until"] = jsonTime(pause->until);
  json["by"] = pause->by;
  json["reason"] = pause->reason;
  return json;
}

}  // namespace

std::string pauseText(const Pause& pause, long now) {
  std::string text = "paused";
  if (pause.since) {
    text += fmt::format(" since {} ({} ago)", zonedTime(*pause.since),
                        durationText(now - *pause.since));
  }
  text += pause.by.empty() ? "" : " by " + pause.by;
  text += pause.until ? fmt::format(" until {} (in {})", zonedTime(*pause.until),
                                    durationText(*pause.until - now))
                      : "";
  return text + (pause.reason.empty() ? "" : ": " + pause.reason);
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
  return currentOutputPath(outputDirectory, record());
}

std::string Task::archivePath() const {
  return archiveDirectory(outputDirectory, std::to_string(id));
}

std::vector<Task> readTasks(Session& session) {
  const Rows rows = session.query(std::string(kSelect) + "ORDER BY id");
  std::vector<Task> tasks;
  tasks.reserve(static_cast<std::size_t>(rows.count()));
  for (int row = 0; row < rows.count(); ++row) {
    tasks.push_back(taskOf(rows, row, session.config.outputDirectory));
  }
  return tasks;
}

Task readTask(Session& session, int id) {
  const Rows rows =
      session.query(std::string(kSelect) + "WHERE id = $1::int", {std::to_string(id)});
  if (rows.count() == 0) {
    throw Failure(kNotFound, fmt::format("there is no task {}; koductl status lists them", id));
  }
  return taskOf(rows, 0, session.config.outputDirectory);
}

Workload countRunning(Session& session) {
  const Rows rows = session.query(
      "SELECT count(*) FILTER (WHERE busy) AS busy, count(*) FILTER (WHERE awaiting_retry) AS "
      "waiting"
      " FROM kodu_task_state WHERE running");
  return {rows.number(0, "busy"), rows.number(0, "waiting")};
}

Json::Value toJson(const Task& task) {
  Json::Value json(Json::objectValue);
  json["id"] = task.id;
  json["name"] = task.name;
  json["plugin"] = task.path;
  json["parameters"] = task.parameter;
  json["status"] = jsonText(task.status);
  json["due"] = jsonTime(task.next);
  json["last_due"] = jsonTime(task.lastDue);
  json["late_seconds"] = Json::Int64{task.lateSeconds};
  json["every_seconds"] = jsonNumber(task.every);
  json["retries"] = Json::Int64{task.maxRetries()};
  json["retry_after_seconds"] = Json::Int64{task.retryDelay()};
  json["retries_used"] = Json::Int64{task.failedAttempts};
  json["failures_hour"] = Json::Int64{task.failuresHour};
  json["failures_day"] = Json::Int64{task.failuresDay};
  json["failing_since"] = jsonTime(task.failingSince);
  json["running"] = task.isRunning;
  json["retry_due"] = jsonTime(task.retryDue);
  json["paused"] = task.isPaused();
  json["pause"] = toJson(task.pause);
  json["deleted"] = task.isFlagged;
  json["output_file"] = task.outputPath();
  json["archive"] = task.archivePath();
  return json;
}
