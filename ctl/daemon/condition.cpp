#include "ctl/daemon/condition.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

#include "core/helpers.h"
#include "ctl/daemon/process.h"
#include "ctl/daemon/serviceManager.h"
#include "ctl/daemon/starts.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/config.h"
#include "ctl/session/schemaVersion.h"
#include "ctl/session/session.h"
#include "ctl/terminal/text.h"

namespace {

constexpr long kHour = 3600;
constexpr long kLongLate = 60;  // seconds; no pause of the timer explains them

constexpr const char* kCounts = R"(
SELECT count(*) AS tasks, count(*) FILTER (WHERE late) AS late, count(*) FILTER (WHERE busy) AS busy,
       (SELECT daemons FROM kodu_daemon_state) AS daemons
FROM kodu_task_state WHERE plugin_type = 'cron' AND NOT deleting)";

constexpr const char* kOldest = R"(
SELECT id, name, floor(EXTRACT(EPOCH FROM due))::bigint AS due, late_seconds
FROM kodu_task_state
WHERE plugin_type = 'cron' AND NOT deleting AND NOT running AND NOT paused
ORDER BY due, id LIMIT 1)";

void readProcess(DaemonCondition& condition, const DaemonConfig& config) {
  condition.process = findDaemon(config);
  if (condition.process.pid) {
    condition.since = startOf(*condition.process.pid);
    condition.isReplaced = executableOf(*condition.process.pid).ends_with(" (deleted)");
  }
  const auto recorded = restartsSince(condition.now - kHour);
  condition.isByJournal = recorded.has_value();
  condition.starts = recorded ? *recorded : startsInLog(config.logFile);
  std::erase_if(condition.starts, [&](long time) { return time < condition.now - kHour; });
}

void readDatabase(DaemonCondition& condition, const Options& options) {
  Session session(options, SchemaRule::kAnyVersion);
  session.makeReadOnly();
  const SchemaState schema = readSchemaState(session);
  condition.schemaVersion = schema.version;
  condition.isSchemaKnown = !schema.isBehind() && !schema.isNewer();
  const Rows counts = session.query(kCounts);
  condition.tasks = counts.number(0, "tasks");
  condition.late = counts.number(0, "late");
  condition.busy = counts.number(0, "busy");
  condition.daemons = counts.number(0, "daemons");
  condition.databaseNow = serverTime(session);
  const Rows oldest = session.query(kOldest);
  if (oldest.count() > 0) {
    condition.oldestId = static_cast<int>(oldest.number(0, "id"));
    condition.oldestName = oldest.text(0, "name");
    condition.oldestDue = oldest.number(0, "due");
    condition.oldestLate = oldest.number(0, "late_seconds");
  }
}

std::string whereTheReasonIs(const DaemonCondition& condition) {
  return condition.process.isService || condition.isByJournal
             ? fmt::format("journalctl --unit {} shows why", kServiceUnit)
             : fmt::format("the log {} and its standard error show why", condition.logFile);
}

/// Why it does not work; "" when nothing says so.
std::string whatIsBroken(const DaemonCondition& condition) {
  if (const long period = restartPeriod(condition.starts, condition.now); period > 0) {
    return fmt::format("It restarts every {} and runs next to nothing; {}.",
                       counted(period, "second"), whereTheReasonIs(condition));
  }
  if (!condition.databaseFailure.empty()) {
    return fmt::format("The database does not answer: {}.", condition.databaseFailure);
  }
  if (condition.daemons == 0) {
    return condition.process.pid
               ? std::string("It runs, but it is not connected to the database.")
               : "No daemon is connected to the database: start it with systemctl start koducron.";
  }
  return condition.daemons > 1
             ? fmt::format(
                   "{} daemons are connected, and each task runs as often: stop all but one.",
                   condition.daemons)
             : "";
}

/// What hinders it; "" when nothing does.
std::string whatIsDifficult(const DaemonCondition& condition) {
  if (condition.oldestLate > kLongLate) {
    return condition.busy >= condition.workers
               ? fmt::format(
                     "All workers are busy and {} late: set a higher thread_number, or "
                     "limit the time of the plugins.",
                     condition.late == 1 ? "1 task is"
                                         : fmt::format("{} tasks are", condition.late))
               : fmt::format(
                     "Task {} is late although workers are free; koductl explain {} says "
                     "why.",
                     condition.oldestId.value_or(0), condition.oldestId.value_or(0));
  }
  if (!condition.isSchemaKnown) {
    return fmt::format(
        "The tables have version {}, and this koductl knows version {}: see koductl "
        "schema.",
        condition.schemaVersion, knownSchemaVersion());
  }
  return condition.isReplaced
             ? "Its program has been replaced since its start: restart it to run the new one."
             : "";
}

}  // namespace

DaemonCondition examineDaemon(const Options& options) {
  const DaemonConfig config = readConfig(options.configFile, options.user);
  DaemonCondition condition;
  condition.now = std::time(nullptr);
  condition.workers = stringToInt(config.threadNumber);
  condition.logFile = config.logFile;
  readProcess(condition, config);
  try {
    readDatabase(condition, options);
  } catch (const Failure& e) {
    condition.databaseFailure = e.what();
  }
  return condition;
}

Verdict judge(const DaemonCondition& condition) {
  if (const std::string reason = whatIsBroken(condition); !reason.empty()) {
    return {2, reason};
  }
  if (const std::string reason = whatIsDifficult(condition); !reason.empty()) {
    return {1, reason};
  }
  return {0, "It works."};
}

Json::Value toJson(const DaemonCondition& condition) {
  const Verdict verdict = judge(condition);
  const bool isAnswered = condition.databaseFailure.empty();
  const auto ofDatabase = [&](long number) {
    return jsonNumber(isAnswered ? std::optional(number) : std::nullopt);
  };
  Json::Value json;
  json["pid"] = condition.process.pid ? Json::Value(*condition.process.pid) : Json::Value();
  json["unit"] = condition.process.isService ? Json::Value(kServiceUnit) : Json::Value();
  json["version"] =
      condition.process.pid && !condition.isReplaced ? Json::Value(KODU_VERSION) : Json::Value();
  json["since"] = jsonTime(condition.since);
  json["restarts_hour"] = Json::UInt64{condition.starts.size()};
  json["restarts_by"] = condition.isByJournal ? "journal" : "log";
  json["workers"] = condition.workers;
  json["workers_busy"] = ofDatabase(std::min<long>(condition.busy, condition.workers));
  json["workers_idle"] = ofDatabase(std::max(0L, condition.workers - condition.busy));
  json["tasks"] = ofDatabase(condition.tasks);
  json["late"] = ofDatabase(condition.late);
  json["daemons_connected"] = ofDatabase(condition.daemons);
  json["oldest_due"] = Json::Value();
  if (condition.oldestId) {
    json["oldest_due"]["id"] = *condition.oldestId;
    json["oldest_due"]["name"] = condition.oldestName;
    json["oldest_due"]["due"] = jsonTime(condition.oldestDue);
    json["oldest_due"]["late_seconds"] = Json::Int64{condition.oldestLate};
  }
  json["schema_version"] = ofDatabase(condition.schemaVersion);
  json["known_schema_version"] = knownSchemaVersion();
  json["database"] = isAnswered ? Json::Value() : Json::Value(condition.databaseFailure);
  json["verdict"] = verdict.sentence;
  json["exit_code"] = verdict.exitCode;
  return json;
}
