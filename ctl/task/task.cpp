#include "ctl/task/task.h"

#include <fmt/format.h>

#include <type_traits>
#include <utility>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/task/selection.h"
#include "ctl/terminal/jsonList.h"
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

/// Calls `give` with the name and the value of each member of the task's JSON object, by name.
template <typename Give>
void giveMembers(const Task& task, const Give& give) {
  give("archive", task.archivePath());
  give("calendar", task.calendar.empty() ? std::nullopt : std::optional(task.calendar));
  give("deleted", task.isFlagged);
  give("due", jsonTimeText(task.next));
  give("every_seconds", task.every);
  give("failing_since", jsonTimeText(task.failingSince));
  give("failures_day", task.failuresDay);
  give("failures_hour", task.failuresHour);
  give("held_from", jsonTimeText(task.heldFrom));
  give("id", static_cast<long>(task.id));
  give("last_due", jsonTimeText(task.lastDue));
  give("late_seconds", task.lateSeconds);
  give("name", task.name);
  give("output_file", task.outputPath());
  give("parameters", task.parameter);
  give("pause", task.pause);
  give("paused", task.isPaused());
  give("plugin", task.path);
  give("retries", task.maxRetries());
  give("retries_used", task.failedAttempts);
  give("retry_after_seconds", task.retryDelay());
  give("retry_due", jsonTimeText(task.retryDue));
  give("running", task.isRunning);
  give("status", task.status);
  give("zone", task.zone.empty() ? std::nullopt : std::optional(task.zone));
}

template <typename Give>
void giveMembers(const Pause& pause, const Give& give) {
  give("by", pause.by);
  give("reason", pause.reason);
  give("since", jsonTimeText(pause.since));
  give("until", jsonTimeText(pause.until));
}

Json::Value valueOf(bool value) {
  return value;
}
Json::Value valueOf(long number) {
  return Json::Int64{number};
}
Json::Value valueOf(const std::string& text) {
  return text;
}
template <typename Value>
Json::Value valueOf(const std::optional<Value>& value);

template <typename Members>
Json::Value objectOf(const Members& members) {
  Json::Value json(Json::objectValue);
  giveMembers(members, [&](const char* name, const auto& value) { json[name] = valueOf(value); });
  return json;
}

Json::Value valueOf(const Pause& pause) {
  return objectOf(pause);
}
template <typename Value>
Json::Value valueOf(const std::optional<Value>& value) {
  return value ? valueOf(*value) : Json::Value();
}

/// Writes members into a text, many times faster than by way of a Json::Value.
template <typename Members>
void writeObject(JsonText& text, const Members& members) {
  text.begin();
  giveMembers(members, [&]<typename Value>(const char* name, const Value& value) {
    text.name(name);
    if constexpr (std::is_same_v<Value, std::optional<Pause>>) {
      value ? writeObject(text, *value) : text.null();
    } else if constexpr (requires { value.has_value(); }) {
      value ? text.value(*value) : text.null();
    } else {
      text.value(value);
    }
  });
  text.end();
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

std::string calendarText(const Task& task) {
  return fmt::format("{} in {}", task.calendar, task.zone);
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
  const auto names = std::make_shared<serviceCron>();  // the rest of a record has no part in it
  names->SetService_id(static_cast<unsigned long long>(id));
  names->SetFilename(fileName);
  return currentOutputPath(outputDirectory, names);
}

std::string Task::archivePath() const {
  return archiveDirectory(outputDirectory, std::to_string(id));
}

// date_part, not EXTRACT, whose exact numbers take a million tasks some seconds.
const char* const kDefinitionColumns = R"(
       id, name, plugin_path, plugin_type, coalesce(parameters, ''), coalesce(file_name, ''),
       floor(date_part('epoch', every))::bigint,
       coalesce(date_part('year', every) <> 0 OR date_part('month', every) <> 0
                OR date_part('day', every) < 0
                OR date_part('epoch', every) < 86400 * date_part('day', every), false),
       -- A run that ends during a pause adds an interval of up to a year to the pause's time.
       scheduled > kodu_pause_time() + interval '366 days',
       retry_limit, floor(date_part('epoch', retry_delay))::bigint,
       floor(date_part('epoch', due))::bigint, late, paused)";

const char* const kStateColumns = R"(,
       status,
       floor(date_part('epoch', last_due))::bigint,
       floor(date_part('epoch', due_after_run))::bigint,
       running, awaiting_retry, floor(date_part('epoch', retry_due))::bigint, late_seconds,
       floor(date_part('epoch', paused_at))::bigint,
       floor(date_part('epoch', paused_until))::bigint, paused_by, pause_reason,
       deleting, failures_hour, failures_day, attempts, failing,
       floor(date_part('epoch', failing_since))::bigint,
       floor(date_part('epoch', now()))::bigint, calendar, zone, parked,
       floor(date_part('epoch', held_from))::bigint)";

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
  task.calendar = fields.text();
  task.zone = fields.text();
  task.isParked = fields.isTrue();
  task.heldFrom = fields.optionalNumber();
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
  return objectOf(task);
}

std::string toJsonText(const Task& task) {
  JsonText text(1);
  writeObject(text, task);
  return text.take();
}
