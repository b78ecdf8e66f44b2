#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

class Session;
class serviceCron;

/// A task's row with its plugin and its recent history. Times are seconds since the epoch, periods
/// seconds.
struct Task {
  int id = 0;
  std::string name, path, type, parameter, fileName;
  std::optional<std::string> status;  // nothing before the first run
  std::optional<long> lastDue;        // when the last completed run was due
  std::optional<long> next;           // when the next run, or the present one, is due
  std::optional<long> every;
  bool isIntervalUneven = false;            // holds months, years or a negative part
  std::optional<long> retries, retryAfter;  // nothing: the daemon's defaults
  bool isFlagged = false;                   // waits for the purge
  bool isPaused = false;
  long failuresHour = 0, failuresDay = 0;
  long failedAttempts = 0;  // of the present run, which has begun
  std::optional<long> failingSince;
  long now = 0;  // the server's clock

  /// A run, or its wait for a retry, goes on: until it ends its due time stays. PROCESS with a due
  /// time to come is what a run left that the daemon dropped, or that a pause overtook.
  bool isRunning() const { return status == "PROCESS" && next.value_or(now) <= now; }
  bool isFailing() const { return status == "FAILED" || failingSince.has_value(); }
  /// Seconds since a run was due that has not begun; 0 for a task that is to wait.
  long lateSeconds() const;
  /// More than the two seconds that a timer, which looks once a second, may take.
  bool isLate() const { return lateSeconds() > 2; }

  long maxRetries() const { return retries.value_or(kDefaultRetries); }
  long retryDelay() const { return retryAfter.value_or(kDefaultRetryAfter); }

  /// The path of the current output file.
  std::string outputPath() const;
  /// The folder of the failed runs' outputs, with a trailing slash.
  std::string archivePath() const;
  /// The record that the daemon would make of it.
  std::shared_ptr<serviceCron> record() const;

 private:
  static constexpr long kDefaultRetries = 1;
  static constexpr long kDefaultRetryAfter = 120;
};

/// All tasks, by id; rows whose plugin is no task's (plugin_type) are among them.
std::vector<Task> readTasks(Session& session);

/// One task. Throws Failure (kNotFound) when there is none.
Task readTask(Session& session, int id);

/// How many rows are in PROCESS: runs that go on, and pending retries.
long countRunning(Session& session);

/// Everything above as a JSON object.
Json::Value toJson(const Task& task);
