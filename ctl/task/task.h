#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

class Fields;
class Session;
class serviceCron;

/// Why a task does not run.
struct Pause {
  std::optional<long> since;  // nothing where it was paused without the functions
  std::optional<long> until;  // nothing where it does not end by itself
  std::string by, reason;     // "" where they are not known
};

/// A task's row with its plugin and its recent history. Its state is that of the view
/// kodu_task_state. Times are seconds since the epoch, periods seconds.
struct Task {
  int id = 0;
  std::string name, path, type, parameter, fileName;
  std::string outputDirectory;        // the daemon's, below which its files lie
  std::optional<std::string> status;  // nothing before the first run
  std::optional<long> lastDue;        // when the last completed run was due
  std::optional<long> next;           // when the next run, or the present one, is due; else paused
  std::optional<long> afterRun;       // the time that was set for the run after the present one
  std::optional<long> every;
  bool isIntervalUneven = false;            // contains months, years or a negative part
  bool isNextBeyondLimit = false;           // later than a pause and a run that ends in it lead to
  std::optional<long> retries, retryAfter;  // nothing: the daemon's defaults
  bool isFlagged = false;                   // waits for the purge, or for a run's end before it
  bool isRunning = false;                   // a run, or its wait for a retry, is in progress
  bool awaitsRetry = false;                 // that wait: it occupies no worker
  bool isParked = false;                    // paused, because the calendar has no coming time
  std::optional<long> retryDue;             // when the run's next retry is due, or was
  bool isLate = false;                      // its run is overdue
  long lateSeconds = 0;                     // since the due time; 0 before it and while paused
  std::optional<Pause> pause;
  std::string calendar, zone;    // "": it runs every interval
  std::optional<long> heldFrom;  // when it would be due if no maintenance window held it
  long failuresHour = 0, failuresDay = 0;
  long failedAttempts = 0;  // of the present run, which has begun
  bool isFailing = false;
  std::optional<long> failingSince;
  long now = 0;  // the server's clock

  bool isPaused() const { return pause.has_value(); }
  long maxRetries() const { return retries.value_or(kDefaultRetries); }
  long retryDelay() const { return retryAfter.value_or(kDefaultRetryAfter); }

  /// The path of the current output file.
  std::string outputPath() const;
  /// The folder of the failed runs' outputs, with a trailing slash.
  std::string archivePath() const;
  /// The record that the daemon would create from it.
  std::shared_ptr<serviceCron> record() const;

 private:
  static constexpr long kDefaultRetries = 1;
  static constexpr long kDefaultRetryAfter = 120;
};

/// Columns of the view kodu_task_state for the list of a SELECT: what takeDefinition() reads, and
/// what takeTask() reads after it.
extern const char* const kDefinitionColumns;
extern const char* const kStateColumns;

/// The task of a row of kDefinitionColumns: its definition, when it is due, and whether it is late
/// or paused. Throws Failure (kNoDatabase) for another row.
Task takeDefinition(Fields& fields, const std::string& outputDirectory);
/// The whole task of a row of both.
Task takeTask(Fields& fields, const std::string& outputDirectory);

/// One task. Throws Failure (kNotFound) when there is none.
Task readTask(Session& session, int id);

/// How many runs are in progress, as far as the tables tell.
struct Workload {
  long busy = 0;     // those that may occupy a worker
  long waiting = 0;  // those that wait for the time of their retry
};
Workload countRunning(Session& session);

/// "paused since 2024-05-01 13:02:09 UTC (5m ago) by alice until 2024-05-01 15:00:00 UTC (in 1h
/// 57m): new disks"; unknown parts are omitted.
std::string pauseText(const Pause& pause, long now);

/// "0 3 * * mon-fri in Europe/Paris"; only for a task with a calendar.
std::string calendarText(const Task& task);

/// Everything above as a JSON object.
Json::Value toJson(const Task& task);
/// The same as an element for JsonList.
std::string toJsonText(const Task& task);
