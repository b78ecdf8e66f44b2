#include "ctl/task/task.h"

#include <fmt/format.h>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "ctl/terminal/text.h"
#include "sched/outputPath.h"
#include "task/serviceCron.h"

namespace {

/// Who paused a paused task, and why.
void takePause(Fields& fields, Task& task) {
  Pause pause{fields.optionalNumber(), fields.optionalNumber(), fields.text(), fields.text()};
  if (task.pause) {
    task.pause = std::move(pause);
  }
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

const char* const kDefinitionColumns = R"(
       id, name, plugin_path, plugin_type, coalesce(parameters, ''), coalesce(file_name, ''),
       floor(EXTRACT(EPOCH FROM every))::bigint,
       coalesce(EXTRACT(YEAR FROM every) <> 0 OR EXTRACT(MONTH FROM every) <> 0
                OR EXTRACT(DAY FROM every) < 0
                OR EXTRACT(EPOCH FROM every) < 86400 * EXTRACT(DAY FROM every), false),
       -- A run that ends during a pause adds an interval of up to a year to the pause's time.
       scheduled > kodu_pause_time() + interval '366 days',
       retry_limit, floor(EXTRACT(EPOCH FROM retry_delay))::bigint,
       floor(EXTRACT(EPOCH FROM due))::bigint, late, paused)";

const char* const kStateColumns = R"(,
       status,
       floor(EXTRACT(EPOCH FROM last_due))::bigint,
       floor(EXTRACT(EPOCH FROM due_after_run))::bigint,
       running, awaiting_retry, floor(EXTRACT(EPOCH FROM retry_due))::bigint, late_seconds,
       floor(EXTRACT(EPOCH FROM paused_at))::bigint,
       floor(EXTRACT(EPOCH FROM paused_until))::bigint, paused_by, pause_reason,
       deleting, failures_hour, failures_day, attempts, failing,
       floor(EXTRACT(EPOCH FROM failing_since))::bigint,
       floor(EXTRACT(EPOCH FROM now()))::bigint)";

Task takeDefinition(Fields& fields, const std::string& outputDirectory) {
  Task task;
  task.outputDirectory = outputDirectory;
  task.id = static_cast<int>(fields.number());
  task.name = fields.text();
  task.path = fields.text();
  task.type = fields.text();
  task.parameter = fields.text();
  task.fileName = fields.text();
  task.every = fields.optionalNumber();
  task.isIntervalUneven = fields.isTrue();
  task.isNextBeyondLimit = fields.isTrue();
  task.retries = fields.optionalNumber();
  task.retryAfter = fields.optionalNumber();
  task.next = fields.optionalNumber();
  task.isLate = fields.isTrue();
  if (fields.isTrue()) {
    task.pause.emplace();
  }
  return task;
}

Task takeTask(Fields& fields, const std::string& outputDirectory) {
  Task task = takeDefinition(fields, outputDirectory);
  task.status = fields.optionalText();
  task.lastDue = fields.optionalNumber();
  task.afterRun = fields.optionalNumber();
  task.isRunning = fields.isTrue();
  task.awaitsRetry = fields.isTrue();
  task.retryDue = fields.optionalNumber();
  task.lateSeconds = fields.number();
  takePause(fields, task);
  task.isFlagged = fields.isTrue();
  task.failuresHour = fields.number();
  task.failuresDay = fields.number();
  task.failedAttempts = fields.number();
  task.isFailing = fields.isTrue();
  task.failingSince = fields.optionalNumber();
  task.now = fields.number();
  return task;
}

Task readTask(Session& session, int id) {
  Selection selection;
  selection.ids = {id};
  const std::vector<Task> found = readTasks(session, selection);
  if (found.empty()) {
    throw Failure(kNotFound, fmt::format("there is no task {}; koductl status lists them", id));
  }
  return found.front();
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
