#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

class Session;

/// One counter of kodu_metric_count, or one bucket of a histogram.
struct CounterValue {
  std::string host;   // of the daemon; "": not by a daemon
  std::string name;   // "runs", "skipped", "lives", "lateness", "seconds", "lateness_sum", ...
  std::string label;  // an outcome, a reason or an upper bound; else ""
  double value = 0;
};

/// What is read at each scrape.
struct DaemonFigures {
  long daemons = 0;
  double queueShare = 0;  // of the notification queue
  double uncounted = 0;   // transactions
  bool isLedgerOn = false;
  std::optional<double> prunedAt;  // seconds since the epoch
  long schemaVersion = 0;
};

/// A task with series of its own.
struct TaskSeries {
  std::string id, name;
  bool isOk = false;                              // of a marked task
  std::optional<double> since;                    // of a failing one
  std::optional<double> ended, seconds, dueTime;  // of a marked one
};

/// The states of kodu_metric_tasks: each task is in one of them.
constexpr std::array<const char*, 7> kTaskStates = {"ok",     "failed",   "running", "retrying",
                                                    "paused", "deleting", "new"};

/// What needs all tasks to be read.
struct TaskFigures {
  std::array<long, kTaskStates.size()> states{};
  long overdue = 0, oldestOverdue = 0, longestRun = 0;  // a count; seconds
  long failing = 0, unwritten = 0;                      // tasks; rows of the ledger
  std::vector<TaskSeries> failingTasks, markedTasks;
  double readAt = 0;  // seconds since the epoch
};

/// What a page of metrics shows. Without an answer of the database, only the first two count.
struct MetricsReading {
  bool isDatabaseUp = false;
  double seconds = 0;  // that the database took
  DaemonFigures daemon;
  bool isCounted = false;  // else the counters are those of an earlier time, and are not shown
  std::vector<CounterValue> counters;
  std::optional<TaskFigures> tasks;
};

// All throw Failure as Session::query does; kRefused when sql/metrics.sql is not loaded.

/// Moves the counters on by some transactions. False while there is more.
bool collectCounters(Session& session);
/// Reads everything but the tasks in some milliseconds. The caller says whether all is counted.
MetricsReading readMetrics(Session& session);
/// Takes some seconds for a million tasks.
TaskFigures readTasks(Session& session);
